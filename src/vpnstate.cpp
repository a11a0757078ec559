#include "vpnstate.h"

#include "boundary.hpp"
#include "handles.hpp"
#include "ip_calculation.h"
#include "json.hpp"
#include "json_document.hpp"
#include "log.hpp"
#include "paths.hpp"
#include "sizes.hpp"
#include "util.h"

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>
#include <string_view>

#include <dirent.h>
#include <json-c/json.h>
#include <sys/stat.h>

namespace {

using namespace vandrel;

constexpr char log_module[] = "vpnstate.c";

constexpr std::size_t path_size = 58;        // a state file's path and its NUL
constexpr int searched_name_length = 31;     // what a search takes of an entry's name
constexpr std::string_view suffix = ".json"; // of a state file's name

using state_handle = std::unique_ptr<vpn_state, released_by<::vpn_free>>;

// How the text of a key's value gets into the record. Only a copy that cannot be made gives false. What differs from
// key to key is a template argument, so that the table of keys holds plain functions and a row of it says all about its
// key.

constexpr auto lowest_int = std::numeric_limits<int32_t>::min();
constexpr auto highest_int = std::numeric_limits<int32_t>::max();

template <auto Field, int32_t Bad, int32_t Lowest = lowest_int> bool number(vpn_state &state, const char *text)
{
    const char *fault;
    const auto value = static_cast<int32_t>(strtonum(text, Lowest, highest_int, &fault));
    state.*Field = fault ? Bad : value;
    return true;
}

template <auto Field> bool address(vpn_state &state, const char *text)
{
    state.*Field = ip_parse(text);
    return true;
}

template <auto Field> bool copy(vpn_state &state, const char *text)
{
    state.*Field = strdup(text);
    return state.*Field != nullptr;
}

template <auto Field, int32_t Lowest, int32_t Highest, int32_t Other, const auto &Warning>
bool choice(vpn_state &state, const char *text)
{
    number<Field, 0>(state, text); // what is no number counts as 0, without a warning
    const int32_t value = state.*Field;
    if (value < Lowest || value > Highest) {
        log_warning(Warning, value);
        state.*Field = Other;
    }
    return true;
}

// arrays with names, since a literal cannot be a template argument
constexpr char unknown_peer_type[] = "Unknown peer type %i in state";
constexpr char unknown_connection_type[] = "Unknown connection type %i in state";
constexpr char unknown_state[] = "Unknown state %i in state";

/// In the order in which they are looked for.
constexpr struct {
    std::string_view name;
    bool (*store)(vpn_state &state, const char *text);
} keys[] = {
    {"connection_id", number<&vpn_state::connection_id, -1>},
    {"vpn_client_id", number<&vpn_state::vpn_client_id, -1>},
    {"vpn_server_id", number<&vpn_state::vpn_server_id, -1>},
    {"management_port", number<&vpn_state::management_port, -1>},
    {"local_port", number<&vpn_state::local_port, -1>},
    {"relayed", number<&vpn_state::relayed, 0>},
    {"offline_connection", number<&vpn_state::offline_connection, 0>},
    {"peer_type", choice<&vpn_state::peer_type, -1, 2, -1, unknown_peer_type>},
    {"connection_type", choice<&vpn_state::connection_type, 0, 1, 0, unknown_connection_type>},
    {"management_path", copy<&vpn_state::management_path>},
    {"common_name", copy<&vpn_state::common_name>},
    {"connection_common_name", copy<&vpn_state::connection_common_name>},
    {"remote_ip", copy<&vpn_state::remote_ip>},
    {"proto", copy<&vpn_state::proto>},
    {"dev", copy<&vpn_state::dev>},
    {"relay_uuid", copy<&vpn_state::relay_uuid>},
    {"openvpn_pid", number<&vpn_state::openvpn_pid, 0>},
    {"firewall", number<&vpn_state::firewall, 0>},
    {"peer_public_ip", address<&vpn_state::peer_public_ip>},
    {"peer_virtual_ip", address<&vpn_state::peer_virtual_ip>},
    {"tun_server_ip", address<&vpn_state::tun_server_ip>},
    {"tun_client_ip", address<&vpn_state::tun_client_ip>},
    {"tun_my_ip", address<&vpn_state::tun_my_ip>},
    {"tun_peer_ip", address<&vpn_state::tun_peer_ip>},
    {"state", choice<&vpn_state::state, 0, 3, 3, unknown_state>},
    {"remote_port", number<&vpn_state::remote_port, -1, 0>},
};

bool store_value(vpn_state &state, std::string_view name, const char *text)
{
    for (const auto &key : keys) {
        if (key.name == name)
            return key.store(state, text);
    }
    log_warning("VPN: unknown key");
    return true;
}

bool store_all(vpn_state &state, json_object *document)
{
    json_object_object_foreach(document, name, value)
    {
        const char *text = json_object_get_string(value); // null for JSON's null
        if (!text || !store_value(state, name, text)) {
            log_warning("Failed to load VPN state");
            return false;
        }
    }
    return true;
}

state_handle new_state()
{
    state_handle state{static_cast<vpn_state *>(std::calloc(1, sizeof(vpn_state)))};
    if (!state) {
        log_error("Couldn't allocate memory for VPN struct");
        return nullptr;
    }
    state->connection_id = state->vpn_client_id = state->vpn_server_id = -1;
    state->reserved_11 = state->openvpn_pid = state->relayed = state->firewall = -1;
    return state;
}

/// Opens path, which may be anything, and gives it when it is a regular file: a device may go on for ever.
unique_fd open_regular(const char *path)
{
    unique_fd fd = open_untrusted(path);
    struct stat status;
    if (!fd || fstat(fd.get(), &status) != 0 || !S_ISREG(status.st_mode))
        return {};
    return fd;
}

/// The document in a state file; a null path is that of no file.
json_handle parse_file(const char *path)
{
    if (!file_exists(path)) {
        log_warning("Opening VPN state JSON file failed");
        return nullptr;
    }
    const unique_fd fd = open_regular(path);
    json_handle document = guarded(json_handle{}, [&] { return fd ? parse_whole_json(fd.get()) : nullptr; });
    if (!document)
        log_warning("Parsing VPN state JSON file failed");
    return document;
}

json_handle parse_state_of(const char *common_name)
{
    if (!common_name || std::strchr(common_name, '/')) // a slash would lead out of the directory
        return parse_file(nullptr);
    char path[path_size];
    std::snprintf(path, sizeof path, "%s/%s.json", vpnstate_directory, common_name);
    return parse_file(path);
}

/// The document in an entry of the directory, as the search for an interface takes it.
json_handle parse_entry(const char *name)
{
    char path[path_size];
    std::snprintf(path, sizeof path, "%s/%.*s", vpnstate_directory, searched_name_length, name);
    json_handle document = parse_file(path);
    if (!document)
        log_warning("Loading vpn state failed");
    return document;
}

/// The text of a key, borrowed from document; null without one.
const char *member_text(json_object *document, const char *key)
{
    return json_object_get_string(member_of(document, key));
}

enum class walk { failed, ended, stopped };

/// Calls visit with the name of each regular file, until it answers true. The name is visit's to change.
template <typename Visit> walk walk_files(Visit &&visit)
{
    const dir_handle directory{opendir(vpnstate_directory)};
    if (!directory)
        return walk::failed;
    for (;;) {
        errno = 0; // tells a failed readdir from the end
        dirent *entry = readdir(directory.get());
        if (!entry)
            return errno == 0 ? walk::ended : walk::failed;
        if (entry->d_type == DT_REG && visit(entry->d_name))
            return walk::stopped;
    }
}

/// Calls visit with the common name of each state file, until it answers true.
template <typename Visit> walk walk_common_names(Visit &&visit)
{
    return walk_files([&](char *name) {
        const std::string_view file_name = name;
        if (file_name.size() <= suffix.size() || !file_name.ends_with(suffix))
            return false;
        name[file_name.size() - suffix.size()] = '\0';
        return visit(name);
    });
}

} // namespace

