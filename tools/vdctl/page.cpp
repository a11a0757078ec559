#include "page.hpp"

#include "candidate.hpp"
#include "output.hpp"
#include "page_parts.hpp"
#include "show.hpp"

namespace vdctl {

namespace {

/// JSON inside of the page, where no "<" may begin a tag.
std::string embedded(json_object *object)
{
    const json_handle owner{object};
    std::string result;
    for (const char c : json_text(object))
        result += c == '<' ? "\\u003c" : std::string{c};
    return result;
}

std::string in_html(const text &shown)
{
    std::string result;
    for (const char c : shown.str())
        result += c == '<' ? "&lt;" : c == '&' ? "&amp;" : std::string{c};
    return result;
}

json_object *new_strings(const std::vector<std::string> &values)
{
    json_object *list = json_object_new_array();
    for (const std::string &value : values)
        json_object_array_add(list, new_string(text::of(value).str()));
    return list;
}

/// [type, target, now, zones, first, last]; the last two only of what is a range.
json_object *line_of(const extent &reached, bool is_asked)
{
    json_object *list = json_object_new_array();
    for (const text &cell : cells_of(reached, is_asked))
        json_object_array_add(list, new_string(cell.str()));
    if (reached.type == ZONE_MEMBER_IP_RANGE || reached.type == ZONE_MEMBER_MAC_RANGE) {
        json_object_array_add(list, json_object_new_int64(static_cast<int64_t>(reached.start)));
        json_object_array_add(list, json_object_new_int64(static_cast<int64_t>(reached.end)));
    }
    return list;
}

json_object *json_of(const reach_row &row)
{
    json_object *indexes = json_object_new_array();
    for (const uint32_t index : row.reached)
        json_object_array_add(indexes, json_object_new_int64(index));
    json_object *object = json_object_new_object();
    json_object_object_add(object, "p", new_strings(row.peers));
    json_object_object_add(object, "x", json_object_new_boolean(row.is_exact));
    json_object_object_add(object, "r", indexes);
    return object;
}

void print_data(const matrix &shown, bool is_asked)
{
    const char *separator = "";
    print_raw("{\"extents\": [");
    for (const extent &reached : shown.extents()) {
        print_raw(separator + embedded(line_of(reached, is_asked)));
        separator = ",\n";
    }
    print_raw("], \"rows\": [");
    separator = "";
    for (const reach_row &row : shown.rows()) {
        print_raw(separator + embedded(json_of(row)));
        separator = ",\n";
    }
    print_raw("]}");
}

} // namespace

void print_page(const matrix &shown, bool is_asked)
{
    const std::string file = in_html(text::of(live_name()));
    print_raw("<!DOCTYPE html>\n<html lang=\"en\">\n<meta charset=\"utf-8\">\n"
              "<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\">\n"
              "<meta http-equiv=\"Content-Security-Policy\" content=\"default-src 'none'; style-src '" +
              std::string{page_style_hash} + "'; script-src '" + page_script_hash +
              "'\">\n<title>Who may reach what: " + file + "</title>\n<style>" + page_style +
              "</style>\n<h1>Who may reach what: " + file + "</h1>\n<p>" +
              (is_asked ? "Schedules as they were when this page was made." : "Schedules were not asked.") +
              "</p>\n<form id=\"filter\"><label>Peer <input id=\"peer\" type=\"search\" autocomplete=\"off\"></label>"
              "<label>Target, or an address in one <input id=\"target\" type=\"search\" "
              "autocomplete=\"off\"></label></form>\n"
              "<p id=\"count\" role=\"status\"></p>\n<div id=\"rows\"></div>\n<noscript>This page needs its "
              "script.</noscript>\n"
              "<script id=\"data\" type=\"application/json\">");
    print_data(shown, is_asked);
    print_raw(std::string{"</script>\n<script>"} + page_script + "</script>\n</html>\n");
}

} // namespace vdctl
