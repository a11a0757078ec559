// vdctl on zone files made by chance: what it explains is what the library says, what it suggests makes a yes, what it
// lists is what asking for everything finds.
#include "access.hpp"
#include "device_test.hpp"
#include "output.hpp"
#include "reach.hpp"

#include <algorithm>
#include <map>
#include <random>
#include <sstream>

#include <fcntl.h>
#include <sys/stat.h>

namespace {

using namespace vdctl;

class vdctl_property : public device_test {};

constexpr uint32_t first_ip = 0x0A000000; // of a space of so many, the same for MAC addresses
constexpr unsigned space = 24;
/// The parts between bars.
std::vector<std::string> split(const char *text)
{
    std::istringstream left{text};
    std::vector<std::string> parts;
    for (std::string part; std::getline(left, part, '|');)
        parts.push_back(part);
    return parts;
}

const auto peers = split("token-a|token-b|token-c|vd-vpnserver-a|vd-vpnserver-b|vd-vpnclient-a|x|token-"
                         "abcdefghijklmnopqrst|token-abcdefghijklmnopqrstu");
const auto ports = split("lan1|lan2|abcdefghijklm|abcdefghijklmn");

/// A zone file made by chance, with mistakes.
class generated {
public:
    explicit generated(unsigned seed) : random_{seed}
    {
        for (unsigned n = 1 + below(6); n > 0; --n)
            text += (text.empty() ? "" : ",\n") + zone();
        text = R"({"zone_configuration": {"zones": {)" + text + "}}}";
    }

    std::string text;

private:
    unsigned below(unsigned end) { return static_cast<unsigned>(random_() % end); }
    const std::string &one_of(const std::vector<std::string> &list)
    {
        return list[below(static_cast<unsigned>(list.size()))];
    }

    std::string zone()
    {
        static const auto keys = split("1|2|3|4|5|007|no"), flags = split("true|true|false|\"true\"|null");
        std::string zone = '"' + one_of(keys); // one draw a statement: every compiler makes the same file
        zone += R"(": {"disabled": )" + (below(6) ? "false" : one_of(flags));
        zone += R"(, "deny_between_keys": )" + (below(2) ? "false" : one_of(flags));
        zone += R"(, "deny_between_locks": )" + (below(2) ? "false" : one_of(flags));
        zone += ",\n\"members\": {";
        for (unsigned n = below(14); n > 0; --n)
            zone += member() + ",\n";
        return zone + R"("end": null}})";
    }

    std::string member()
    {
        static const auto directions = split("in|out|both|both|up");
        static const auto netmasks = split("30|255.255.255.252|255.255.255.5|/24|31");
        const unsigned kind = below(10);
        std::string fields = R"("direction": ")" + one_of(directions) + '"';
        fields += below(8) ? "" : R"(, "disabled": true)";
        if (kind < 5)
            return '"' + one_of(peers) + R"(": {"type": "serialization", )" + fields + "}";
        if (kind < 6)
            return '"' + one_of(ports) + R"(": {"type": "port", )" + fields + "}";
        const bool is_mac = kind == 6;
        fields += R"(, "address_start": ")" + address(is_mac) + '"';
        if (kind == 7)
            fields += R"(, "netmask": ")" + one_of(netmasks) + '"';
        else if (below(4))
            fields += R"(, "address_end": ")" + (below(30) ? address(is_mac) : "10.0.0.256") + '"';
        return "\"a" + std::to_string(below(6)) + R"(": {"type": "whitelisted_)" + (is_mac ? "mac\", " : "ip\", ") +
               fields + "}";
    }

    std::string address(bool is_mac) { return is_mac ? mac_text(below(space)) : ip_text(first_ip + below(space)); }

    std::mt19937 random_;
};

/// Another time stamp for each version.
void write_zones(const std::string &text)
{
    static time_t stamp = 0;
    write_file(live_file, text);
    const timespec times[2] = {{++stamp, 0}, {stamp, 0}};
    utimensat(AT_FDCWD, live_file, times, 0);
}

zone_reading read_text(const std::string &text)
{
    return read_zones(parse({"", text, {}}));
}

std::vector<target> all_targets()
{
    std::vector<target> targets;
    for (unsigned i = 0; i < space; ++i) {
        targets.push_back({ZONE_MEMBER_IP_RANGE, "", first_ip + i});
        targets.push_back({ZONE_MEMBER_MAC_RANGE, "", 0, i});
    }
    for (const std::string &port : ports)
        targets.push_back({ZONE_MEMBER_PORT, port});
    for (const std::string &peer : peers)
        targets.push_back({ZONE_MEMBER_SERIALIZATION, peer});
    return targets;
}

