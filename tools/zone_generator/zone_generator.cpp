#include "zone_generator.hpp"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <iterator>
#include <optional>
#include <random>

namespace {

const char *const few_names[] = {"token-a",
                                 "token-b",
                                 "vd-vpnserver-a",
                                 "vd-vpnserver-b",
                                 "vd-vpnclient-a",
                                 "vd-vpnclient-b",
                                 "x",
                                 "",
                                 "lan1",
                                 "abcdefghijklm",
                                 "abcdefghijklmn",
                                 "abcdefghijklmnopqrstuvwxyz12",
                                 "token-abcdefghijklmnopqrst",
                                 "token-abcdefghijklmnopqrstu",
                                 "token-abcdefghijklmnopqrstv"};
const struct {
    const char *text;
    uint32_t value;
} netmasks[] = {{"24", 0xFFFFFF00}, {"30", 0xFFFFFFFC}, {"255.255.255.251", 0xFFFFFFFB},
                {"1", 0x80000000},  {"32", ~0U},        {"255.0.255.6", 0xFF00FF06}};
constexpr uint32_t first_ip = 0x0A000000;
constexpr uint64_t first_mac = 0xFF0000000000;
const char *const types[] = {"serialization", "port", "whitelisted_ip", "whitelisted_ip",
                             "whitelisted_mac"}; // by value
const char *const directions[] = {"in", "out", "both", "none"};

// Members that are no part of any zone, whatever their names.
const char *const dropped_members[] = {
    R"({"type":"Port","direction":"out"})",
    R"({"direction":"in"})",
    R"({"type":"whitelisted_ip","direction":"out"})",
    R"({"type":"whitelisted_ip","direction":"out","address_start":"10.0.0.1","netmask":"33"})",
    R"({"type":"whitelisted_mac","direction":"out","address_start":"ff:00:00:00:00:1"})",
    R"({"type":"whitelisted_mac","direction":"out","address_start":"ff:00:00:00:00:01","address_end":"x"})",
    R"([])",
    R"("port")",
    R"(5)"};

std::string quoted(const std::string &text)
{
    return '"' + text + '"';
}

std::string ip_text(uint32_t ip)
{
    char text[16];
    std::snprintf(text, sizeof text, "%u.%u.%u.%u", ip >> 24, ip >> 16 & 255, ip >> 8 & 255, ip & 255);
    return text;
}

std::string mac_text(uint64_t mac)
{
    std::string text;
    for (int shift = 40; shift >= 0; shift -= 8) {
        char byte[4];
        std::snprintf(byte, sizeof byte, "%02x:", static_cast<unsigned>(mac >> shift & 255));
        text += byte;
    }
    text.pop_back();
    return text;
}

/// The entries of an object: of two with equal keys, the last value counts, in the place of the first.
template <typename Value> class entries {
public:
    void set(const std::string &key, std::optional<Value> value, const std::string &text)
    {
        text_ += (text_.empty() ? "" : ",") + quoted(key) + ':' + text;
        const auto found = std::ranges::find(keys_, key);
        if (found != keys_.end()) {
            values_[static_cast<std::size_t>(found - keys_.begin())] = std::move(value);
            return;
        }
        keys_.push_back(key);
        values_.push_back(std::move(value));
    }

    bool has(const std::string &key) const { return std::ranges::count(keys_, key) != 0; }
    const std::vector<std::string> &keys() const { return keys_; }
    std::string text() const { return '{' + text_ + '}'; }
    template <typename List> void move_to(List &list)
    {
        for (auto &value : values_) {
            if (value)
                list.push_back(std::move(*value));
        }
    }

private:
    std::string text_;
    std::vector<std::string> keys_;
    std::vector<std::optional<Value>> values_;
};

class generator {
public:
    explicit generator(const generator_options &options) : options_{options}, random_{options.seed}
    {
        made_.names.assign(std::begin(few_names), std::end(few_names));
        if (!options.is_large)
            return;
        made_.names.clear(); // peers that stand in three zones on average
        for (unsigned i = 0; i < std::max(1U, options.zones * options.members * 4 / 10 / 3); ++i)
            made_.names.push_back("token-" + std::to_string(1000000000 + i * 7919));
    }

    generated_zones generate()
    {
        entries<plain_zone> zones;
        for (unsigned n = count(options_.zones); n > 0; --n)
            add_zone(zones);
        made_.text = R"({"zone_configuration":{"zones":)" + zones.text() + "}}";
        zones.move_to(made_.zones);
        made_.script = "#!/bin/sh\ncase $2 in\n";
        for (const plain_zone &zone : made_.zones)
            made_.script += std::to_string(zone.id) + (zone.open != 0 ? ") echo true ;;\n" : ") echo false ;;\n");
        made_.script += "esac\n";
        return std::move(made_);
    }

private:
    unsigned below(std::size_t end) { return static_cast<unsigned>(random_() % end); }
    bool happens(bool is_wanted, unsigned one_in) { return is_wanted && below(one_in) == 0; }
    unsigned count(unsigned most) { return options_.is_large ? most : below(most + 1); }
    template <typename List> const auto &one_of(const List &list) { return list[below(std::size(list))]; }

