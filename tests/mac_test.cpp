#include "device_test.hpp"

#include "mac.h"

#include <array>

namespace {

class mac : public device_test {};

using bytes = std::array<uint8_t, 6>;

TEST_F(mac, forms_are_converted)
{
    const std::tuple<const char *, int, bytes, const char *, uint64_t> cases[] = {
        {"00:11:22:33:44:55", 1, {0, 0x11, 0x22, 0x33, 0x44, 0x55}, "00:11:22:33:44:55", 0x001122334455},
        {"AA:bB:CC:DD:EE:FF", 1, {0xAA, 0xBB, 0xCC, 0xDD, 0xEE, 0xFF}, "aa:bb:cc:dd:ee:ff", 0xAABBCCDDEEFF},
        {nullptr, 1, {}, "00:00:00:00:00:00", 0},
        {"00:11:22:33:44:5", 0, {7, 7, 7, 7, 7, 7}, "07:07:07:07:07:07", 0x070707070707},
        {"00:11:22:33:44:556", 0, {7, 7, 7, 7, 7, 7}, "07:07:07:07:07:07", 0x070707070707},
        {"00:11:22-33:44:55", 0, {0, 0x11, 0x22, 7, 7, 7}, "00:11:22:07:07:07", 0x001122070707}};
    const allocation_refusal refuse{1};
    for (const auto &[text, good, want, formatted, packed] : cases) {
        bytes out = {7, 7, 7, 7, 7, 7};
        char again[19] = "xxxxxxxxxxxxxxxxxx";
        EXPECT_TRUE(mac_to_bytes_network(out.data(), text) == good && out == want) << text;
        EXPECT_TRUE(mac_bytes_to_mac(again, out.data()) == 1 && again == std::string{formatted}) << again;
        EXPECT_EQ(mac_bytes_to_long(out.data()), packed);
    }
    char text[18];
    EXPECT_EQ(mac_to_bytes_network(nullptr, nullptr) + mac_bytes_to_mac(text, nullptr) +
                  mac_bytes_to_mac(nullptr, &std::get<2>(cases[0])[0]),
              0);
    EXPECT_FALSE(refuse.happened());
}

TEST_F(mac, null_counts_as_all_zero)
{
    const bytes zero{}, one{0, 0, 0, 0, 0, 1}, same = one, other{1};
    EXPECT_TRUE(mac_is_null(nullptr) && mac_is_null(zero.data()) && !mac_is_null(one.data()));
    EXPECT_TRUE(mac_equals(nullptr, nullptr) && mac_equals(nullptr, zero.data()) &&
                mac_equals(one.data(), same.data()));
    EXPECT_FALSE(mac_equals(nullptr, one.data()) || mac_equals(one.data(), zero.data()) ||
                 mac_equals(one.data(), other.data()));
}

TEST_F(mac, temporary_is_told_by_its_first_digits)
{
    for (const char *text :
         {"02:11:22:33:44:55", "0e:00:00:00:00:01", "x6xxxxxxxxxxxxxxx", "fa:bb:cc:dd:ee:ff:00", "00-ff:00:00:00:01"})
        EXPECT_EQ(mac_is_temporary(text), 1) << text;
    for (const char *text :
         {"00:11:22:33:44:55", "03:00:00:00:00:00", "0A:11:22:33:44:55", "00:FF:00:00:00:01", "10:ff:00:00:00:01"})
        EXPECT_EQ(mac_is_temporary(text), 0) << text;
    EXPECT_EQ(log(), records{});
    EXPECT_EQ(mac_is_temporary("02:11:22:33:44:5") + mac_is_temporary(nullptr), 2);
    EXPECT_EQ(log(),
              (records{error("Too short mac: 02:11:22:33:44:5", "mac.c"), error("Too short mac: (null)", "mac.c")}));
}

} // namespace
