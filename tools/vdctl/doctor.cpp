// doctor: what of a device's set-up is missing or wrong, as docs/operations.md wants it, and what to do about it.
#include "check.hpp"
#include "command.hpp"
#include "handles.hpp"
#include "served.hpp"

#include "netinfo.h"
#include "uciconfig.h"
#include "util.h"
#include "vpnstate.h"
#include "zones.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include <grp.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <uci.h>
#include <unistd.h>

namespace vdctl {

int doctor(const invocation &given);

namespace {

constexpr char bus_group[] = "vdipc", server_group[] = "vandrel";
constexpr mode_t folder_mode = 01775, socket_mode = 0770;
constexpr char schedule_script[] = "/usr/share/vandrel/check_zone_scheduled_access.lua";
constexpr char feature_script[] = "/usr/share/vandrel/vd_features.lua";

enum class health { ok, warn, fail };
constexpr const char *health_names[] = {"ok", "warn", "fail"};

struct finding_line {
    health level;
    const char *what;
    text said;
};

class report {
public:
    void ok(const char *what, text said) { add(health::ok, what, std::move(said)); }
    void warn(const char *what, text said) { add(health::warn, what, std::move(said)); }
    void fail(const char *what, text said) { add(health::fail, what, std::move(said)); }

    void print() const
    {
        constexpr colour shades[] = {colour::green, colour::yellow, colour::red};
        for (const finding_line &line : lines_) {
            char rest[32];
            std::snprintf(rest, sizeof rest, "%-*s%-10s", line.level == health::ok ? 4 : 2, "", line.what);
            vdctl::print(shades[static_cast<int>(line.level)], text::of(health_names[static_cast<int>(line.level)]),
                         text::of(rest) + line.said);
        }
    }

    json_object *json() const
    {
        json_object *checks = json_object_new_array();
        for (const finding_line &line : lines_) {
            json_object *entry = json_object_new_object();
            json_object_object_add(entry, "level", json_object_new_string(health_names[static_cast<int>(line.level)]));
            json_object_object_add(entry, "what", json_object_new_string(line.what));
            json_object_object_add(entry, "text", new_string(line.said.str()));
            json_object_array_add(checks, entry);
        }
        json_object *object = json_object_new_object();
        json_object_object_add(object, "checks", checks);
        return object;
    }

    bool is_healthy() const
    {
        return std::ranges::all_of(lines_, [](const finding_line &line) { return line.level == health::ok; });
    }

private:
    void add(health level, const char *what, text said) { lines_.push_back({level, what, std::move(said)}); }

