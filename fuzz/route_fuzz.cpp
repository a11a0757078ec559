// Route tables, laid over the kernel's own.
#include "device.hpp"

#include "netinfo.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

int table = -1;

void require(bool holds)
{
    if (!holds)
        std::abort();
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    enter_device();
    mkdir("/tmp/net", 0755);
    table = open("/tmp/net/route", O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    require(table >= 0 && mount("/tmp/net", "/proc/self/net", nullptr, MS_BIND, nullptr) == 0);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    require(ftruncate(table, 0) == 0 && pwrite(table, data, size, 0) == static_cast<ssize_t>(size));

    char ifname[] = "################";
    std::uint32_t gateway = 1;
    const int found = netinfo_get_default_route(ifname, &gateway);
    require(found || (std::strcmp(ifname, "################") == 0 && gateway == 1));
    require(!found || (std::strlen(ifname) < 16 && !std::strchr(ifname, '\t')));

    std::uint32_t gateway_alone = 1;
    char ifname_alone[] = "################";
    require(netinfo_get_default_route(ifname_alone, nullptr) == found && std::strcmp(ifname, ifname_alone) == 0);
    require(netinfo_get_default_route(nullptr, &gateway_alone) == found && gateway == gateway_alone);
    require(found || netinfo_get_bearer_type() == NETINFO_BEARER_UNKNOWN);
    return 0;
}