    void add_zone(entries<plain_zone> &zones)
    {
        plain_zone zone{.id = next_id_++};
        if (happens(options_.has_equal_keys && zone.id > 0, 6))
            zone.id = static_cast<int>(below(static_cast<std::size_t>(zone.id)));
        const std::string key = std::to_string(zone.id);
        if (happens(options_.has_left_out, 12))
            return zones.set(key, std::nullopt, "null");
        zone.open = !happens(options_.has_schedules, 2);
        std::string text = flag("disabled", false);
        zone.deny_keys = add_flag(text, "deny_between_keys");
        zone.deny_locks = add_flag(text, "deny_between_locks");
        const bool is_left_out = happens(options_.has_left_out, 8);
        if (is_left_out)
            text = flag("disabled", true);
        entries<zone_member> members;
        for (unsigned n = count(options_.members), i = 0; i < n; ++i)
            add_member(members, i);
        text += quoted("members") + ':' + members.text();
        members.move_to(zone.members);
        zones.set(key, is_left_out ? std::nullopt : std::optional{zone}, '{' + text + '}');
    }

    static std::string flag(const char *name, bool value) { return quoted(name) + (value ? ":true," : ":false,"); }

    /// Says what the flag means. One that is no boolean is false.
    bool add_flag(std::string &text, const char *name)
    {
        if (happens(options_.has_faults, 8)) {
            text += quoted(name) + R"(:"true",)";
            return false;
        }
        const bool value = happens(options_.has_deny_flags, 3);
        text += value ? flag(name, true) : "";
        return value;
    }

    void add_member(entries<zone_member> &members, unsigned i)
    {
        zone_member member{};
        member.type = options_.is_large ? type_of(i) : static_cast<int>(below(5));
        member.direction = options_.is_large ? +ZONE_DIRECTION_BOTH : static_cast<int>(below(4));
        std::string key = key_of(member.type, i);
        if (!members.keys().empty() && happens(options_.has_equal_keys, 6))
            key = one_of(members.keys());
        else if (members.has(key))
            return; // drawn before
        if (happens(options_.has_left_out, 12))
            return members.set(key, std::nullopt, "null");
        if (happens(options_.has_faults, 8))
            return members.set(key, std::nullopt, one_of(dropped_members));
        std::string text = quoted("type") + ':' + quoted(types[member.type]) + add_values(member, key);
        if (member.direction != ZONE_DIRECTION_INVALID || below(2) == 0)
            text += ",\"direction\":" + quoted(directions[member.direction]);
        const bool is_left_out = happens(options_.has_left_out, 10);
        if (is_left_out)
            text += R"(,"disabled":true)";
        else if (happens(options_.has_faults, 8))
            text += R"(,"disabled":"true")";
        members.set(key, is_left_out ? std::nullopt : std::optional{member}, '{' + text + '}');
    }

    /// Of ten members four are peers, one is a port, two are networks, one is a range and two are MAC ranges.
    static int type_of(unsigned i)
    {
        constexpr int of_ten[] = {ZONE_MEMBER_SERIALIZATION, ZONE_MEMBER_SERIALIZATION, ZONE_MEMBER_SERIALIZATION,
                                  ZONE_MEMBER_SERIALIZATION, ZONE_MEMBER_PORT,          ZONE_MEMBER_IP_NETWORK,
                                  ZONE_MEMBER_IP_NETWORK,    ZONE_MEMBER_IP_RANGE,      ZONE_MEMBER_MAC_RANGE,
                                  ZONE_MEMBER_MAC_RANGE};
        return of_ten[i % 10];
    }

    std::string key_of(int type, unsigned i)
    {
        if (type == ZONE_MEMBER_PORT && options_.is_large)
            return "lan" + std::to_string(i / 10);
        return type <= ZONE_MEMBER_PORT ? one_of(made_.names) : "address " + std::to_string(i);
    }

    /// Fills in what the member means, and gives the text that says so.
    std::string add_values(zone_member &member, const std::string &key)
    {
        switch (member.type) {
        case ZONE_MEMBER_SERIALIZATION:
            key.copy(member.start.name, 26);
            return "";
        case ZONE_MEMBER_PORT:
            key.copy(member.start.name, 13);
            return "";
        case ZONE_MEMBER_MAC_RANGE:
            member.start.mac = first_mac + (options_.is_large ? uint64_t{below(1U << 16)} << 8 : below(10));
            member.end.mac = options_.is_large ? member.start.mac + 99 : first_mac + below(10);
            return addresses(mac_text(member.start.mac), "address_end", mac_text(member.end.mac));
        default:
            break;
        }
        member.start.ip = first_ip + (options_.is_large ? below(1U << 16) << 8 : below(10));
        const auto &[netmask, mask] = options_.is_large ? netmasks[0] : one_of(netmasks);
        if (member.type == ZONE_MEMBER_IP_NETWORK) {
            member.end.ip = mask;
            return addresses(ip_text(member.start.ip), "netmask", netmask);
        }
        member.end.ip = options_.is_large ? member.start.ip + 99 : first_ip + below(10);
        if (happens(options_.has_faults, 8)) {
            member.end.ip = ~0U;
            return addresses(ip_text(member.start.ip), "address_end", "10.0.0.256");
        }
        return addresses(ip_text(member.start.ip), "address_end", ip_text(member.end.ip));
    }

    static std::string addresses(const std::string &start, const char *name, const std::string &value)
    {
        return ",\"address_start\":" + quoted(start) + ',' + quoted(name) + ':' + quoted(value);
    }

    const generator_options &options_;
    std::mt19937 random_;
    int next_id_ = 0;
    generated_zones made_;
};

} // namespace

generated_zones generate_zones(const generator_options &options)
{
    return generator{options}.generate();
}