    std::vector<finding_line> lines_;
};

text octal(mode_t mode)
{
    char digits[8];
    std::snprintf(digits, sizeof digits, "%04o", static_cast<unsigned>(mode));
    return text::of(mode > 07777 || digits[0] != '0' ? digits : digits + 1);
}

void check_folder(report &told)
{
    struct stat status;
    if (stat(bus_folder, &status) != 0 || !S_ISDIR(status.st_mode))
        return told.fail("folder", "/var/run/vandrel is missing: no daemon but root's can serve; let the start script "
                                   "make it, root vandrel 1775");
    const mode_t mode = status.st_mode & 07777;
    const text is = "/var/run/vandrel: " + text::of(user_name(status.st_uid)) + " " +
                    text::of(group_name(status.st_gid)) + " " + octal(mode);
    const text to_do =
        ": chown root:vandrel and chmod 1775, so that daemons can serve and none removes another's socket";
    if ((mode & S_IWOTH) != 0)
        told.fail("folder", is + ": anybody may serve there under any name; chmod 1775");
    else if (status.st_uid != 0 || group_name(status.st_gid) != server_group || mode != folder_mode)
        told.warn("folder", is + to_do);
    else
        told.ok("folder", is);
}

void check_groups(report &told)
{
    const std::pair<const char *, text> groups[] = {{server_group, "only root's daemons can make their sockets"},
                                                    {bus_group, "only root and the daemon's own user can connect"}};
    for (const auto &[name, without] : groups) {
        if (getgrnam(name))
            told.ok("group", text::of(name));
        else
            told.warn("group", text::of(name) + " is missing: " + without + "; add it to /etc/group");
    }
}

void check_socket(report &told, const served_name &served)
{
    const text is = "ipc_" + text::of(served.name) + ".sock: ";
    const text rights = "group " + text::of(group_name(served.group)) + ", mode " + octal(served.mode);
    if (served.by == serving::nobody)
        told.warn("socket", is + "nobody listens; start its daemon, or remove the file");
    else if (served.by == serving::two)
        told.fail("socket", is + "two processes listen, and the older one can't be reached any more; end it");
    else if ((served.mode & S_IWOTH) != 0)
        told.fail("socket", is + rights + ": anybody may connect; the daemon's umask should be 027");
    else if (getgrnam(bus_group) && (group_name(served.group) != bus_group || served.mode != socket_mode))
        told.warn("socket", is + rights + ": give the daemon the group vdipc or CAP_CHOWN");
    else
        told.ok("socket", is + rights + ", " + text{served.peers} + " connected");
}

/// A line of a process's status file, without its name; empty where it may not be read.
std::string status_field(pid_t pid, const std::string &name)
{
    std::ifstream file{"/proc/" + std::to_string(pid) + "/status"};
    for (std::string line; std::getline(file, line);) {
        if (line.starts_with(name + ":\t"))
            return line.substr(name.size() + 2);
    }
    return "";
}

void check_process(report &told, const served_name &served)
{
    if (!served.pid)
        return;
    const text is = text::of(served.command) + ", process " + text{*served.pid};
    const std::string user = status_field(*served.pid, "Uid"), capabilities = status_field(*served.pid, "CapEff");
    const text rights = ", capabilities " + text::of(capabilities.empty() ? "unknown" : capabilities);
    const auto uid = static_cast<uid_t>(std::strtoul(user.c_str(), nullptr, 10));
    if (user.empty())
        return;
    if (uid == 0)
        told.warn("process", is + ": runs as root" + rights + "; start it with a user of its own");
    else
        told.ok("process", is + ": user " + text::of(user_name(uid)) + rights);
}

void check_zones(report &told)
{
    struct stat status;
    if (stat(live_file, &status) != 0)
        return told.fail("zones", text::of(live_file) + ": " + text::of(std::strerror(errno)) +
                                      ": nobody may reach anything; put a zone file there");
    if ((status.st_mode & (S_IWGRP | S_IWOTH)) != 0 || status.st_uid != 0) {
        told.fail("zones", text::of(live_file) + ": user " + text::of(user_name(status.st_uid)) + ", mode " +
                               octal(status.st_mode & 07777) +
                               ": others than root may change who gets in; chown root and chmod 644");
    }
    const bool loads = zones_load() != 0;
    const std::size_t findings = find_mistakes(read_zone_text(live_file)).size();
    zones_free();
    const text count = text{findings} + (findings == 1 ? text{" finding"} : text{" findings"});
    if (!loads)
        told.fail("zones", text::of(live_file) + " does not load whole, " + count + ": vdctl zones check");
    else if (findings > 0)
        told.warn("zones", text::of(live_file) + ": " + count + ": vdctl zones check");
    else
        told.ok("zones", text::of(live_file) + " loads, no findings");
}

void check_script(report &told, const char *what, const char *path, const text &without)
{
    struct stat status;
    const text name = text::of(std::strrchr(path, '/') + 1);
    if (stat(path, &status) != 0)
        told.fail(what, name + " is missing: " + without);
    else if (access(path, X_OK) != 0)
        told.fail(what, name + " can't be executed: " + without + "; chmod 755");
    else if ((status.st_mode & (S_IWGRP | S_IWOTH)) != 0 || status.st_uid != 0)
        told.fail(what, name + ": others than root may change it, and daemons run it; chown root and chmod 755");
    else
        told.ok(what, name);
}

void check_log(report &told)
{
    const unique_fd fd{socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)};
    const sockaddr_un address{AF_UNIX, "/dev/log"};
    if (connect(fd.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0)
        told.ok("log", "somebody listens on /dev/log");
    else
        told.fail("log", "nobody listens on /dev/log: every record is lost; start the system log before the daemons");
}

void check_network(report &told)
{
    netinfo_lan *lans = nullptr;
    int count = 0;
    if (!netinfo_get_lans(&lans, &count))
        return told.fail("network", "the package network can't be loaded: no LAN is known; see /etc/config/network");
    std::free(lans);
    if (count == 0)
        told.warn("network", "the package network has no LAN: no interface with type bridge");
    else
        told.ok("network", text{count} + (count == 1 ? text{" LAN"} : text{" LANs"}));
}

struct {
    int loaded = 0;
    std::vector<std::string> unreadable;
} peer_files;

void check_state_files(report &told)
{
    peer_files = {};
    vpnstate_foreach_cn([](const char *name) {
        vpn_state *state = vpnstate_load(name);
        if (state)
            ++peer_files.loaded;
        else
            peer_files.unreadable.emplace_back(name);
        vpn_free(state);
        return 0;
    });
    for (const std::string &name : peer_files.unreadable) {
        const text is = "the state file of " + text::of(name);
        told.warn("vpn", is + " can't be read: its peer counts as down; see its daemon");
    }
    told.ok("vpn", text{peer_files.loaded} + " state files read");
}

} // namespace

int doctor(const invocation &)
{
    report told;
    check_folder(told);
    check_groups(told);
    for (const served_name &served : served_names()) {
        check_socket(told, served);
        check_process(told, served);
    }
    check_zones(told);
    check_script(told, "schedule", schedule_script, "every zone counts as closed");
    check_script(told, "features", feature_script, "every feature counts as off");
    check_log(told);
    check_network(told);
    check_state_files(told);
    if (style().json)
        print_json(told.json());
    else
        told.print();
    return told.is_healthy() ? status_yes : status_no;
}

} // namespace vdctl