/// The file with the near miss written into it.
std::string edited(const std::string &text, const near_miss &miss)
{
    const json_handle root{json_tokener_parse(text.c_str())};
    json_object *zones = value_of(value_of(root.get(), "zone_configuration"), "zones");
    json_object *object = value_of(zones, miss.zone.c_str());
    std::string key = miss.key.value_or("");
    if (miss.member && miss.key)
        object = value_of(value_of(object, "members"), miss.member->c_str());
    else if (miss.member) {
        object = value_of(object, "members");
        key = *miss.member;
    }
    json_object_object_add(object, key.c_str(), json_tokener_parse(miss.value.c_str()));
    return json_object_to_json_string(root.get());
}

std::string name_of(const std::string &peer, const target &what)
{
    return peer + " to " + kind_of(what.type) + ' ' +
           (what.type == ZONE_MEMBER_IP_RANGE ? ip_text(what.ip) : value_of(what));
}

constexpr char odd_zones_closed[] = "#!/bin/sh\n[ $(($2 % 2)) = 1 ] || echo true\n";

using reached_targets = std::map<std::pair<std::string, std::string>, bool>; // peer and target; open

/// Calls use with each peer and each target.
template <typename Use> void for_each_question(Use &&use)
{
    for (const std::string &peer : peers) {
        for (const target &what : all_targets())
            use(peer, what);
    }
}

/// What asking for everything finds.
reached_targets ask_all()
{
    reached_targets found;
    for_each_question([&](const std::string &peer, const target &what) {
        if (const verdict given = ask(peer.c_str(), what); given.is_allowed)
            found[{peer, name_of("", what)}] = given.is_open;
    });
    return found;
}

bool has(const extent &reached, const target &what)
{
    switch (reached.type) {
    case ZONE_MEMBER_IP_RANGE:
    case ZONE_MEMBER_MAC_RANGE: {
        const uint64_t value = what.type == ZONE_MEMBER_IP_RANGE ? what.ip : what.mac;
        return reached.type == what.type && reached.start <= value && value <= reached.end;
    }
    case ZONE_MEMBER_IP_NETWORK:
        return what.type == ZONE_MEMBER_IP_RANGE && ((reached.start ^ what.ip) & reached.end) == 0;
    default:
        return reached.type == what.type && reached.name == what.name.substr(0, common_name_length);
    }
}

/// What the matrix lists of the same targets.
reached_targets listed(const matrix &all)
{
    reached_targets found;
    for (const reach_row &row : all.rows()) {
        for (const std::string &peer : row.peers) {
            for (const target &what : all_targets()) {
                for (const uint32_t index : row.reached) {
                    const extent &reached = all.extents()[index];
                    if (has(reached, what)) // where a netmask with gaps is, another extent may hold it too
                        found[{peer, name_of("", what)}] |= reached.is_open;
                }
            }
        }
    }
    return found;
}

matrix matrix_of(const std::string &text)
{
    matrix all{std::make_shared<const zone_reading>(read_text(text))};
    all.add_all();
    return all;
}

} // namespace

TEST_F(vdctl_property, explains_what_the_library_says)
{
    write_script("/usr/share/vandrel/check_zone_scheduled_access.lua", odd_zones_closed);
    std::map<std::string, unsigned> reasons;
    unsigned asked = 0;
    for (unsigned seed = 1; asked < 100000 && !HasFailure(); ++seed) { // which the rarest reason needs
        SCOPED_TRACE("seed " + std::to_string(seed));
        const std::string text = generated{seed}.text;
        const zone_reading zones = read_text(text);
        write_zones(text);
        for (const bool has_schedule : {false, true}) {
            if (has_schedule)
                zones_update_schedule_access();
            for_each_question([&](const std::string &peer, const target &what) {
                const auto fits = fits_of(zones, peer, what);
                const char *reason = reason_of(ask(peer.c_str(), what), has_schedule, zones, peer, fits);
                ASSERT_NE(reason, nullptr) << name_of(peer, what) << '\n' << text;
                ++reasons[reason];
                ++asked;
            });
        }
        log();
    }
    for (const char *reason :
         {"allowed", "closed", "no-zone", "no-subject", "no-target", "denied", "denied-behind-closed"})
        EXPECT_GT(reasons[reason], 0U) << reason; // the files reach each
}

TEST_F(vdctl_property, each_near_miss_makes_a_yes)
{
    std::map<std::string, unsigned> keys;
    for (unsigned seed = 1; seed <= 20 && !HasFailure(); ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        const std::string text = generated{seed}.text;
        const zone_reading zones = read_text(text);
        for_each_question([&](const std::string &peer, const target &what) {
            const auto fits = fits_of(zones, peer, what);
            if (!fits.empty() && !fits.front().deny_key)
                return; // a yes already
            for (const near_miss &miss : near_misses(zones, peer, what)) {
                write_zones(edited(text, miss));
                zones_load(); // which may fail for another zone without members
                EXPECT_TRUE(ask(peer.c_str(), what).is_allowed)
                    << name_of(peer, what) << ": " << miss.what.str() << '\n'
                    << text;
                ++keys[miss.key.value_or("new")];
            }
            log(); // before the socket is full
        });
    }
    for (const char *key : {"direction", "disabled", "new", "address_start", "address_end"})
        EXPECT_GT(keys[key], 0U) << key;
}

