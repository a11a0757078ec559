// Why the library says yes or no: the zones of vdctl's own reading that have to do with a question. Nothing here
// decides; where explanation and verdict differ, both are shown.
#pragma once

#include "live.hpp"

#include <optional>
#include <string>
#include <vector>

namespace vdctl {

/// A zone that holds the peer as a subject and the target as one that can be reached.
struct fit {
    const zone_entry *zone;
    const member_entry *member; // that is, or holds, the target
    const char *deny_key;       // of the flag that keeps the two apart, null without one
    unsigned deny_line;
};

bool is_loaded(const zone_entry &zone);
bool is_peer(const member_entry &member, const std::string &peer); // its direction aside
bool holds(const member_entry &member, const target &what);        // its direction aside

std::optional<fit> fit_in(const zone_entry &zone, const std::string &peer, const target &what);

/// Those in file order, up to the first that denies the pair.
std::vector<fit> fits_of(const zone_reading &zones, const std::string &peer, const target &what);

/// Whether the zone denies the pair when the member is asked for.
bool is_kept_apart(const zone_entry &zone, const std::string &peer, const member_entry &member);

/// The word for what the zones make of the verdict, null where the two disagree. Without schedule, every zone is open.
const char *reason_of(const verdict &given, bool has_schedule, const zone_reading &zones, const std::string &peer,
                      const std::vector<fit> &fits);

/// An edit of the file that would make it a yes.
struct near_miss {
    std::string zone;
    std::optional<std::string> member; // none: the key is the zone's own
    unsigned line;
    std::optional<std::string> key; // none: the member is new
    std::string value;              // JSON
    text what;
};

/// At most three.
std::vector<near_miss> near_misses(const zone_reading &zones, const std::string &peer, const target &what);

/// What may help where no edit is at hand.
std::vector<text> hints(const zone_reading &zones, const std::string &peer, const target &what, bool has_near_misses);

} // namespace vdctl
