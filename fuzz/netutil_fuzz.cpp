// Names of ports and devices, and device lists: a byte for the size of the output, then the text.
#include "device.hpp"

#include "netutil.h"
#include "uciconfig.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <string>

#include <uci.h>

namespace {

uci_package *network = nullptr;

void require(bool holds)
{
    if (!holds)
        std::abort();
}

std::string name_of(const netutil_ifname_parts &parts)
{
    const std::string name = parts.prefix + std::to_string(parts.number);
    return parts.vlan < 0 ? name : name + '.' + std::to_string(parts.vlan);
}

void check_parser(const char *name)
{
    netutil_ifname_parts parts{};
    if (!netutil_parse_portname(&parts, name))
        return;
    require(std::strlen(parts.prefix) <= 3 && parts.number >= 0 && parts.number <= 9999);
    require(parts.vlan >= -1 && parts.vlan <= 4095);
    netutil_ifname_parts again{};
    require(netutil_parse_portname(&again, name_of(parts).c_str()) == 1 && name_of(again) == name_of(parts));
}

void check_list(const std::string &list, std::size_t size)
{
    const std::unique_ptr<char[]> first{new char[size]}; // just as large, so that the sanitizer sees every overrun
    if (netutil_copy_first_ifname(first.get(), list.c_str(), size) == 0)
        require(first.get() == list.substr(0, std::min(list.find(' '), size - 1)));
    else
        require(size == 0);
}

void check_conversion(const std::string &ifname, std::size_t size)
{
    const std::unique_ptr<char[]> portname{new char[size]};
    if (netutil_ifname_to_portname(portname.get(), size, ifname.c_str(), network) && size > 0)
        require(std::string{ifname == "eth0.1" ? "lan1" : "lan2"}.starts_with(portname.get()));
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    enter_device();
    std::ofstream{"/etc/config/network"} << "config interface lan\n option ifname 'eth0.1 eth1'\n"
                                            "config interface\nconfig interface lan2\n option ifname eth2\n";
    static uci_context *ctx;
    require(config_load_network(&ctx, &network, nullptr, nullptr) == 0);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    if (size == 0)
        return 0;
    const std::string bytes(reinterpret_cast<const char *>(data + 1), size - 1);
    const std::string text = bytes.c_str();
    check_parser(text.c_str());
    check_list(text, *data % 20);
    check_conversion(text, *data % 20);
    return 0;
}
