#include "device_test.hpp"

#include "uciconfig.h"

#include <filesystem>

namespace {

class features : public device_test {};

TEST_F(features, answer_of_the_script_is_a_text_and_a_flag)
{
    const std::string script = "/usr/share/vandrel/vd_features.lua", long_name(120, 'n');
    write_script(script, R"(#!/usr/bin/lua5.4
        local answers = {on = 'true\n', off = 'false\n', upper = 'True', like = 'trueish', limited = 'true but limited'}
        io.write(answers[arg[2]] or arg[1] .. '/' .. arg[2] .. '\n')
        os.exit(arg[2] == 'like' and arg[1] == 'fail' and 3 or 0))");
    const std::string cut = "lock/" + std::string(87, 'n') + "\n"; // the command has 127 characters in all
    const std::tuple<const char *, const char *, int, std::string, int, int> cases[] = {
        // the text's result, the flag's
        {"on", nullptr, 0, "true\n", 0, 1},        {"off", nullptr, 0, "false\n", 0, 0},
        {"upper", "x", 0, "True", 0, 0},           {"limited", "x", 0, "true but limited", 2, 1},
        {"like", "x", 0, "trueish", 0, 1},         {"like", "fail", 1, "trueish", 1, 1},
        {long_name.c_str(), "lock", 0, cut, 2, 0}, {"x", nullptr, 0, "system/x\n", 2, 0},
        {nullptr, "x", -1, "left", -1, 0},         {"none", "x", 1, "", 1, 0}};
    for (const auto &[feature, scope, result, text, flag_result, flag] : cases) {
        if (text.empty())
            std::filesystem::remove(script);
        char answer[200] = "left";
        EXPECT_EQ(config_get_feature_string(answer, sizeof answer, feature, scope), result) << text;
        EXPECT_TRUE(answer == text && log().empty()) << answer;
        EXPECT_EQ(config_get_feature_bool(feature, scope), flag) << text;
        const std::string complaint = "config_get_feature_string() failed with value " + std::to_string(flag_result);
        EXPECT_EQ(log(), flag_result ? records{error(complaint, "uciconfig.c")} : records{});
    }
    EXPECT_EQ(config_get_feature_string(nullptr, 5, "on", nullptr), 8);
    EXPECT_TRUE(config_get_peer_type("vd-vpnclient-0") == 2 && log().empty() && config_get_peer_type(nullptr) == -1);
    EXPECT_EQ(log(), records{error("Missing common name", "uciconfig.c")});
}

} // namespace
