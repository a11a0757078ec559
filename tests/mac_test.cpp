#include "device_test.hpp"

#include "mac.h"

namespace {

class mac : public device_test {};

TEST_F(mac, forms_are_converted)
{
    const std::tuple<const char *, int, std::string, uint64_t> cases[] = {
        {"00:11:22:33:44:5F", 1, "00:11:22:33:44:5f", 0x00112233445F},
        {"00:11:22-33:44:55", 0, "00:11:22:07:07:07", 0x001122070707},
        {"00:11:22:33:44:5", 0, "07:07:07:07:07:07", 0x070707070707},
        {nullptr, 1, "00:00:00:00:00:00", 0}};
    for (const auto &[text, good, formatted, packed] : cases) {
        uint8_t out[] = {7, 7, 7, 7, 7, 7};
        const uint8_t other[] = {0, 0, 0, 0, 0, 1};
        char again[18] = "xxxxxxxxxxxxxxxxx";
        EXPECT_TRUE(mac_to_bytes_network(out, text) == good && mac_bytes_to_mac(again, out) == 1) << text;
        EXPECT_TRUE(again == formatted && mac_bytes_to_long(out) == packed) << again;
        EXPECT_TRUE(mac_is_null(out) == !packed && mac_equals(out, nullptr) == !packed && mac_equals(out, out) &&
                    !mac_equals(out, other))
            << again;
    }
    EXPECT_TRUE(mac_is_null(nullptr) && !mac_to_bytes_network(nullptr, nullptr) && !mac_bytes_to_mac(nullptr, nullptr));
}

TEST_F(mac, temporary_is_told_by_its_first_digits)
{
    for (const char *text : {"02:11:22:33:44:55", "0e:00:00:00:00:01", "x6xxxxxxxxxxxxxxxxx", "00-ff:00:00:00:01"})
        EXPECT_EQ(mac_is_temporary(text), 1) << text;
    for (const char *text : {"03:00:00:00:00:00", "0A:11:22:33:44:55", "00:FF:00:00:00:01", "00:f0:00:00:00:01"})
        EXPECT_EQ(mac_is_temporary(text), 0) << text;
    EXPECT_TRUE(log().empty() && mac_is_temporary(nullptr) == 1 && mac_is_temporary("00:11:22:33:44:5") == 1);
    EXPECT_EQ(log().back(), error("Too short mac: 00:11:22:33:44:5", "mac.c"));
}

} // namespace
