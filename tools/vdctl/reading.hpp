// The zones of a file as vdctl reads them, with the library's conversions and the places of everything.
#pragma once

#include "output.hpp"
#include "zone_file.hpp"

#include <string>
#include <vector>

namespace vdctl {

struct member_entry {
    std::string key;
    unsigned line = 0;
    bool disabled = false;
    bool has_end = false;              // an address_end
    std::optional<zone_member> record; // none: dropped by the library

    bool is_loaded() const { return record && !disabled; }
    bool is_subject() const
    {
        return record->type == ZONE_MEMBER_SERIALIZATION &&
               (record->direction == ZONE_DIRECTION_IN || record->direction == ZONE_DIRECTION_BOTH);
    }
    bool is_target() const
    {
        return record->direction == ZONE_DIRECTION_OUT || record->direction == ZONE_DIRECTION_BOTH;
    }
};

struct zone_entry {
    std::string key;
    unsigned line = 0;
    bool disabled = false;
    bool deny_keys = false, deny_locks = false;
    unsigned deny_keys_line = 0, deny_locks_line = 0;
    bool has_members = false;
    std::vector<member_entry> members;
};

/// The zones whose keys are ids, disabled ones too.
using zone_reading = std::vector<zone_entry>;

/// The value of "zones", null without one.
json_object *zones_value(const zone_document &document);

zone_reading read_zones(const zone_document &document);

/// "office" 10.1.0.0/16
text described(const member_entry &member);

/// 10.1.0.0/16, 192.168.1.10-192.168.1.20, 10.0.0.5/0.0.0.255 (gaps), a MAC range, or a name.
std::string extent_of(const zone_member &record);

bool has_gaps(uint32_t netmask);

} // namespace vdctl
