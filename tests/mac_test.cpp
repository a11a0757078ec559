#include "device_test.hpp"

#include "mac.h"

namespace {

class mac : public device_test {};

TEST_F(mac, text_is_parsed)
{
    const struct {
        const char *text;
        int good;
        uint64_t packed; // of what is then in the bytes, which were 7
    } cases[] = {{"00:11:22:33:44:5F", 1, 0x00112233445F},  {"aA:bB:cC:dD:eE:fF", 1, 0xAABBCCDDEEFF},
                 {"00:11:22-33:44:55", 0, 0x001122070707},  {"00:11:22:33:44:5", 0, 0x070707070707},
                 {"00:11:22:33:44:555", 0, 0x070707070707}, {nullptr, 1, 0}};
    for (const auto &[text, good, packed] : cases) {
        uint8_t bytes[] = {7, 7, 7, 7, 7, 7};
        EXPECT_EQ(mac_to_bytes_network(bytes, text), good) << text;
        EXPECT_EQ(mac_bytes_to_long(bytes), packed) << text;
    }
    EXPECT_EQ(mac_to_bytes_network(nullptr, "00:11:22:33:44:55"), 0);
    EXPECT_EQ(mac_bytes_to_long(nullptr), 0U);
}

TEST_F(mac, bytes_are_formatted)
{
    const uint8_t bytes[] = {0x0A, 0xA1, 0xB2, 0xC3, 0xD4, 0xFF};
    char text[18] = "xxxxxxxxxxxxxxxxx";
    EXPECT_EQ(mac_bytes_to_mac(text, bytes), 1);
    EXPECT_STREQ(text, "0a:a1:b2:c3:d4:ff");
    EXPECT_EQ(mac_bytes_to_mac(nullptr, bytes), 0);
    EXPECT_EQ(mac_bytes_to_mac(text, nullptr), 0);
}

TEST_F(mac, none_is_the_null_mac)
{
    const uint8_t null[6] = {}, first[] = {1, 0, 0, 0, 0, 0}, last[] = {0, 0, 0, 0, 0, 1};
    const struct {
        const uint8_t *a, *b;
        int want;
    } cases[] = {{null, nullptr, 1},  {nullptr, null, 1}, {last, nullptr, 0},
                 {nullptr, first, 0}, {first, last, 0},   {last, last, 1}};
    for (const auto &[a, b, want] : cases)
        EXPECT_EQ(mac_equals(a, b), want);
    EXPECT_EQ(mac_is_null(nullptr), 1);
    EXPECT_EQ(mac_is_null(null), 1);
    EXPECT_EQ(mac_is_null(first), 0);
    EXPECT_EQ(mac_is_null(last), 0);
}

TEST_F(mac, temporary_is_told_by_its_first_digits)
{
    for (const char *text :
         {"02:11:22:33:44:55", "0e:00:00:00:00:01", "fa:00:00:00:00:01", "x6xxxxxxxxxxxxxxxxx", "00-ff:00:00:00:01"})
        EXPECT_EQ(mac_is_temporary(text), 1) << text;
    for (const char *text : {"03:00:00:00:00:00", "0A:11:22:33:44:55", "0X:00:00:00:00:00", "00:FF:00:00:00:01",
                             "00:f0:00:00:00:01", "10:ff:00:00:00:01"})
        EXPECT_EQ(mac_is_temporary(text), 0) << text;
    EXPECT_EQ(log(), records{});
}

TEST_F(mac, text_that_is_too_short_counts_as_temporary)
{
    EXPECT_EQ(mac_is_temporary("00:11:22:33:44:5"), 1);
    EXPECT_EQ(log(), records{error("Too short mac: 00:11:22:33:44:5", "mac.c")});
    EXPECT_EQ(mac_is_temporary(nullptr), 1);
    EXPECT_EQ(log(), records{error("Too short mac: (null)", "mac.c")});
}

} // namespace
