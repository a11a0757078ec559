// What is odd about the addresses of a zone's member.
#pragma once

#include "check.hpp"

namespace vdctl {

struct remark {
    vdctl::level level;
    const char *code;
    text what;
};

/// The ends of one address member, as they are written.
class address_check {
public:
    address_check(zone_member_type type, const char *start);

    bool start_is_good() const { return start_is_good_; }
    std::optional<remark> of_start() const;
    std::optional<remark> of_end(const char *written) const;
    std::optional<remark> of_netmask(const char *written) const;

private:
    std::optional<remark> of_ip(const char *name, const char *written, level if_refused, level if_other) const;
    std::optional<remark> of_mac(const char *name, const char *written, level if_other) const;

    bool is_mac_, start_is_good_;
    const char *start_;
};

} // namespace vdctl
