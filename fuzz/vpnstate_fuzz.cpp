// Any bytes as a state file: loading gives a whole record or none, and every look at the directory agrees with it.
#include "device.hpp"

#include "vpnstate.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr char directory[] = "/var/run/vandrel/vpnstate";
constexpr char file[] = "/var/run/vandrel/vpnstate/peer.json";

void require(bool holds)
{
    if (!holds)
        std::abort();
}

void write_state_file(const uint8_t *data, std::size_t size)
{
    const int fd = open(file, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    require(fd >= 0 && write(fd, data, size) == static_cast<ssize_t>(size));
    close(fd);
}

void check_record(const vpn_state &state)
{
    require(state.state >= 0 && state.state <= 3);
    require(state.peer_type >= -1 && state.peer_type <= 2);
    require(state.connection_type == 0 || state.connection_type == 1);
    require(state.remote_port >= -1);
    require(state.reserved_11 == -1 && state.reserved_13 == 0 && state.reserved_16 == 0);
}

/// What the search says about the interface that the record names.
void check_search(const vpn_state &state)
{
    char cn[27] = "";
    const int found = vpnstate_get_common_name(cn, state.dev);
    const bool is_tunnel = std::strncmp(state.dev, "tap", 3) == 0 || std::strncmp(state.dev, "tun", 3) == 0;
    require(found == (!is_tunnel ? 1 : state.common_name ? 0 : -1));
    require(found != 0 || std::strncmp(cn, state.common_name, sizeof cn - 1) == 0);
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    enter_device();
    require(mkdir(directory, 0755) == 0);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, std::size_t size)
{
    write_state_file(data, size);
    vpn_state *state = vpnstate_load("peer");
    require(vpnstate_is_any_active() == (state && state->dev));
    if (state) {
        check_record(*state);
        if (state->dev)
            check_search(*state);
    }
    vpn_free(state);
    char cn[27];
    vpnstate_get_common_name(cn, "tun0");
    return 0;
}
