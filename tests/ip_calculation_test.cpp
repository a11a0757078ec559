#include "device_test.hpp"

#include "ip_calculation.h"

#include <cstring>
#include <string>

namespace {

class ip_calculation : public device_test {};

constexpr uint32_t none = 0xFFFFFFFF;

TEST_F(ip_calculation, texts_are_parsed)
{
    const struct {
        const char *text;
        uint32_t want;
        int good; // what ip_parse_p says, which then stores want, and else 0
    } cases[] = {{"192.168.1.1", 0xC0A80101, 1},
                 {"0x7f.010.1.2", 0x7F080102, 1},
                 {"10.1", 0x0A000001, 1},
                 {"0.0.0.0", 0, 1},
                 {"256.0.0.1", none, 0},
                 {"255.255.255.255", none, 1},
                 {"bogus", none, 0},
                 {"", none, 0},
                 {nullptr, 0, 0}};
    for (const auto &[text, want, good] : cases) {
        EXPECT_EQ(ip_parse(text), want) << text;
        EXPECT_EQ(ip_parse_free(text ? strdup(text) : nullptr), want) << text;
        uint32_t ip = 7;
        EXPECT_EQ(ip_parse_p(&ip, text), good) << text;
        EXPECT_EQ(ip, good ? want : 0) << text;
    }
    EXPECT_EQ(ip_parse_p(nullptr, "10.1"), 0);
    EXPECT_EQ(log(), records{});
}

TEST_F(ip_calculation, texts_are_made_usual)
{
    const struct {
        const char *text;
        int want;
        const char *usual, *complaint;
    } cases[] = {{"0x7f.010.1.2", 0, "127.8.1.2", nullptr},
                 {"10.1", 0, "10.0.0.1", nullptr},
                 {"0.0.0.0", -1, "", "Parsing ip 0.0.0.0 failed"},
                 {"256.0.0.1", -1, "", "Parsing ip 256.0.0.1 failed"},
                 {"255.255.255.255", -1, "", "Parsing ip 255.255.255.255 failed"},
                 {nullptr, -1, "left", "missing arguments"}};
    for (const auto &[text, want, usual, complaint] : cases) {
        char out[16] = "left";
        EXPECT_EQ(ip_safe(text, out), want) << text;
        EXPECT_STREQ(out, usual) << text;
        EXPECT_EQ(log(), complaint ? records{error(complaint, "ip_calculation.c")} : records{});
    }
    EXPECT_EQ(ip_safe("10.1", nullptr), -1);
    EXPECT_EQ(log(), records{error("missing arguments", "ip_calculation.c")});
}

TEST_F(ip_calculation, addresses_are_formatted)
{
    char text[16];
    EXPECT_EQ(ip_format(text, none), 1);
    EXPECT_STREQ(text, "255.255.255.255");
    EXPECT_EQ(ip_format(text, 0x01020304), 1);
    EXPECT_STREQ(text, "1.2.3.4");
    EXPECT_EQ(ip_format(nullptr, 1), 0);
    const char *const first = ip_format_s(none);
    EXPECT_STREQ(first, "255.255.255.255");
    EXPECT_EQ(ip_format_s(1), first);
    EXPECT_STREQ(first, "0.0.0.1");
}

TEST_F(ip_calculation, netmasks_are_chosen_by_length)
{
    const struct {
        const char *text;
        uint32_t want;
    } cases[] = {{"24", 0xFFFFFF00},
                 {"1", 0x80000000},
                 {"32", none},
                 {"08", 0xFF000000},
                 {"0", 0},
                 {"33", 0},
                 {"2a", 0},
                 {"a2", 0},
                 {"+1", 0},
                 {"240", 0},
                 {"", 0},
                 {"1.1.1.", 0},
                 {"1.1.1.1", 0x01010101},
                 {"255.0.255.0", 0xFF00FF00},
                 {"bogus..", none},
                 {"255.255.255.128", 0xFFFFFF80},
                 {"255.255.255.128 ", 0}};
    for (const auto &[text, want] : cases)
        EXPECT_EQ(ip_uint32_netmask_from_str(text, std::strlen(text)), want) << text;
    EXPECT_EQ(ip_uint32_netmask_from_str("24", 7), 24U);
    EXPECT_EQ(ip_uint32_netmask_from_str("24", 1), 0xFFFFFF00);
    EXPECT_EQ(ip_uint32_netmask_from_str("2", 2), 0U);
    EXPECT_EQ(ip_uint32_netmask_from_str("255.255.255.0", 2), 0U);
    EXPECT_EQ(ip_uint32_netmask_from_str(nullptr, 2), 0U);
}

TEST_F(ip_calculation, network_has_a_first_and_a_last_address)
{
    uint32_t network = 0, last = 0;
    EXPECT_EQ(ip_get_network(0xC0A80164, 0xFFFFFF00, &network, &last), 1);
    EXPECT_EQ(network, 0xC0A80100);
    EXPECT_EQ(last, 0xC0A801FF);
    EXPECT_EQ(ip_get_network(1, 2, nullptr, nullptr), 1);
    EXPECT_EQ(ip_last_ip_from_netmask(0x0A000001, 0), none);
}

TEST_F(ip_calculation, network_holds_what_agrees_under_the_mask)
{
    const struct {
        const char *network, *netmask;
        int want;
    } cases[] = {{"10.1.9.9", "255.255.0.0", 1}, {"10.2.0.0", "255.255.0.0", 0}, {"bogus", "255.255.0.0", 0},
                 {"11.0.0.0", "0.0.0.0", 1},     {"10.1.2.3", "bogus", 1},       {"10.1.2.4", "bogus", 0},
                 {nullptr, "0.0.0.0", 0},        {"10.1.9.9", nullptr, 0}};
    for (const auto &[network, netmask, want] : cases)
        EXPECT_EQ(ip_in_network_str("10.1.2.3", network, netmask), want) << network << netmask;
    EXPECT_EQ(ip_in_network_str(nullptr, "10.1.2.3", "0.0.0.0"), 0);
}

} // namespace
