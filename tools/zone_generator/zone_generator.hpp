// Zone files made by chance, each with the zones that it means: for tests, benchmarks and fuzz seeds.
#pragma once

#include "plain_zones.hpp"

#include <string>
#include <vector>

struct generator_options {
    unsigned seed = 1;
    unsigned zones = 7, members = 23; // at most
    bool is_large = false; // exactly as many, as on a large site; else few names and addresses, often met again
    bool has_deny_flags = true;
    bool has_left_out = true;    // zones and members that are null or disabled
    bool has_equal_keys = false; // of zones and of members
    bool has_faults = false;     // what is dropped, cut, or read otherwise than it was meant
    bool has_schedules = false;  // some zones are closed
};

struct generated_zones {
    std::string text;               // of the file
    plain_zones zones;              // what it means
    std::string script;             // that says which of the zones are open
    std::vector<std::string> names; // of peers and ports, worth to be asked for
};

/// The same options give the same file.
generated_zones generate_zones(const generator_options &options);
