// zones reach, who, matrix: what one peer reaches, who reaches a target, everything.
#include "access.hpp"
#include "candidate.hpp"
#include "command.hpp"
#include "page.hpp"
#include "reach.hpp"
#include "show.hpp"

namespace vdctl {

namespace {

/// What the rows of a matrix share: each extent's cells or JSON, made once however many rows have it.
class matrix_printer {
public:
    matrix_printer(const matrix &shown, bool is_asked) : shown_{shown}
    {
        for (const extent &reached : shown.extents()) {
            if (style().json) {
                const json_handle object{json_of(reached, is_asked)};
                ready_.push_back(json_text(object.get()));
            } else if (style().terminal) {
                cells_.push_back(cells_of(reached, is_asked));
            } else {
                ready_.push_back(tabbed(cells_of(reached, is_asked)));
            }
        }
    }

    void print_json() const
    {
        print_raw("{\"rows\": [");
        for (std::size_t i = 0; i < shown_.rows().size(); ++i) {
            const reach_row &row = shown_.rows()[i];
            json_object *peers = json_object_new_array();
            for (const std::string &peer : row.peers)
                json_object_array_add(peers, new_string(peer));
            const json_handle owner{peers};
            print_raw((i ? ", " : "") + std::string{"{\"peers\": "} + json_text(peers) +
                      ", \"exact\": " + (row.is_exact ? "true" : "false") + ", \"reach\": [");
            for (std::size_t j = 0; j < row.reached.size(); ++j)
                print_raw((j ? ", " : "") + ready_[row.reached[j]]);
            print_raw("]}");
        }
        print_raw("]}\n");
    }

    /// On a terminal a table by row, below its peers; otherwise a line by peer and extent.
    void print_text(bool has_peers) const
    {
        const char *separator = "";
        for (const reach_row &row : shown_.rows()) {
            if (!style().terminal) {
                print_lines(row, has_peers);
                continue;
            }
            if (has_peers)
                print_raw(separator + joined(row.peers).str() + ":\n");
            separator = "\n";
            table shown{{"TYPE", "TARGET", "NOW", "ZONE"}};
            for (const uint32_t index : row.reached)
                shown.add(cells_[index]);
            shown.print();
        }
    }

private:
    static text joined(const std::vector<std::string> &peers)
    {
        text line;
        for (const std::string &peer : peers)
            line += (line.empty() ? text{} : text{", "}) + text::of(peer);
        return line;
    }

    void print_lines(const reach_row &row, bool has_peers) const
    {
        for (const std::string &peer : row.peers) {
            const std::string begin = has_peers ? tabbed_cell(text::of(peer)) : "";
            for (const uint32_t index : row.reached) {
                print_raw(begin);
                print_raw(ready_[index]);
            }
        }
    }

    const matrix &shown_;
    std::vector<std::string> ready_; // JSON, or the end of a line
    std::vector<std::vector<text>> cells_;
};

int status_of(const matrix &shown)
{
    if (shown.disagrees())
        return say_disagreement();
    for (const reach_row &row : shown.rows()) {
        if (!row.reached.empty())
            return status_yes;
    }
    return status_no;
}

/// The matrix of one peer, or of all.
int show_matrix(const invocation &given, const char *peer)
{
    if (given.has('f'))
        put_in_live_place(read_zone_text(given.value('f')));
    const bool is_asked = !given.has('n');
    return with_zones(is_asked, [&](const std::shared_ptr<const zone_reading> &zones) -> answer_printer {
        if (is_asked)
            ask_schedules();
        const auto shown = std::make_shared<matrix>(zones);
        peer ? shown->add(peer) : shown->add_all();
        return [shown, is_asked, peer, &given] {
            if (given.has('H'))
                print_page(*shown, is_asked);
            else if (style().json)
                matrix_printer{*shown, is_asked}.print_json();
            else
                matrix_printer{*shown, is_asked}.print_text(!peer);
            return status_of(*shown);
        };
    });
}

struct reacher {
    std::string peer;
    bool is_open;
    std::vector<source> members;
};

/// Where the peer finds the target, in the zones that it is a subject of.
std::vector<source> members_that_hold(const subject_zones &zones, const std::string &peer, const target &what)
{
    std::vector<source> members;
    const zone_entry *previous = nullptr;
    for (const zone_entry *zone : zones) {
        const auto found = zone == previous ? std::nullopt : fit_in(*zone, peer, what);
        previous = zone;
        if (found && found->deny_key)
            break;
        if (found)
            members.push_back({zone, found->member});
    }
    return members;
}

json_object *json_of(const std::vector<reacher> &found, bool is_asked)
{
    json_object *list = json_object_new_array();
    for (const reacher &one : found) {
        json_object *object = json_object_new_object();
        json_object_object_add(object, "peer", new_string(one.peer));
        json_object_object_add(object, "open", is_asked ? json_object_new_boolean(one.is_open) : nullptr);
        json_object_object_add(object, "members", json_of(one.members));
        json_object_array_add(list, object);
    }
    return list;
}

void print_reachers(const std::vector<reacher> &found, const target &what, bool is_asked)
{
    if (style().json) {
        json_object *object = json_object_new_object();
        json_object_object_add(object, "target", json_of(what));
        json_object_object_add(object, "peers", json_of(found, is_asked));
        print_json(object);
        return;
    }
    table shown{{"PEER", "NOW", "ZONE"}};
    for (const reacher &one : found)
        shown.add({text::of(one.peer), now_text(one.is_open, is_asked), zones_text(one.members)});
    shown.print();
}

} // namespace

int zones_reach(const invocation &given)
{
    return show_matrix(given, given.words[0]);
}

int zones_matrix(const invocation &given)
{
    return show_matrix(given, nullptr);
}

int zones_who(const invocation &given)
{
    const target what = parse_target(given.words[0]);
    if (given.has('f'))
        put_in_live_place(read_zone_text(given.value('f')));
    const bool is_asked = !given.has('n');
    return with_zones(is_asked, [&](const std::shared_ptr<const zone_reading> &zones) -> answer_printer {
        if (is_asked)
            ask_schedules();
        std::vector<reacher> found;
        const peer_list peers{*zones};
        for (const std::string &peer : peers.names()) {
            const verdict answer = ask(peer.c_str(), what);
            if (answer.is_allowed)
                found.push_back({peer, answer.is_open, members_that_hold(peers.zones_of(peer), peer, what)});
        }
        return [zones, found, is_asked, what] {
            print_reachers(found, what, is_asked);
            return found.empty() ? status_no : status_yes;
        };
    });
}

} // namespace vdctl
