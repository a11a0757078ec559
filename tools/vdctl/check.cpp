#include "check.hpp"

#include "check_address.hpp"
#include "command.hpp"

#include <algorithm>
#include <cstring>
#include <map>
#include <span>

namespace vdctl {

namespace {

constexpr const char *document_keys[] = {"zone_configuration"};
constexpr const char *configuration_keys[] = {"zones"};
constexpr const char *zone_keys[] = {"members", "disabled", "deny_between_keys", "deny_between_locks"};
constexpr const char *member_keys[] = {"type", "direction", "disabled", "address_start", "address_end", "netmask"};

text value_text(json_object *value)
{
    return quoted(json_object_get_string(value));
}

class checker {
public:
    explicit checker(const zone_text &file) : file_{file} {}

    std::vector<finding> run()
    {
        if (file_.mtime && *file_.mtime <= 0)
            add(1, level::more, "time",
                "the file's time stamp is 0 or before, so it is read anew for each question and no schedule counts");
        check_document(parse(file_));
        std::ranges::stable_sort(found_, {}, &finding::line);
        return std::move(found_);
    }

private:
    using keys = std::span<const char *const>;

    void add(unsigned line, level l, const char *code, text what)
    {
        found_.push_back({line, l, code, zone_, member_, std::move(what)});
    }

    void check_document(const zone_document &document)
    {
        if (!document.root) {
            add(document.fault_line, level::less, "file",
                "no JSON, so nothing is allowed: " + text::of(document.fault));
            return;
        }
        json_object *root = document.root.get();
        check_keys(root, document.keys, document_keys);
        json_object *configuration = value_of(root, "zone_configuration");
        const scanned_key *place = place_of(document.keys, "zone_configuration");
        if (configuration)
            check_keys(configuration, *place, configuration_keys);
        json_object *zones = value_of(configuration, "zones");
        if (!zones) {
            add(place ? place->line : document.keys.line, level::less, "file",
                R"(it has no "zones" in "zone_configuration", so nothing is allowed)");
            return;
        }
        place = place_of(*place, "zones");
        if (!json_object_is_type(zones, json_type_object)) {
            add(place->line, level::less, "file", R"("zones" is no object, so nothing is allowed)");
            return;
        }
        note_names(zones, *place);
        for_each_key(zones, *place, [&](const scanned_key &key, json_object *zone) { check_zone(key, zone); });
    }

    /// Equal keys, and those that were probably meant for a known one.
    void check_keys(json_object *object, const scanned_key &place, keys known)
    {
        for_each_key(object, place, [&](const scanned_key &key, json_object *) {
            check_once(key, quoted(key.name) + " again");
            const char *meant = nullptr;
            for (const char *candidate : known) {
                if (key.name == candidate)
                    return;
                if (is_near(key.name, candidate))
                    meant = candidate;
            }
            if (meant)
                add(key.line, level::more, "unknown-key",
                    quoted(key.name) + " is no known key and does not count; " + quoted(meant) + "?");
        });
    }

    void check_once(const scanned_key &key, const text &again)
    {
        if (!key.earlier)
            return;
        text lines = key.earlier->size() > 1 ? text{"lines "} : text{"line "};
        for (std::size_t i = 0; i < key.earlier->size(); ++i)
            lines += (i == 0 ? text{} : text{" and "}) + text{(*key.earlier)[i]};
        add(key.line, level::more, "key-twice", again + ": only this one counts, not " + lines);
    }

    void check_flags(json_object *object, const scanned_key &place, keys flags)
    {
        for (const char *name : flags) {
            json_object *value = value_of(object, name);
            if (value && !json_object_is_type(value, json_type_boolean))
                add(place_of(place, name)->line, level::more, "flag",
                    text::of(name) + " is no boolean and counts as false");
        }
    }

    void check_zone(const scanned_key &key, json_object *zone)
    {
        zone_ = key.name;
        check_once(key, "again");
        check_loaded_zone(key, zone);
        zone_.reset();
    }

    void check_loaded_zone(const scanned_key &key, json_object *zone)
    {
        const std::optional<int32_t> id = zone_id(key.name);
        if (!zone) {
            add(key.line, level::less, "members", "it is null, so the zone is passed over");
            return;
        }
        if (!id) {
            add(key.line, level::less, "zone-key", "the key is no id, so the zone is passed over");
            return;
        }
        check_keys(zone, key, zone_keys);
        check_flags(zone, key, keys{zone_keys}.subspan(1));
        if (flag_of(value_of(zone, "disabled")))
            return;
        const auto [same, is_new] = ids_.emplace(*id, key.name);
        if (!is_new)
            add(key.line, level::note, "same-id",
                "it has the id of zone " + quoted(same->second) + ", and so one schedule");
        check_members(key, value_of(zone, "members"));
    }

