#include "zone_file.hpp"

#include "ip_calculation.h"
#include "mac.h"
#include "output.hpp"
#include "util.h"

#include <algorithm>
#include <cctype>
#include <climits>
#include <cstring>
#include <iterator>
#include <new>
#include <numeric>

#include <fcntl.h>
#include <sys/stat.h>

namespace vdctl {

namespace {

constexpr std::size_t largest_file = std::size_t{256} << 20;

const char *text_of(json_object *value)
{
    const char *text = json_object_get_string(value);
    return text ? text : throw std::bad_alloc{};
}

/// A key as json-c decodes it; written is what stands in the file, quotes included.
std::string decoded_key(std::string_view written)
{
    const std::string object = std::string{'{'}.append(written).append(":0}");
    const tokener_handle tokener{json_tokener_new()};
    if (!tokener)
        throw std::bad_alloc{};
    const json_handle parsed{json_tokener_parse_ex(tokener.get(), object.data(), static_cast<int>(object.size()))};
    std::string name;
    if (parsed) {
        json_object_object_foreach(parsed.get(), key, value)
        {
            static_cast<void>(value);
            name = key;
        }
    }
    return name;
}

/// Of equal keys, leaves one: in the first one's place, with the last one's line and value.
void join_equal(std::vector<scanned_key> &keys)
{
    std::vector<std::size_t> order(keys.size());
    std::iota(order.begin(), order.end(), std::size_t{0});
    std::ranges::stable_sort(order, {}, [&](std::size_t i) -> const std::string & { return keys[i].name; });
    std::vector<bool> is_joined(keys.size());
    for (std::size_t first = 0, next = 1; next < order.size(); ++next) {
        scanned_key &kept = keys[order[first]], &again = keys[order[next]];
        if (kept.name != again.name) {
            first = next;
            continue;
        }
        auto earlier = kept.earlier ? std::move(kept.earlier) : std::make_unique<std::vector<unsigned>>();
        earlier->push_back(kept.line);
        kept = std::move(again);
        kept.earlier = std::move(earlier);
        is_joined[order[next]] = true;
    }
    std::size_t kept = 0;
    for (std::size_t i = 0; i < keys.size(); ++i) {
        if (!is_joined[i] && kept++ != i)
            keys[kept - 1] = std::move(keys[i]);
    }
    keys.erase(keys.begin() + static_cast<std::ptrdiff_t>(kept), keys.end());
}

class scanner {
public:
    explicit scanner(std::string_view json) : left_{json}, json_{json} {}

    scanned_key value()
    {
        skip_blanks();
        scanned_key found;
        found.line = line_;
        found.value = static_cast<std::size_t>(left_.data() - json_.data());
        if (at('{'))
            object(found.inside);
        else if (at('['))
            array();
        else if (at('"') || at('\''))
            string();
        else
            left_.remove_prefix(std::min(left_.size(), left_.find_first_of(",]}/ \t\n\v\f\r")));
        return found;
    }

private:
    bool at(char c) const { return left_.starts_with(c); }

    char take()
    {
        if (left_.empty())
            return '\0';
        const char c = left_.front();
        left_.remove_prefix(1);
        line_ += c == '\n' ? 1 : 0;
        return c;
    }

    void skip_through(std::string_view end)
    {
        while (!left_.empty() && !left_.starts_with(end))
            take();
        for (std::size_t i = 0; i < end.size(); ++i)
            take();
    }

    void skip_blanks()
    {
        for (;;) {
            if (left_.starts_with("/*"))
                skip_through("*/");
            else if (left_.starts_with("//"))
                skip_through("\n");
            else if (!left_.empty() && std::isspace(static_cast<unsigned char>(left_.front())))
                take();
            else
                return;
        }
    }

    std::string string()
    {
        const char *begin = left_.data();
        const char quote = take();
        bool has_escape = false;
        for (char c = take(); c != quote && !left_.empty(); c = take()) {
            if (c == '\\') {
                has_escape = true;
                take();
            }
        }
        const std::string_view written{begin, static_cast<std::size_t>(left_.data() - begin)};
        if (has_escape)
            return decoded_key(written);
        return std::string{written.substr(1, written.size() - 2)};
    }

    void object(std::vector<scanned_key> &keys)
    {
        take();
        for (skip_blanks(); at('"') || at('\''); skip_blanks()) {
            const unsigned line = line_;
            std::string name = string();
            skip_blanks();
            take(); // the colon
            keys.push_back(value());
            keys.back().name = std::move(name);
            keys.back().line = line;
            skip_blanks();
            if (at(','))
                take();
        }
        take();
        join_equal(keys);
    }

    void array()
    {
        take();
        for (skip_blanks(); !at(']') && !left_.empty(); skip_blanks()) {
            value();
            skip_blanks();
            if (at(','))
                take();
        }
        take();
    }

