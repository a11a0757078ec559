#include "device_test.hpp"

#include "ip_calculation.h"

#include <cstring>

namespace {

class ip_calculation : public device_test {};

constexpr uint32_t none = 0xFFFFFFFF;

TEST_F(ip_calculation, texts_are_parsed_and_made_usual)
{
    const std::tuple<const char *, uint32_t, bool, std::string, std::string> cases[] = {
        {"0x7f.010.1.2", 0x7F080102, true, "127.8.1.2", ""},
        {"10.1", 0x0A000001, true, "10.0.0.1", ""},
        {"0.0.0.0", 0, true, "", "Parsing ip 0.0.0.0 failed"},
        {"256.0.0.1", none, false, "", "Parsing ip 256.0.0.1 failed"},
        {"255.255.255.255", none, true, "", "Parsing ip 255.255.255.255 failed"},
        {nullptr, 0, false, "left", "missing arguments"}};
    for (const auto &[text, want, good, usual, complaint] : cases) { // usual: what ip_safe makes of it
        uint32_t ip = 7;
        char out[16] = "left";
        EXPECT_TRUE(ip_parse(text) == want && ip_parse_free(text ? strdup(text) : nullptr) == want) << text;
        EXPECT_TRUE(ip_parse_p(&ip, text) == good && ip == (good ? want : 0)) << text;
        EXPECT_TRUE(ip_safe(text, out) == (complaint.empty() ? 0 : -1) && out == usual) << text;
        EXPECT_EQ(log(), complaint.empty() ? records{} : records{error(complaint, "ip_calculation.c")});
    }
    char text[17] = "xxxxxxxxxxxxxxxx", *const first = ip_format_s(none);
    EXPECT_TRUE(ip_format(text, none) == 1 && std::strcmp(text, "255.255.255.255") == 0 && !ip_format(nullptr, 1));
    EXPECT_TRUE(ip_format_s(1) == first && std::strcmp(first, "0.0.0.1") == 0 && !ip_parse_p(nullptr, "10.1"));
}

TEST_F(ip_calculation, netmasks_are_chosen_by_length)
{
    const auto mask = [](const char *text) { return ip_uint32_netmask_from_str(text, std::strlen(text)); };
    EXPECT_TRUE(mask("24") == none << 8 && mask("1") == none << 31 && mask("32") == none && mask("08") == none << 24);
    EXPECT_TRUE(mask("1.1.1.1") == 0x01010101 && mask("255.0.255.0") == 0xFF00FF00 && mask("bogus..") == none);
    EXPECT_EQ(mask("255.255.255.128"), none << 7);
    for (const char *text : {"0", "33", "2a", "+1", " 1", "240", "", "1.1.1.", "255.255.255.128 "})
        EXPECT_EQ(mask(text), 0U) << text;
    EXPECT_TRUE(ip_uint32_netmask_from_str("24", 7) == 24 && ip_uint32_netmask_from_str("255.255.255.0", 2) == 0);
    EXPECT_EQ(ip_uint32_netmask_from_str(nullptr, 2), 0U);
    EXPECT_TRUE(ip_netmask(0) == 0 && ip_netmask(33) == 0 && ip_netmask(64) == 0);
}

TEST_F(ip_calculation, networks_hold_what_agrees_under_the_mask)
{
    uint32_t network = 0, last = 0;
    EXPECT_EQ(ip_get_network(0xC0A80164, 0xFFFFFF00, &network, &last) + ip_get_network(1, 2, nullptr, nullptr), 2);
    EXPECT_TRUE(network == 0xC0A80100 && last == 0xC0A801FF && ip_last_ip_from_netmask(0x0A000001, 0) == none);
    for (const auto &[net, want] : {std::pair{"10.1.9.9", 1}, {"10.2.0.0", 0}, {"bogus", 0}})
        EXPECT_EQ(ip_in_network_str("10.1.2.3", net, "255.255.0.0"), want) << net;
    EXPECT_TRUE(ip_in_network_str("10.1", "11.1", "0.0.0.0") && !ip_in_network_str("10.1", "10.1", nullptr));
}

} // namespace