    void check_members(const scanned_key &zone, json_object *members)
    {
        if (!members) {
            add(zone.line, level::less, "members",
                "it has no members: a daemon's first question after a reload gets no");
            return;
        }
        const scanned_key &place = *place_of(zone, "members");
        if (!json_object_is_type(members, json_type_object)) {
            add(place.line, level::less, "members", "its members are no object, so it has none");
            return;
        }
        bool has_subject = false, has_target = false;
        for_each_key(members, place, [&](const scanned_key &key, json_object *value) {
            member_ = key.name;
            check_once(key, "again");
            if (const auto member = check_member(key, value)) {
                has_subject |= member->type == ZONE_MEMBER_SERIALIZATION && member->direction != ZONE_DIRECTION_OUT &&
                               member->direction != ZONE_DIRECTION_INVALID;
                has_target |= member->direction == ZONE_DIRECTION_OUT || member->direction == ZONE_DIRECTION_BOTH;
            }
            member_.reset();
        });
        if (!has_subject)
            add(zone.line, level::note, "no-subject", R"(no peer of it is "in" or "both", so it lets nobody through)");
        if (!has_target)
            add(zone.line, level::note, "no-target",
                R"(nothing of it is "out" or "both", so nothing is reached by it)");
    }

    /// The member, if it is loaded.
    std::optional<zone_member> check_member(const scanned_key &key, json_object *value)
    {
        if (!json_object_is_type(value, json_type_object)) {
            add(key.line, level::less, "members",
                value ? text{"it is no object, so it is dropped"} : text{"it is null, so it is passed over"});
            return std::nullopt;
        }
        check_keys(value, key, member_keys);
        check_flags(value, key, keys{&member_keys[2], 1});
        if (flag_of(value_of(value, "disabled")))
            return std::nullopt;
        const zone_member_type type = type_of(value);
        if (type == ZONE_MEMBER_INVALID) {
            check_word(key, value, "type", "serialization, port, whitelisted_ip or whitelisted_mac", "it is dropped");
            return std::nullopt;
        }
        if (direction_of(value) == ZONE_DIRECTION_INVALID)
            check_word(key, value, "direction", "in, out or both", "it neither reaches anything nor is reached");
        if (type == ZONE_MEMBER_SERIALIZATION || type == ZONE_MEMBER_PORT)
            check_name(key, type);
        else
            check_ends(key, value, type);
        return read_member(key.name, value);
    }

    void check_word(const scanned_key &key, json_object *member, const char *name, const text &words,
                    const text &effect)
    {
        json_object *value = value_of(member, name);
        const unsigned line = value ? place_of(key, name)->line : key.line;
        add(line, level::less, std::strcmp(name, "type") == 0 ? "type" : "direction",
            (value ? text::of(name) + " " + value_text(value) + " is none of " + words
                   : "it has no " + text::of(name)) +
                ", so " + effect);
    }

    // Names.

    static std::string cut(const std::string &name, zone_member_type type)
    {
        return name.substr(0, type == ZONE_MEMBER_PORT ? port_name_length : common_name_length);
    }

    void note_names(json_object *zones, const scanned_key &place)
    {
        for_each_key(zones, place, [&](const scanned_key &zone, json_object *value) {
            json_object *members = value_of(value, "members");
            if (!members)
                return;
            for_each_key(members, *place_of(zone, "members"), [&](const scanned_key &key, json_object *member) {
                const zone_member_type type =
                    json_object_is_type(member, json_type_object) ? type_of(member) : ZONE_MEMBER_INVALID;
                if (type == ZONE_MEMBER_SERIALIZATION || type == ZONE_MEMBER_PORT)
                    names_[{type, cut(key.name, type)}].emplace(key.name, key.line);
            });
        });
    }

    void check_name(const scanned_key &key, zone_member_type type)
    {
        const std::string shortened = cut(key.name, type);
        if (shortened == key.name)
            return;
        text what = "it counts as " + quoted(shortened);
        for (const auto &[other, line] : names_[{type, shortened}]) {
            if (other != key.name)
                what += ", as does " + quoted(other) + " in line " + text{line};
        }
        add(key.line, level::more, "name-cut", std::move(what));
    }