TEST_F(vdctl_property, matrix_lists_what_asking_for_everything_finds)
{
    write_script("/usr/share/vandrel/check_zone_scheduled_access.lua", odd_zones_closed);
    for (unsigned seed = 1; seed <= 300 && !HasFailure(); ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        const std::string text = generated{seed}.text;
        write_zones(text);
        zones_update_schedule_access();
        const matrix all = matrix_of(text);
        EXPECT_FALSE(all.disagrees());
        reached_targets want = ask_all(), found = listed(all);
        for (const reach_row &row : all.rows()) {
            for (const std::string &peer : row.peers) {
                for (auto &[key, is_open] : found) {
                    if (!row.is_exact && key.first == peer)
                        is_open = want[key]; // beside a netmask with gaps, only what is reached is certain
                }
            }
        }
        EXPECT_EQ(found, want) << text;
        log();
    }
}

namespace {

/// Compares what was scanned with what json-c makes of the text: keys, their order, and where their values are.
void compare(const std::string &text, const scanned_key &scanned, json_object *value)
{
    const tokener_handle tokener{json_tokener_new()};
    const std::string rest = text.substr(scanned.value) + ' ';
    const json_handle again{json_tokener_parse_ex(tokener.get(), rest.data(), static_cast<int>(rest.size()))};
    EXPECT_STREQ(json_object_to_json_string(again.get()), json_object_to_json_string(value)) << text;
    EXPECT_LE(scanned.line, 1 + std::count(text.begin(), text.begin() + static_cast<long>(scanned.value), '\n'))
        << text;
    if (!json_object_is_type(value, json_type_object))
        return;
    ASSERT_EQ(scanned.inside.size(), json_object_object_length(value)) << text;
    auto key = scanned.inside.begin();
    json_object_object_foreach(value, name, inside)
    {
        EXPECT_EQ(key->name, name) << text;
        compare(text, *key++, inside);
    }
}

} // namespace

TEST_F(vdctl_property, scanner_sees_the_keys_that_json_c_sees)
{
    std::mt19937 random{1};
    const auto below = [&](std::size_t end) { return random() % end; };
    const auto pieces = split(R"({|}|[|]|,|:|"|'|\|\u0061|a|"a":|'b':|1.5e3|null|NaN|-Infinity|/* " */|// }
| "a": {}|	|"\ud83d\ude00":1|"x\"y":|{"a":1,"a":2}|[1,]|,})");
    const std::string start =
        R"({"a": {"b": [1, {"c": null}], 'd': "x}\"", "b": 2}, "e": {"a": 1, "\u0061": {"f": 3}}})";
    unsigned accepted = 0;
    for (unsigned turn = 0; turn < 15000 && !HasFailure(); ++turn) {
        std::string text = start;
        for (std::size_t changes = below(4); changes > 0; --changes)
            text.replace(below(text.size()), below(3), pieces[below(pieces.size())]);
        const zone_document document = parse({"", text, {}});
        if (document.root) {
            ++accepted;
            compare(text, document.keys, document.root.get());
        }
    }
    EXPECT_GT(accepted, 2000U);
}

TEST_F(vdctl_property, nothing_that_steers_a_terminal_is_printed)
{
    std::mt19937 random{1};
    static const auto hidden =
        split("\u0080|\u0085|\u009f|\u00ad|\u200b|\u200f|\u2028|\u202e|\u2060|\u2069|\ufeff|\x7f|\x1b");
    for (unsigned turn = 0; turn < 20000 && !HasFailure(); ++turn) {
        std::string bytes;
        for (std::size_t length = random() % 24; length > 0; --length)
            bytes += random() % 3 ? std::string{static_cast<char>(random())} : hidden[random() % hidden.size()];
        const json_handle string{new_string(bytes)};
        const std::string json = json_text(string.get());
        for (const std::string &printed : {text::of(bytes).str(), json}) {
            EXPECT_EQ(escaped(printed, escape_as::json), printed) << bytes; // all is UTF-8 without hidden characters
            for (const char c : printed)
                EXPECT_GE(static_cast<unsigned char>(c), 0x20);
            for (const std::string &character : hidden)
                EXPECT_EQ(printed.find(character), printed.npos) << bytes;
        }
        EXPECT_TRUE(json_handle{json_tokener_parse(json.c_str())}) << json;
    }
}
