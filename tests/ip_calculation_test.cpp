#include "device_test.hpp"

#include "ip_calculation.h"

#include <cstring>

namespace {

class ip_calculation : public device_test {};

TEST_F(ip_calculation, texts_are_parsed_as_the_c_library_does)
{
    const std::tuple<const char *, uint32_t, bool> cases[] = {{"192.168.1.1", 0xC0A80101, true},
                                                              {"255.255.255.255", 0xFFFFFFFF, true},
                                                              {"10.1", 0x0A000001, true},
                                                              {"0x7f.010.1.2", 0x7F080102, true},
                                                              {"256.0.0.1", 0xFFFFFFFF, false},
                                                              {"bogus", 0xFFFFFFFF, false},
                                                              {"0.0.0.0", 0, true},
                                                              {"", 0xFFFFFFFF, false},
                                                              {nullptr, 0, false}};
    for (const auto &[text, want, good] : cases) {
        uint32_t ip = 7;
        EXPECT_TRUE(ip_parse(text) == want && ip_parse_free(text ? strdup(text) : nullptr) == want) << text;
        EXPECT_TRUE(ip_parse_p(&ip, text) == good && ip == (good ? want : 0)) << text;
    }
    EXPECT_EQ(ip_parse_p(nullptr, "10.0.0.1"), 0);
}

TEST_F(ip_calculation, addresses_are_formatted)
{
    const allocation_refusal refuse{1};
    char text[17] = "xxxxxxxxxxxxxxxx", *const first = ip_format_s(0);
    EXPECT_TRUE(ip_format(text, 0xFFFFFFFF) == 1 && std::strcmp(text, "255.255.255.255") == 0 && text[16] == '\0');
    EXPECT_STREQ(first, "0.0.0.0");
    EXPECT_TRUE(ip_format_s(0xC0A80101) == first && std::strcmp(first, "192.168.1.1") == 0 &&
                ip_format(nullptr, 1) == 0);
    EXPECT_FALSE(refuse.happened());
}

TEST_F(ip_calculation, safe_text_is_the_usual_form_of_a_real_address)
{
    const std::tuple<const char *, const char *, const char *> cases[] = {
        {"192.168.001.001", "192.168.1.1", nullptr},
        {"010.0.0.1", "8.0.0.1", nullptr},
        {"10.1", "10.0.0.1", nullptr},
        {"0.0.0.0", "", "Parsing ip 0.0.0.0 failed"},
        {"x", "", "Parsing ip x failed"},
        {nullptr, "left", "missing arguments"},
        {"255.255.255.255", "", "Parsing ip 255.255.255.255 failed"}};
    for (const auto &[text, want, complaint] : cases) {
        char out[16] = "left";
        EXPECT_EQ(ip_safe(text, out), complaint ? -1 : 0) << text;
        EXPECT_STREQ(out, want);
        EXPECT_EQ(log(), complaint ? records{error(complaint, "ip_calculation.c")} : records{});
    }
    EXPECT_EQ(ip_safe("10.1", nullptr), -1);
}

TEST_F(ip_calculation, netmasks_come_from_a_prefix_length_or_a_text)
{
    const std::pair<const char *, uint32_t> cases[] = {{"24", 0xFFFFFF00},
                                                       {"1", 0x80000000},
                                                       {"32", 0xFFFFFFFF},
                                                       {"255.255.255.0", 0xFFFFFF00},
                                                       {"08", 0xFF000000},
                                                       {"0", 0},
                                                       {"33", 0},
                                                       {"2a", 0},
                                                       {"+1", 0},
                                                       {" 1", 0},
                                                       {"1234", 0},
                                                       {"", 0},
                                                       {"255.25", 0},
                                                       {"0.0.0.0", 0},
                                                       {"255.0.255.0", 0xFF00FF00},
                                                       {"bogus text", 0xFFFFFFFF},
                                                       {"255.255.255.0   ", 0}};
    for (const auto &[text, want] : cases)
        EXPECT_EQ(ip_uint32_netmask_from_str(text, std::strlen(text)), want) << text;
    for (const auto &[length, want] :
         {std::pair{0U, 0U}, {1U, 1U << 31}, {8U, 0xFFU << 24}, {32U, ~0U}, {33U, 0U}, {64U, 0U}})
        EXPECT_EQ(ip_netmask(length), want) << length;
    EXPECT_EQ(ip_uint32_netmask_from_str(nullptr, 2), 0U);
}

TEST_F(ip_calculation, networks_hold_what_agrees_under_the_mask)
{
    uint32_t network = 0, last = 0;
    EXPECT_EQ(ip_get_network(0xC0A80164, 0xFFFFFF00, &network, &last) + ip_get_network(1, 2, nullptr, nullptr), 2);
    EXPECT_TRUE(network == 0xC0A80100 && last == 0xC0A801FF && ip_last_ip_from_netmask(0x0A000001, 0) == 0xFFFFFFFF);
    const std::tuple<const char *, const char *, const char *, int> cases[] = {
        {"10.1.2.3", "10.1.0.0", "255.255.0.0", 1}, {"10.1.2.3", "10.2.0.0", "255.255.0.0", 0},
        {"10.1.2.3", "10.1.9.9", "255.255.0.0", 1}, {"10.1.2.3", "9.9.9.9", "0.0.0.0", 1},
        {"bogus", "255.255.255.255", "bogus", 1},   {"10.1.2.3", "10.1.2.3", nullptr, 0}};
    for (const auto &[ip, net, mask, want] : cases)
        EXPECT_EQ(ip_in_network_str(ip, net, mask), want) << ip << net;
    EXPECT_EQ(ip_in_network(0x0A010203, 0x0A010000, 0xFFFF0000) - ip_in_network(0x0A010203, 0x0A020000, 0xFFFF0000), 1);
}

} // namespace
