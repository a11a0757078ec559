#include "live.hpp"

#include "candidate.hpp"
#include "command.hpp"
#include "ip_calculation.h"
#include "mac.h"
#include "output.hpp"
#include "util.h"

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <cstring>
#include <iterator>

#include <fcntl.h>
#include <strings.h>
#include <sys/stat.h>

namespace vdctl {

namespace {

constexpr char schedule_script[] = "/usr/share/vandrel/check_zone_scheduled_access.lua";

constexpr struct {
    std::string_view prefix;
    zone_member_type type;
} kinds[] = {{"ip", ZONE_MEMBER_IP_RANGE},
             {"mac", ZONE_MEMBER_MAC_RANGE},
             {"port", ZONE_MEMBER_PORT},
             {"peer", ZONE_MEMBER_SERIALIZATION}};

bool is_all(std::string_view text, int (*fits)(int))
{
    return std::ranges::all_of(text, [=](char c) { return fits(static_cast<unsigned char>(c)) != 0; });
}

/// Six pairs with colons.
bool looks_like_mac(std::string_view text)
{
    if (text.size() != 17)
        return false;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const bool is_digit = std::isxdigit(static_cast<unsigned char>(text[i])) != 0;
        if (i % 3 == 2 ? text[i] != ':' : !is_digit)
            return false;
    }
    return true;
}

/// Four numbers with dots.
bool looks_like_ip(std::string_view text)
{
    unsigned parts = 1;
    for (; text.find('.') != std::string_view::npos; ++parts) {
        const std::string_view part = text.substr(0, text.find('.'));
        if (part.empty() || !is_all(part, std::isdigit))
            return false;
        text.remove_prefix(part.size() + 1);
    }
    return parts == 4 && !text.empty() && is_all(text, std::isdigit);
}

zone_member_type type_by_form(const char *written)
{
    if (looks_like_mac(written))
        return ZONE_MEMBER_MAC_RANGE;
    if (looks_like_ip(written))
        return ZONE_MEMBER_IP_RANGE;
    return vpn_type_get_by_common_name(written) == PEER_TYPE_UNKNOWN ? ZONE_MEMBER_PORT : ZONE_MEMBER_SERIALIZATION;
}

uint32_t parse_ip_strictly(const std::string &written)
{
    uint32_t ip;
    if (ip_parse_p(&ip, written.c_str()) == 0)
        throw misuse{quoted(written) + " is no address"};
    if (ip_text(ip) != written)
        throw misuse{quoted(written) + " is not written as an address is: that is " + text::of(ip_text(ip))};
    return ip;
}

uint64_t parse_mac_strictly(const std::string &written)
{
    uint8_t bytes[6] = {};
    if (!looks_like_mac(written) || mac_to_bytes_network(bytes, written.c_str()) == 0)
        throw misuse{quoted(written) + " is no MAC address"};
    return mac_bytes_to_long(bytes);
}

bool is_same(const struct stat &a, const struct stat &b)
{
    return a.st_dev == b.st_dev && a.st_ino == b.st_ino && a.st_size == b.st_size &&
           a.st_mtim.tv_sec == b.st_mtim.tv_sec && a.st_mtim.tv_nsec == b.st_mtim.tv_nsec;
}

struct stat status_of_live_file()
{
    struct stat status {};
    if (stat(live_file, &status) != 0)
        fail_with_errno("cannot open " + text::of(live_name()));
    return status;
}

/// Whether there is a model. A question's 0 says "no" and "no model" alike, this one's only the latter.
bool has_model()
{
    zone_member **members = nullptr;
    uint32_t count = 0;
    const bool is_listed = zones_get_allowed_members(&members, &count, "", ZONE_DIRECTION_BOTH) != 0;
    std::free(members);
    return is_listed;
}

[[noreturn]] void refuse_file(const zone_document &document)
{
    const text file = text::of(live_name());
    if (!document.root)
        throw failure{file + ":" + text{document.fault_line} + ": no JSON: " + text::of(document.fault)};
    if (!zones_value(document))
        throw failure{file + R"(: it has no "zones" in "zone_configuration")"};
    throw failure{file + ": the library makes no model of it"};
}

/// Says what made the load fail although there is a model.
void warn_of_failed_load(const zone_document &document, const zone_reading &zones)
{
    if (!json_object_is_type(zones_value(document), json_type_object))
        warn(text{R"("zones" is no object: nothing is allowed, and a daemon's first question after a reload gets no)"});
    for (const zone_entry &zone : zones) {
        if (!zone.disabled && !zone.has_members)
            warn("zone " + text::of(zone.key) + ", line " + text{zone.line} +
                 ", has no members: a daemon's first question after a reload gets no");
    }
}

zone_reading load(bool needs_schedule)
{
    zones_free(); // a load that fails would keep the file before, and go on answering from it
    const bool is_complete = zones_load() != 0, is_usable = has_model();
    const zone_text file = read_zone_text(live_file); // only now: two documents at once would double the memory
    if (needs_schedule && file.mtime && *file.mtime <= 0)
        throw failure{text::of(live_name()) +
                      ": its time stamp is 0 or before, so no schedule ever counts; -n leaves them alone"};
    const zone_document document = parse(file);
    if (!is_usable)
        refuse_file(document);
    zone_reading zones = read_zones(document);
    if (!is_complete)
        warn_of_failed_load(document, zones);
    return zones;
}

} // namespace