    // Addresses.

    void add_remark(const scanned_key &member, const char *name, std::optional<remark> made)
    {
        if (made)
            add(place_of(member, name)->line, made->level, made->code, std::move(made->what));
    }

    void check_ends(const scanned_key &key, json_object *member, zone_member_type type)
    {
        json_object *start = value_of(member, "address_start"), *end = value_of(member, "address_end");
        json_object *netmask = value_of(member, "netmask");
        if (!start) {
            add(key.line, level::less, "start", "it has no address_start, so it is dropped");
            return;
        }
        const address_check addresses{type, json_object_get_string(start)};
        add_remark(key, "address_start", addresses.of_start());
        if (netmask && type == ZONE_MEMBER_IP_RANGE)
            add_remark(key, "netmask", addresses.of_netmask(json_object_get_string(netmask)));
        else if (netmask)
            add_remark(key, "netmask", remark{level::note, "ignored", "the netmask of a MAC address does not count"});
        if (end && netmask && type == ZONE_MEMBER_IP_RANGE)
            add_remark(key, "address_end", remark{level::note, "ignored", "address_end does not count beside netmask"});
        else if (end)
            add_remark(key, "address_end", addresses.of_end(json_object_get_string(end)));
        if (addresses.start_is_good() && is_empty(read_member(key.name, member)))
            add_remark(key, "address_start",
                       remark{level::less, "range", "address_start is after address_end, so it holds nothing"});
    }

    static bool is_empty(const std::optional<zone_member> &range)
    {
        if (!range || range->type == ZONE_MEMBER_IP_NETWORK)
            return false;
        return range->type == ZONE_MEMBER_MAC_RANGE ? range->start.mac > range->end.mac
                                                    : range->start.ip > range->end.ip;
    }

    const zone_text &file_;
    std::vector<finding> found_;
    std::optional<std::string> zone_, member_; // that is looked at
    std::map<int32_t, std::string> ids_;
    std::map<std::pair<int, std::string>, std::map<std::string, unsigned>> names_; // by kind and what is left of them
};

text line_of(const finding &found)
{
    text line;
    if (found.zone)
        line += "zone " + quoted(*found.zone);
    if (found.member)
        line += ", " + quoted(*found.member);
    const bool is_continued = found.what.str().starts_with("again");
    line += !found.zone ? text{} : is_continued ? text{" "} : text{": "};
    return line + found.what + " [" + text::of(found.code) + "]";
}

json_object *json_of(const finding &found)
{
    const auto key = [](const std::optional<std::string> &name) { return name ? new_string(*name) : nullptr; };
    json_object *object = json_object_new_object();
    json_object_object_add(object, "line", json_object_new_int64(found.line));
    json_object_object_add(object, "level", json_object_new_string(name_of(found.level)));
    json_object_object_add(object, "code", json_object_new_string(found.code));
    json_object_object_add(object, "zone", key(found.zone));
    json_object_object_add(object, "member", key(found.member));
    json_object_object_add(object, "text", json_object_new_string(found.what.str().c_str()));
    return object;
}

void print_findings(const char *file, const std::vector<finding> &findings)
{
    if (!style().json) {
        for (const finding &found : findings) {
            const colour shade = found.level == level::more   ? colour::red
                                 : found.level == level::less ? colour::yellow
                                                              : colour::none;
            print(shade, text::of(file) + ":" + text{found.line} + ":",
                  " " + text::of(name_of(found.level)) + ": " + line_of(found));
        }
        return;
    }
    json_object *list = json_object_new_array();
    for (const finding &found : findings)
        json_object_array_add(list, json_of(found));
    json_object *object = json_object_new_object();
    json_object_object_add(object, "file", json_object_new_string(file));
    json_object_object_add(object, "findings", list);
    print_json(object);
}

} // namespace

const char *name_of(level l)
{
    return l == level::more ? "more" : l == level::less ? "less" : "note";
}

std::vector<finding> find_mistakes(const zone_text &file)
{
    return checker{file}.run();
}

int zones_check(const invocation &given)
{
    if (given.has('f') && !given.words.empty())
        throw misuse{"one file at a time: FILE or --file"};
    const char *path = given.has('f') ? given.value('f') : given.words.empty() ? live_file : given.words[0];
    const std::vector<finding> findings = find_mistakes(read_zone_text(path));
    print_findings(path, findings);
    return findings.empty() ? status_yes : status_no;
}

} // namespace vdctl
