// What peers reach, exactly: the members that the library lists for a peer cut the addresses into intervals in which
// none begins or ends, and the library is asked about each of them once.
#pragma once

#include "live.hpp"

#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace vdctl {

/// A member of vdctl's own reading.
struct source {
    const zone_entry *zone;
    const member_entry *member;

    bool operator==(const source &) const = default;
};

/// What is reached as one: neighbouring addresses with one answer, a port, a peer.
struct extent {
    int32_t type;                // IP_RANGE, IP_NETWORK if its netmask has gaps, MAC_RANGE, PORT or SERIALIZATION
    uint64_t start = 0, end = 0; // of a network the address and its netmask
    std::string_view name = {};  // in the reading
    bool is_open = true;
    std::vector<source> members = {}; // in file order

    bool operator==(const extent &) const = default;
};

std::string target_text(const extent &reached); // a range that is a network as one
std::string range_text(const extent &reached);  // always from first to last

/// Each zone in which the peer is a subject, as often as it is.
using subject_zones = std::vector<const zone_entry *>;

/// Peers with "in" or "both", in file order.
class peer_list {
public:
    explicit peer_list(const zone_reading &zones);

    const std::vector<std::string> &names() const { return names_; }
    const subject_zones &zones_of(const std::string &peer) const;

private:
    std::vector<std::string> names_;
    std::unordered_map<std::string, subject_zones> zones_;
};

/// One row of the matrix: what each of these peers reaches.
struct reach_row {
    std::vector<std::string> peers;
    std::vector<uint32_t> reached; // indexes of extents
    bool is_exact = true;          // no netmask with gaps
};

/// Rows by peers that reach the same, in file order. Equal extents of several rows are kept once.
class matrix {
public:
    explicit matrix(std::shared_ptr<const zone_reading> zones);

    void add(const std::string &peer);
    void add_all();

    const std::deque<extent> &extents() const { return extents_; }
    const std::vector<reach_row> &rows() const { return rows_; }
    bool disagrees() const { return disagrees_; } // library and reading

private:
    std::vector<source> sources_of(const std::string &peer);
    uint32_t intern(extent reached);

    std::shared_ptr<const zone_reading> zones_;
    peer_list peers_;
    std::deque<extent> extents_;
    std::unordered_multimap<std::size_t, uint32_t> extents_by_hash_, rows_by_hash_;
    std::vector<reach_row> rows_;
    bool disagrees_ = false;
};

} // namespace vdctl