vpn_state *vpnstate_load(const char *common_name)
{
    state_handle state = new_state();
    if (!state)
        return nullptr;
    const json_handle document = parse_state_of(common_name);
    if (!document)
        return nullptr;
    if (!json_object_is_type(document.get(), json_type_object)) {
        log_warning("VPN state is corrupted");
        return nullptr;
    }
    return store_all(*state, document.get()) ? state.release() : nullptr;
}

void vpn_free(vpn_state *state)
{
    if (!state)
        return;
    for (char *text : {state->proto, state->remote_ip, state->relay_uuid, state->dev, state->common_name,
                       state->connection_common_name, state->management_path})
        std::free(text);
    std::free(state);
}

int vpnstate_foreach_cn(vpnstate_cn_callback callback)
{
    if (!callback)
        return -1;
    return walk_common_names([=](const char *name) { return callback(name) != 0; }) == walk::failed ? -1 : 0;
}

int vpnstate_is_any_active(void)
{
    const auto is_active = [](const char *name) {
        const state_handle state{vpnstate_load(name)};
        return state && state->dev;
    };
    return walk_common_names(is_active) == walk::stopped;
}

int vpnstate_get_common_name(char *cn, const char *dev)
{
    if (safestrncmp(dev, "tap", 3) != 0 && safestrncmp(dev, "tun", 3) != 0)
        return 1;
    if (!cn)
        return -1;
    bool found = false;
    const walk end = walk_files([&](const char *name) {
        const json_handle document = parse_entry(name);
        if (safestrcmp(member_text(document.get(), "dev"), dev) != 0)
            return false;
        if (const char *common_name = member_text(document.get(), "common_name")) {
            strlcpy(cn, common_name, common_name_size);
            found = true;
        }
        return true;
    });
    if (end == walk::ended)
        return 1;
    return found ? 0 : -1;
}