    std::string_view left_, json_;
    unsigned line_ = 1;
};

std::string read_all(int fd, const char *path)
{
    std::string bytes;
    char chunk[65536];
    for (;;) {
        const ssize_t length = read(fd, chunk, sizeof chunk);
        if (length == 0)
            return bytes;
        if (length < 0 && errno != EINTR)
            fail_with_errno("cannot read " + text::of(path));
        if (length > 0)
            bytes.append(chunk, static_cast<std::size_t>(length));
        if (bytes.size() > largest_file)
            throw failure{text::of(path) + " is larger than 256 MB"};
    }
}

template <typename Value, std::size_t Count>
Value keyword_of(json_object *value, const std::pair<const char *, Value> (&keywords)[Count], Value otherwise)
{
    if (!value)
        return otherwise;
    const char *text = text_of(value);
    for (const auto &[word, meaning] : keywords) {
        if (std::strcmp(word, text) == 0)
            return meaning;
    }
    return otherwise;
}

void set_name(zone_value &value, const std::string &key, std::size_t length)
{
    std::memcpy(value.name, key.data(), std::min(key.size(), length));
}

bool read_mac(uint64_t &mac, json_object *value)
{
    uint8_t bytes[6] = {};
    const bool is_mac = mac_to_bytes_network(bytes, text_of(value)) != 0;
    mac = mac_bytes_to_long(bytes);
    return is_mac;
}

/// The ends of an address member; false when the library drops it.
bool read_ends(zone_member &member, json_object *start, json_object *end, json_object *netmask)
{
    if (!start)
        return false;
    if (member.type == ZONE_MEMBER_MAC_RANGE)
        return read_mac(member.start.mac, start) && read_mac(member.end.mac, end ? end : start);
    member.start.ip = ip_parse(text_of(start));
    if (!netmask) {
        member.end.ip = end ? ip_parse(text_of(end)) : member.start.ip;
        return true;
    }
    member.type = ZONE_MEMBER_IP_NETWORK;
    member.end.ip = ip_uint32_netmask_from_str(text_of(netmask), std::strlen(text_of(netmask)));
    return member.end.ip != 0 || member.start.ip == 0;
}

} // namespace

scanned_key scan(std::string_view json)
{
    return scanner{json}.value();
}

zone_text read_zone_text(const char *path)
{
    const bool is_input = std::strcmp(path, "-") == 0;
    const int wait_for_none = path == live_file ? O_NONBLOCK : 0; // the library does not wait for a FIFO's writer
    unique_fd opened{is_input ? -1 : open(path, O_RDONLY | O_NOCTTY | O_CLOEXEC | wait_for_none)};
    const int fd = is_input ? STDIN_FILENO : opened.get();
    struct stat status {};
    if (fd < 0 || fstat(fd, &status) != 0)
        fail_with_errno("cannot open " + text::of(path));
    zone_text read{path, read_all(fd, path), {}};
    if (S_ISREG(status.st_mode))
        read.mtime = status.st_mtime;
    return read;
}

zone_document parse(const zone_text &text)
{
    zone_document document;
    const tokener_handle tokener{json_tokener_new()};
    if (!tokener)
        throw std::bad_alloc{};
    document.root.reset(json_tokener_parse_ex(tokener.get(), text.bytes.data(), static_cast<int>(text.bytes.size())));
    const json_tokener_error error = json_tokener_get_error(tokener.get());
    if (document.root) {
        document.keys = scan(text.bytes);
        return document;
    }
    const auto end = text.bytes.begin() + static_cast<std::ptrdiff_t>(json_tokener_get_parse_end(tokener.get()));
    document.fault_line = 1 + static_cast<unsigned>(std::count(text.bytes.begin(), end, '\n'));
    document.fault = error == json_tokener_continue  ? "it ends too early"
                     : error == json_tokener_success ? "it is null"
                                                     : json_tokener_error_desc(error);
    return document;
}

json_object *value_of(json_object *object, const char *key)
{
    json_object *value = nullptr;
    json_object_object_get_ex(object, key, &value);
    return value;
}

const scanned_key *place_of(const scanned_key &object, std::string_view key)
{
    const auto found = std::ranges::find(object.inside, key, &scanned_key::name);
    return found == object.inside.end() ? nullptr : &*found;
}

std::optional<int32_t> zone_id(const std::string &key)
{
    const char *fault;
    const auto id = static_cast<int32_t>(strtonum(key.c_str(), 0, INT_MAX, &fault));
    return fault ? std::nullopt : std::optional{id};
}

bool flag_of(json_object *value)
{
    return json_object_is_type(value, json_type_boolean) && json_object_get_boolean(value);
}

zone_direction direction_of(json_object *member)
{
    static constexpr std::pair<const char *, zone_direction> keywords[] = {
        {"in", ZONE_DIRECTION_IN}, {"out", ZONE_DIRECTION_OUT}, {"both", ZONE_DIRECTION_BOTH}};
    return keyword_of(value_of(member, "direction"), keywords, ZONE_DIRECTION_INVALID);
}

zone_member_type type_of(json_object *member)
{
    static constexpr std::pair<const char *, zone_member_type> keywords[] = {
        {"serialization", ZONE_MEMBER_SERIALIZATION},
        {"port", ZONE_MEMBER_PORT},
        {"whitelisted_ip", ZONE_MEMBER_IP_RANGE},
        {"whitelisted_mac", ZONE_MEMBER_MAC_RANGE}};
    return keyword_of(value_of(member, "type"), keywords, ZONE_MEMBER_INVALID);
}

std::optional<zone_member> read_member(const std::string &key, json_object *member)
{
    zone_member read{};
    read.type = type_of(member);
    read.direction = direction_of(member);
    if (read.type == ZONE_MEMBER_SERIALIZATION)
        set_name(read.start, key, common_name_length);
    else if (read.type == ZONE_MEMBER_PORT)
        set_name(read.start, key, port_name_length);
    else if (read.type == ZONE_MEMBER_INVALID ||
             !read_ends(read, value_of(member, "address_start"), value_of(member, "address_end"),
                        value_of(member, "netmask")))
        return std::nullopt;
    return read;
}

std::string ip_text(uint32_t ip)
{
    char buffer[16];
    ip_format(buffer, ip);
    return buffer;
}

std::string mac_text(uint64_t mac)
{
    uint8_t bytes[6];
    for (int i = 0; i < 6; ++i)
        bytes[i] = static_cast<uint8_t>(mac >> (40 - 8 * i));
    char buffer[18];
    mac_bytes_to_mac(buffer, bytes);
    return buffer;
}

} // namespace vdctl
