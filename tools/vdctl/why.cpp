// zones why: the library's verdict, and the zones of the file that explain it.
#include "access.hpp"

#include "candidate.hpp"
#include "command.hpp"
#include "output.hpp"
#include "show.hpp"

#include <algorithm>
#include <cstring>

namespace vdctl {

namespace {

struct answer {
    verdict given;
    bool has_schedule; // it was asked
    const char *reason;
    std::vector<fit> fits;
    std::vector<const zone_entry *> own; // the peer's zones, where none has the target
    std::vector<near_miss> near;
    std::vector<text> hints;
};

/// Without a yes, a schedule can't make one, and its scripts need not run.
answer find_answer(const zone_reading &zones, const std::string &peer, const target &what, bool wants_schedule)
{
    answer found{ask(peer.c_str(), what), false, nullptr, {}, {}, {}, {}};
    if (found.given.is_allowed && wants_schedule) {
        ask_schedules();
        found.given = ask(peer.c_str(), what);
        found.has_schedule = true;
    }
    found.fits = fits_of(zones, peer, what);
    found.reason = reason_of(found.given, found.has_schedule, zones, peer, found.fits);
    if (found.given.is_allowed || !found.reason)
        return found;
    for (const zone_entry &zone : zones) {
        if (found.fits.empty() && is_loaded(zone) &&
            std::ranges::any_of(zone.members, [&](const member_entry &m) { return m.is_loaded() && is_peer(m, peer); }))
            found.own.push_back(&zone);
    }
    found.near = near_misses(zones, peer, what);
    found.hints = hints(zones, peer, what, !found.near.empty());
    return found;
}

/// " (zone 1, line 4; zone 3, line 20)"
text places(const std::vector<const zone_entry *> &zones)
{
    constexpr std::size_t most = 5;
    text line;
    for (std::size_t i = 0; i < zones.size() && i < most; ++i)
        line += (i ? text{"; "} : text{}) + "zone " + text::of(zones[i]->key) + ", line " + text{zones[i]->line};
    return line.empty() ? line : " (" + line + (zones.size() > most ? text{"; ..."} : text{}) + ")";
}

std::vector<text> reasons(const answer &found)
{
    if (!found.reason) {
        std::vector<text> lines{"vdctl's own reading of the file says otherwise; please report it with the file:"};
        for (const fit &f : found.fits)
            lines.push_back("zone " + text::of(f.zone->key) + ": " + described(*f.member) + ", line " +
                            text{f.member->line} + (f.deny_key ? "; " + text::of(f.deny_key) : text{}));
        return lines;
    }
    const std::string reason = found.reason;
    if (reason == "no-zone")
        return {"it is in no zone"};
    if (reason == "no-subject")
        return {R"(it is neither "in" nor "both" in its zones)" + places(found.own)};
    if (reason == "no-target")
        return {"nothing that can be reached in its zones holds it" + places(found.own)};
    std::vector<text> lines;
    if (reason == "allowed" && found.fits.size() > 1 && found.has_schedule) {
        text one_of = "one of zones ";
        for (const fit &f : found.fits)
            one_of += (&f == &found.fits.front() ? text{} : text{", "}) + text::of(f.zone->key);
        lines.push_back(one_of + " is open");
    }
    for (const fit &f : found.fits) {
        const text zone = "zone " + text::of(f.zone->key);
        const bool is_of_keys = f.deny_key && std::strcmp(f.deny_key, "deny_between_keys") == 0;
        if (f.deny_key) {
            lines.push_back(zone + ", line " + text{f.deny_line} + ": " + text::of(f.deny_key) +
                            (is_of_keys ? text{" keeps Keys apart"} : text{" keeps Locks of one role apart"}));
        } else {
            lines.push_back(zone + ": " + described(*f.member) + ", line " + text{f.member->line} +
                            (!found.given.is_open ? text{"; its schedule is closed"} : text{}));
        }
        if (reason == "denied" || !found.has_schedule)
            break; // the first one decides
    }
    if (found.given.is_allowed && !found.has_schedule)
        lines.emplace_back("schedule not asked");
    return lines;
}

void print_text(const answer &found, const std::string &peer, const target &what)
{
    const text pair = text::of(peer) + (found.given.is_allowed ? text{" may reach "} : text{" may not reach "}) +
                      text::of(kind_of(what.type)) + " " + text::of(value_of(what));
    if (!found.given.is_allowed)
        print(colour::red, "no", "      " + pair);
    else if (found.given.is_open)
        print(colour::green, "yes", "     " + pair);
    else
        print(colour::yellow, "closed", "  " + pair + ", but not now");
    for (const text &line : reasons(found))
        print("        " + line);
    for (const near_miss &miss : found.near)
        print("near    line " + text{miss.line} + ": " + miss.what);
    for (const text &hint : found.hints)
        print("hint    " + hint);
}

json_object *json_of(const near_miss &miss)
{
    json_object *object = json_object_new_object();
    json_object_object_add(object, "zone", new_string(miss.zone));
    json_object_object_add(object, "member", miss.member ? new_string(*miss.member) : nullptr);
    json_object_object_add(object, "line", json_object_new_int64(miss.line));
    json_object_object_add(object, "key", miss.key ? new_string(*miss.key) : nullptr);
    json_object_object_add(object, "value", json_tokener_parse(miss.value.c_str()));
    json_object_object_add(object, "text", new_string(miss.what.str()));
    return object;
}

json_object *json_zone(const zone_entry &zone, const member_entry *member, bool denies)
{
    json_object *object = json_object_new_object();
    json_object_object_add(object, "zone", new_string(zone.key));
    json_object_object_add(object, "line", json_object_new_int64(zone.line));
    json_object_object_add(object, "member", member ? new_string(member->key) : nullptr);
    json_object_object_add(object, "member_line", member ? json_object_new_int64(member->line) : nullptr);
    json_object_object_add(object, "denies", json_object_new_boolean(denies));
    return object;
}

int status_of(const answer &found)
{
    if (!found.reason)
        return status_disagreement;
    if (!found.given.is_allowed)
        return status_no;
    return found.given.is_open ? status_yes : status_closed;
}

void print_json_answer(const answer &found, const std::string &peer, const target &what, const invocation &given)
{
    json_object *zones = json_object_new_array(), *hints = json_object_new_array(), *near = json_object_new_array();
    for (const fit &f : found.fits)
        json_object_array_add(zones, json_zone(*f.zone, f.member, f.deny_key != nullptr));
    for (const zone_entry *zone : found.own)
        json_object_array_add(zones, json_zone(*zone, nullptr, false));
    for (const text &hint : found.hints)
        json_object_array_add(hints, new_string(hint.str()));
    for (const near_miss &miss : found.near)
        json_object_array_add(near, json_of(miss));
    json_object *object = json_object_new_object();
    const char *word = !found.given.is_allowed ? "no" : found.given.is_open ? "yes" : "closed";
    json_object_object_add(object, "verdict", json_object_new_string(word));
    json_object_object_add(object, "reason", json_object_new_string(found.reason ? found.reason : "disagreement"));
    json_object_object_add(object, "peer", new_string(peer));
    json_object_object_add(object, "target", json_of(what));
    json_object_object_add(object, "file", given.has('f') ? new_string(given.value('f')) : nullptr);
    json_object_object_add(object, "schedule", json_object_new_string(given.has('n') ? "not asked" : "asked"));
    json_object_object_add(object, "zones", zones);
    json_object_object_add(object, "hints", hints);
    json_object_object_add(object, "near", near);
    print_json(object);
}

} // namespace

int zones_why(const invocation &given)
{
    const std::string peer = given.words[0];
    const target what = parse_target(given.words[1]);
    const bool wants_schedule = !given.has('n');
    if (given.has('f'))
        put_in_live_place(read_zone_text(given.value('f')));
    return with_zones(wants_schedule, [&](const std::shared_ptr<const zone_reading> &zones) -> answer_printer {
        return [&, zones, found = find_answer(*zones, peer, what, wants_schedule)] {
            if (style().json)
                print_json_answer(found, peer, what, given);
            else
                print_text(found, peer, what);
            return status_of(found);
        };
    });
}

} // namespace vdctl
