// The library's answers, and the file that they were given from.
#pragma once

#include "reading.hpp"

#include <functional>
#include <memory>
#include <string>

namespace vdctl {

/// What a peer is to reach.
struct target {
    zone_member_type type; // SERIALIZATION, PORT, IP_RANGE or MAC_RANGE
    std::string name;      // of a peer or port
    uint32_t ip = 0;
    uint64_t mac = 0;
};

/// From "ip:10.1.0.1" and its like, or by the form of the text; fails where that is no such thing.
target parse_target(std::string_view written);

/// "ip", "mac", "port" or "peer", by a zone_member_type.
const char *kind_of(int32_t type);
std::string value_of(const target &what);

struct verdict {
    bool is_allowed = false;
    bool is_open = false; // a zone that lets the peer through
};

/// The library's answer.
verdict ask(const char *peer, const target &what);

/// Prints an answer and gives the exit status.
using answer_printer = std::function<int()>;

/// Calls ask with vdctl's reading of the live file while the library holds the same file, and then what ask gives. When
/// the file has become another one meanwhile, it is all asked again first. Fails where the file gives no model.
int with_zones(bool needs_schedule,
               const std::function<answer_printer(const std::shared_ptr<const zone_reading> &)> &ask);

/// Asks the schedule of each zone. A missing script, which closes all, gives one warning.
void ask_schedules();

} // namespace vdctl