target parse_target(std::string_view written)
{
    target what{type_by_form(written.data()), std::string{written}};
    for (const auto &[prefix, type] : kinds) {
        if (written.starts_with(std::string{prefix} + ':'))
            what = {type, std::string{written.substr(prefix.size() + 1)}};
    }
    if (what.type == ZONE_MEMBER_IP_RANGE)
        what.ip = parse_ip_strictly(what.name);
    if (what.type == ZONE_MEMBER_MAC_RANGE)
        what.mac = parse_mac_strictly(what.name);
    return what;
}

const char *kind_of(int32_t type)
{
    const auto *found = std::ranges::find_if(kinds, [=](const auto &kind) {
        return kind.type == (type == ZONE_MEMBER_IP_NETWORK ? ZONE_MEMBER_IP_RANGE : type);
    });
    return found->prefix.data();
}

std::string value_of(const target &what)
{
    return what.type == ZONE_MEMBER_MAC_RANGE ? mac_text(what.mac) : what.name;
}

verdict ask(const char *peer, const target &what)
{
    uint8_t open = 0;
    int allowed = 0;
    uint8_t mac[6];
    switch (what.type) {
    case ZONE_MEMBER_IP_RANGE:
        allowed = zones_is_ip_allowed_sched(peer, what.ip, &open);
        break;
    case ZONE_MEMBER_MAC_RANGE:
        for (int i = 0; i < 6; ++i)
            mac[i] = static_cast<uint8_t>(what.mac >> (40 - 8 * i));
        allowed = zones_is_mac_allowed_sched(peer, mac, &open);
        break;
    case ZONE_MEMBER_PORT:
        allowed = zones_is_port_allowed_sched(peer, what.name.c_str(), &open);
        break;
    default:
        allowed = zones_is_device_allowed_sched(peer, what.name.c_str(), &open);
    }
    return {allowed != 0, open != 0};
}

int with_zones(bool needs_schedule,
               const std::function<answer_printer(const std::shared_ptr<const zone_reading> &)> &ask)
{
    constexpr int most_turns = 3;
    for (int turn = 0; turn < most_turns; ++turn) {
        const struct stat before = status_of_live_file();
        const auto zones = std::make_shared<const zone_reading>(load(needs_schedule));
        const answer_printer print_answer = ask(zones);
        if (is_same(before, status_of_live_file()))
            return print_answer();
    }
    throw failure{text::of(live_name()) + " changes all the time"};
}

void ask_schedules()
{
    const bool is_missing = access(schedule_script, X_OK) != 0;
    const unique_fd error_output{is_missing ? dup(STDERR_FILENO) : -1};
    if (is_missing) {
        warn(text{schedule_script} + ": " + text::of(std::strerror(errno)) + ": every zone counts as closed");
        const unique_fd nowhere{open("/dev/null", O_WRONLY | O_CLOEXEC)};
        dup2(nowhere.get(), STDERR_FILENO);
    }
    zones_update_schedule_access();
    if (is_missing)
        dup2(error_output.get(), STDERR_FILENO);
}

} // namespace vdctl
