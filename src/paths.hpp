// The fixed paths of the device. Nothing overrides them: a test gets an empty device by mounting over the folders.
#pragma once

namespace vandrel {

inline constexpr char zones_file[] = "/etc/vandrel/zones.json";
inline constexpr char schedule_command_format[] =
    "/usr/share/vandrel/check_zone_scheduled_access.lua %s %d";                              // zone file, zone id
inline constexpr char feature_command_format[] = "/usr/share/vandrel/vd_features.lua %s %s"; // scope, feature

inline constexpr char run_directory[] = "/var/run/vandrel";
inline constexpr char ipc_socket_format[] = "/var/run/vandrel/ipc_%s.sock"; // IPC name
inline constexpr char vpnstate_directory[] = "/var/run/vandrel/vpnstate";
inline constexpr char state_directory[] = "/var/state";

inline constexpr char route_table[] = "/proc/net/route";
inline constexpr char net_class_format[] = "/sys/class/net/%s"; // interface name

inline constexpr char null_device[] = "/dev/null";
inline constexpr char shell[] = "/bin/sh";
inline constexpr char descriptor_format[] = "/proc/self/fd/%d"; // descriptor

} // namespace vandrel
