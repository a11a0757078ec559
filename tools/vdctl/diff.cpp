// zones diff: what another file would allow more and less than the live one, schedules aside.
#include "candidate.hpp"
#include "changes.hpp"
#include "command.hpp"
#include "show.hpp"

#include <algorithm>
#include <iterator>

namespace vdctl {

namespace {

using extents = std::vector<extent>;

std::shared_ptr<matrix> matrix_of_live_file()
{
    std::shared_ptr<matrix> made;
    with_zones(false, [&](const std::shared_ptr<const zone_reading> &zones) -> answer_printer {
        made = std::make_shared<matrix>(zones);
        made->add_all();
        return [] { return status_yes; };
    });
    return made;
}

/// The row of each peer.
class rows_by_peer {
public:
    explicit rows_by_peer(const matrix &all) : all_{all}
    {
        for (const reach_row &row : all.rows()) {
            for (const std::string &peer : row.peers)
                rows_.emplace(peer, &row);
        }
    }

    bool has(const std::string &peer) const { return rows_.contains(peer); }

    extents of(const std::string &peer) const
    {
        extents found;
        if (const auto row = rows_.find(peer); row != rows_.end()) {
            for (const uint32_t index : row->second->reached)
                found.push_back(all_.extents()[index]);
        }
        return found;
    }

private:
    const matrix &all_;
    std::unordered_map<std::string, const reach_row *> rows_;
};

bool is_range(const extent &reached)
{
    return reached.type == ZONE_MEMBER_IP_RANGE || reached.type == ZONE_MEMBER_MAC_RANGE;
}

bool is_same_target(const extent &a, const extent &b)
{
    return a.type == b.type && a.start == b.start && a.end == b.end && a.name == b.name;
}

/// The parts of range outside of the others, which are sorted and apart from each other.
void subtract(extent range, const extents &others, extents &result)
{
    for (const extent &other : others) {
        if (other.type != range.type || other.end < range.start || other.start > range.end)
            continue;
        if (other.start > range.start) {
            extent before = range;
            before.end = other.start - 1;
            result.push_back(std::move(before));
        }
        if (other.end >= range.end)
            return;
        range.start = other.end + 1;
    }
    result.push_back(std::move(range));
}

/// What is in all and not in others.
extents without(const extents &all, const extents &others)
{
    extents result;
    for (const extent &one : all) {
        if (is_range(one))
            subtract(one, others, result);
        else if (std::ranges::none_of(others, [&](const extent &other) { return is_same_target(one, other); }))
            result.push_back(one);
    }
    return result;
}

json_object *json_of(const std::vector<change> &changes, bool is_gained)
{
    json_object *list = json_object_new_array();
    for (const change &one : changes) {
        if (one.is_gained != is_gained)
            continue;
        json_object *object = json_object_new_object();
        json_object_object_add(object, "peer", new_string(one.peer));
        json_object_object_add(object, "type", json_object_new_string(kind_of(one.what.type)));
        add_target(object, one.what);
        json_object_array_add(list, object);
    }
    return list;
}

void print_changes(const std::vector<change> &changes)
{
    if (style().json) {
        json_object *object = json_object_new_object();
        json_object_object_add(object, "gained", json_of(changes, true));
        json_object_object_add(object, "lost", json_of(changes, false));
        print_json(object);
        return;
    }
    table shown{{}};
    for (const change &one : changes)
        shown.add({one.is_gained ? text{"+"} : text{"-"}, text::of(one.peer), text::of(kind_of(one.what.type)),
                   text::of(range_text(one.what))});
    shown.print();
    const auto gained = std::ranges::count(changes, true, &change::is_gained);
    if (style().terminal)
        print("gained " + text{gained} + ", lost " + text{static_cast<std::ptrdiff_t>(changes.size()) - gained} +
              " (schedules taken as open)");
}

} // namespace

std::vector<change> changes_between(const matrix &before, const matrix &after)
{
    const rows_by_peer old_rows{before}, new_rows{after};
    std::vector<change> changes;
    const auto compare = [&](const std::string &peer) {
        const extents had = old_rows.of(peer), has = new_rows.of(peer);
        for (extent &lost : without(had, has))
            changes.push_back({peer, false, std::move(lost)});
        for (extent &gained : without(has, had))
            changes.push_back({peer, true, std::move(gained)});
    };
    for (const reach_row &row : before.rows())
        std::ranges::for_each(row.peers, compare);
    for (const reach_row &row : after.rows()) {
        for (const std::string &peer : row.peers) {
            if (!old_rows.has(peer))
                compare(peer);
        }
    }
    return changes;
}

int zones_diff(const invocation &given)
{
    const zone_text after_text = read_zone_text(given.words[0]);
    if (given.has('f'))
        put_in_live_place(read_zone_text(given.value('f')));
    const auto before = matrix_of_live_file();
    put_in_live_place(after_text);
    const auto after = matrix_of_live_file();
    const std::vector<change> changes = changes_between(*before, *after);
    print_changes(changes);
    if (before->disagrees() || after->disagrees())
        return say_disagreement();
    return changes.empty() ? status_yes : status_no;
}

} // namespace vdctl
