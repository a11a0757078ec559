#include "device_test.hpp"

#include "uciconfig.h"

namespace {

constexpr char script[] = "/usr/share/vandrel/vd_features.lua";

class features : public device_test {
protected:
    features()
    {
        write_script(script, R"(#!/usr/bin/lua5.4
            local answers = {on = 'true\n', off = 'false\n', upper = 'True', like = 'trueish', near = 'trust',
                             limited = 'true but limited'}
            io.write(answers[arg[2]] or arg[1] .. '/' .. arg[2] .. '\n')
            os.exit(arg[2] == 'like' and arg[1] == 'fail' and 3 or 0))");
    }

    /// What is logged about an answer with this result.
    static records complaint(int result)
    {
        if (result == 0)
            return {};
        return {error("config_get_feature_string() failed with value " + std::to_string(result), "uciconfig.c")};
    }
};

TEST_F(features, answer_of_the_script_is_a_text)
{
    const std::string long_name(120, 'n');
    const std::string cut = "lock/" + std::string(87, 'n') + "\n"; // the command has 127 characters in all
    const struct {
        const char *feature, *scope;
        int want;
        std::string text;
    } cases[] = {{"on", nullptr, 0, "true\n"},   {"x", nullptr, 0, "system/x\n"},     {"x", "lock", 0, "lock/x\n"},
                 {"like", "fail", 1, "trueish"}, {long_name.c_str(), "lock", 0, cut}, {nullptr, "x", -1, "left"}};
    for (const auto &[feature, scope, want, text] : cases) {
        char answer[200] = "left";
        EXPECT_EQ(config_get_feature_string(answer, sizeof answer, feature, scope), want) << text;
        EXPECT_EQ(answer, text);
    }
    char answer[] = "left####";
    EXPECT_EQ(config_get_feature_string(answer, 5, "on", nullptr), 2); // as the command's output has it
    EXPECT_STREQ(answer, "true");
    EXPECT_EQ(config_get_feature_string(nullptr, 5, "on", nullptr), 8);
    EXPECT_EQ(log(), records{});
}

TEST_F(features, answer_of_the_script_is_a_flag)
{
    const struct {
        const char *feature, *scope;
        int result, want; // of the text, and of the flag
    } cases[] = {{"on", nullptr, 0, 1},  {"off", nullptr, 0, 0}, {"upper", "x", 0, 0},
                 {"limited", "x", 2, 1}, {"like", "x", 0, 1},    {"like", "fail", 1, 1},
                 {"x", nullptr, 2, 0},   {nullptr, "x", -1, 0},  {"near", "x", 0, 0}};
    for (const auto &[feature, scope, result, want] : cases) {
        EXPECT_EQ(config_get_feature_bool(feature, scope), want) << (feature ? feature : "null");
        EXPECT_EQ(log(), complaint(result)) << (feature ? feature : "null");
    }
}

TEST_F(features, peer_type_of_a_name)
{
    EXPECT_EQ(config_get_peer_type("vd-vpnclient-0"), 2);
    EXPECT_EQ(config_get_peer_type("somebody"), -1);
    EXPECT_EQ(log(), records{});
    EXPECT_EQ(config_get_peer_type(nullptr), -1);
    EXPECT_EQ(log(), records{error("Missing common name", "uciconfig.c")});
}

} // namespace
