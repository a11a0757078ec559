// What config_lookup costs beside the same libuci calls made directly, for an option in the middle of a usual network
// package. Both make a context, read the package and copy the text.
#include "against_floor.hpp"
#include "device.hpp"

#include "uciconfig.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>

#include <uci.h>

namespace {

void config_lookup_call(benchmark::State &state)
{
    for ([[maybe_unused]] auto _ : state)
        std::free(config_lookup("%s.%s.%s", "network", "lan4", "ipaddr"));
}

void by_hand(benchmark::State &state)
{
    for ([[maybe_unused]] auto _ : state) {
        uci_context *ctx = uci_alloc_context();
        char path[] = "network.lan4.ipaddr";
        uci_ptr found{};
        char *text = nullptr;
        if (uci_lookup_ptr(ctx, &found, path, true) == UCI_OK && (found.flags & uci_ptr::UCI_LOOKUP_COMPLETE))
            text = strdup(found.o->v.string);
        benchmark::DoNotOptimize(text);
        std::free(text);
        uci_free_context(ctx);
    }
}

void write_network_package()
{
    std::ofstream file{"/etc/config/network"};
    for (int i = 0; i < 8; ++i)
        file << "config interface 'lan" << i << "'\n\toption ifname 'eth" << i << "'\n\toption proto 'static'\n"
             << "\toption ipaddr '192.168." << i << ".1'\n\toption netmask '255.255.255.0'\n\tlist dns '192.168." << i
             << ".1'\n\n";
}

} // namespace

int main(int argc, char **argv)
{
    enter_device();
    write_network_package();

    const double ratio = cost_against_floor(argc, argv, config_lookup_call, by_hand);
    std::printf("config_lookup costs %.3f times the same libuci calls\n", ratio);
}
