#include "device_test.hpp"

#include "mac.h"

namespace {

class mac : public device_test {};

TEST_F(mac, forms_are_converted)
{
    const std::tuple<const char *, int, const char *, uint64_t> cases[] = {
        {"00:11:22:33:44:5f", 1, "00:11:22:33:44:5f", 0x00112233445F},
        {"FF:EE:dD:CC:BB:AA", 1, "ff:ee:dd:cc:bb:aa", 0xFFEEDDCCBBAA},
        {nullptr, 1, "00:00:00:00:00:00", 0},
        {"00:11:22:33:44:5", 0, "07:07:07:07:07:07", 0x070707070707},
        {"00:11:22-33:44:55", 0, "00:11:22:07:07:07", 0x001122070707}};
    const allocation_refusal refuse{1};
    for (const auto &[text, good, formatted, packed] : cases) {
        uint8_t out[] = {7, 7, 7, 7, 7, 7};
        char again[18] = "xxxxxxxxxxxxxxxxx";
        EXPECT_TRUE(mac_to_bytes_network(out, text) == good && mac_bytes_to_mac(again, out) == 1) << text;
        EXPECT_TRUE(again == std::string{formatted} && mac_bytes_to_long(out) == packed) << again;
        EXPECT_TRUE(mac_is_null(out) == !packed && mac_equals(out, nullptr) == !packed && mac_equals(out, out))
            << again;
        const uint8_t other[] = {out[0], out[1], out[2], out[3], out[4], static_cast<uint8_t>(out[5] ^ 1)};
        EXPECT_TRUE(!mac_equals(out, other) && !mac_bytes_to_mac(nullptr, out) && !mac_bytes_to_mac(again, nullptr));
    }
    EXPECT_TRUE(mac_is_null(nullptr) && mac_equals(nullptr, nullptr) && !mac_to_bytes_network(nullptr, nullptr));
    EXPECT_FALSE(refuse.happened());
}

TEST_F(mac, temporary_is_told_by_its_first_digits)
{
    for (const char *text :
         {"02:11:22:33:44:55", "0e:00:00:00:00:01", "x6xxxxxxxxxxxxxxxxx", "fa:bb:cc:dd:ee:ff", "00-ff:00:00:00:01"})
        EXPECT_EQ(mac_is_temporary(text), 1) << text;
    for (const char *text : {"00:11:22:33:44:55", "03:00:00:00:00:00", "0A:11:22:33:44:55", "00:FF:00:00:00:01"})
        EXPECT_EQ(mac_is_temporary(text), 0) << text;
    EXPECT_TRUE(log().empty() && mac_is_temporary("02:11:22:33:44:5") == 1 && mac_is_temporary(nullptr) == 1);
    EXPECT_EQ(log(),
              (records{error("Too short mac: 02:11:22:33:44:5", "mac.c"), error("Too short mac: (null)", "mac.c")}));
}

} // namespace
