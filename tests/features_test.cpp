#include "device_test.hpp"

#include "uciconfig.h"

namespace {

class features : public device_test {};

constexpr char script[] = "/usr/share/vandrel/vd_features.lua";

TEST_F(features, answer_of_the_script_is_a_text_and_a_flag)
{
    const std::tuple<const char *, int, const char *, int, int> cases[] = {
        // text result and text, flag result and flag
        {"echo true", 0, "true\n", 0, 1},
        {"echo false", 0, "false\n", 0, 0},
        {"echo True", 0, "True\n", 0, 0},
        {"echo true but limited", 2, "true but limite", 2, 1},
        {"echo true; exit 1", 1, "true\n", 1, 1},
        {"echo trueish; kill $$", 1, "trueish\n", 3, 1},
        {"", 0, "", 0, 0}};
    for (const auto &[body, result, text, flag_result, flag] : cases) {
        char answer[16];
        write_script(script, std::string{"#!/bin/sh\n"} + body);
        EXPECT_EQ(config_get_feature_string(answer, sizeof answer, "wifi", nullptr), result) << body;
        EXPECT_STREQ(answer, text);
        EXPECT_EQ(log(), records{});
        EXPECT_EQ(config_get_feature_bool("wifi", "lock"), flag) << body;
        EXPECT_EQ(log(),
                  flag_result
                      ? records{error("config_get_feature_string() failed with value " + std::to_string(flag_result),
                                      "uciconfig.c")}
                      : records{});
    }
}

TEST_F(features, script_is_asked_for_scope_and_feature)
{
    write_script(script, "#!/usr/bin/lua5.4\nio.write(arg[1], '/', arg[2], '/', #arg)");
    char answer[200] = "left";
    EXPECT_EQ(config_get_feature_string(answer, sizeof answer, nullptr, "lock"), -1);
    EXPECT_STREQ(answer, "left");
    const std::tuple<const char *, std::string, std::string> cases[] = {
        {nullptr, "wifi", "system/wifi/2"},
        {"lock", "vpn", "lock/vpn/2"},
        {"lock", std::string(200, 'f'), "lock/" + std::string(87, 'f') + "/2"}}; // 127 characters in all
    for (const auto &[scope, feature, want] : cases) {
        EXPECT_EQ(config_get_feature_string(answer, sizeof answer, feature.c_str(), scope), 0);
        EXPECT_EQ(answer, want);
    }
    EXPECT_EQ(config_get_feature_string(nullptr, 5, "wifi", nullptr), 8);
    EXPECT_TRUE(log().empty() && config_get_feature_bool(nullptr, nullptr) == 0);
    EXPECT_EQ(log(), records{error("config_get_feature_string() failed with value -1", "uciconfig.c")});
}

TEST_F(features, peer_type_of_no_name_is_an_error)
{
    EXPECT_EQ(config_get_peer_type("vd-vpnclient-0") - config_get_peer_type("vd-vpnserver"), 3);
    EXPECT_TRUE(log().empty() && config_get_peer_type(nullptr) == -1);
    EXPECT_EQ(log(), records{error("Missing common name", "uciconfig.c")});
}

} // namespace
