#include "device_test.hpp"

#include "util.h"

#include <climits>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <set>

#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

class util : public device_test {};

TEST_F(util, texts_are_compared_and_copied)
{
    const auto sign = [](int value) { return (value > 0) - (value < 0); };
    const std::tuple<const char *, const char *, int, int, int> cases[] = {
        {"ab", "ac", -1, 0, -1},     {"ETH0", "eth0", -1, -1, 0}, {"\xE4", "z", 1, 1, 106}, {"_", "A", 1, 1, -2},
        {nullptr, nullptr, 0, 0, 0}, {nullptr, "", 1, 1, 0},      {"", nullptr, 1, 1, 0}};
    for (const auto &[a, b, whole, first, either_case] : cases) {
        EXPECT_TRUE(sign(safestrcmp(a, b)) == whole && sign(safestrncmp(a, b, 1)) == first) << a << b;
        EXPECT_TRUE(sign(safememcmp(a, 1, b)) == first && (!a || !b || __stricmp(a, b) == either_case)) << a << b;
        EXPECT_TRUE(safestrncmp(a, b, 0) == (!a != !b) && safememcmp(a, 0, b) == (!a != !b)) << a << b;
    }
    for (const auto &[size, want] : {std::pair{0U, "xxxxxx"}, {1U, "\0xxxxx"}, {3U, "ab\0xxx"}, {4U, "abc\0xx"}}) {
        char buffer[] = "xxxxxx";
        EXPECT_TRUE(strlcpy(buffer, "abc", size) == 3 && std::memcmp(buffer, want, 6) == 0) << size;
    }
    char *copy = static_cast<char *>(memdup("a\0b", 3));
    EXPECT_TRUE(std::memcmp(copy, "a\0b", 3) == 0 && memzero(copy, 2) == copy && copy[0] == '\0' && copy[2] == 'b');
    std::free(copy);
    const allocation_refusal refuse{1};
    EXPECT_TRUE(!memdup("a", 1) && !memdup("a", 0) && !memdup(nullptr, 3) && !safedup(nullptr) && !memzero(nullptr, 3));
}

TEST_F(util, numbers_are_whole_and_in_range)
{
    const std::tuple<const char *, int, std::vector<const char *>> cases[] = {
        {nullptr, E2BIG, {"0", "32", " \t+7", "010", "-0"}},
        {"invalid", EINVAL, {"12a", "", " 1 ", "1\n", "0x1", "99999999999999999999x", nullptr}},
        {"too small", ERANGE, {"-1", "-9223372036854775809"}},
        {"too large", ERANGE, {"33", "9223372036854775808"}}};
    for (const auto &[want, err, texts] : cases) {
        for (const char *text : texts) {
            const char *fault = "left";
            errno = E2BIG; // as it was, when the text is good
            EXPECT_EQ(strtonum(text, 0, 32, &fault), want ? 0 : std::atoi(text)) << text;
            EXPECT_TRUE(errno == err && safestrcmp(fault, want) == 0) << text;
        }
    }
    EXPECT_TRUE(strtonum("5", 5, 4, nullptr) == 0 && errno == EINVAL);
    EXPECT_EQ(strtonum("-9223372036854775808", LLONG_MIN, LLONG_MAX, nullptr), LLONG_MIN);
    EXPECT_EQ(strtonum("-9223372036854775809", LLONG_MIN, LLONG_MAX, nullptr), 0);
    std::set<int> seen;
    for (int i = 0; i < 1000; ++i)
        seen.insert({random_number(1, 6), random_number(6, 1), random_number(-1, 0), random_number(INT_MAX, INT_MAX)});
    EXPECT_TRUE(seen == (std::set{-1, 0, 1, 2, 3, 4, 5, 6, INT_MAX}) && random_number(INT_MAX, INT_MIN) < 0);
}

TEST_F(util, files_are_looked_at_and_read)
{
    const std::tuple<const char *, int, int, int, const char *> cases[] = {
        {"abc\r\nnext", 8, 1, 3, "abc"}, {"a\n\r\n", 8, 1, 1, "a"},     {"abcdef", 4, 1, 3, "abc"},
        {"", 8, 1, 0, "xxxxxx"},         {"abcdef", 4, 0, 4, "abcdxx"}, {"a\r\n", 8, 0, 3, "a\r\nxxx"},
        {"abc", -1, 0, 0, "xxxxxx"}};
    char buffer[8], *block = nullptr;
    for (const auto &[content, size, mode, want, left] : cases) {
        write_file("/tmp/file", content);
        strlcpy(buffer, "xxxxxx", sizeof buffer);
        EXPECT_TRUE(file_read("/tmp/file", buffer, size, mode) == want && std::strcmp(buffer, left) == 0) << content;
    }
    for (const int size : {200000000, 3, 0}) {
        EXPECT_EQ(truncate("/tmp/file", size), 0);
        EXPECT_EQ(file_read_all(&block, "/tmp/file"), size);
        EXPECT_EQ(std::string(block, size ? 3 : 0), size ? "abc" : "");
        std::free(std::exchange(block, nullptr));
    }
    EXPECT_TRUE(file_exists("/tmp") && std::labs(file_get_mtime("/tmp/file") - std::time(nullptr)) <= 1);
    std::filesystem::resize_file("/tmp/file", 200000001);
    EXPECT_TRUE(!file_exists("/tmp/none") && file_get_mtime("/tmp/none") == -1 &&
                !file_read("/tmp/none", buffer, 8, 2));
    EXPECT_EQ(log(), records{warning("Couldn't open file /tmp/none", "util.c")});
    const int descriptors = open_descriptors();
    for (const char *path : {"/tmp", "/proc", "/sys/class/net/lo/mtu", "/tmp/file", "/tmp/none"})
        EXPECT_TRUE(file_read_all(&block, path) == -1 && !block) << path; // mtu is shorter than it says
    const allocation_refusal refuse{1};
    EXPECT_TRUE(file_read_all(&block, "/etc/passwd") == -1 && file_read("/tmp", buffer, 8, 0) == 0 && log().empty());
    EXPECT_EQ(open_descriptors(), descriptors);
}

TEST_F(util, directories_are_made_with_those_above)
{
    const auto mode = [](const auto &path) { return static_cast<int>(std::filesystem::status(path).permissions()); };
    std::filesystem::current_path("/tmp");
    umask(027);
    const std::string longest = std::string(127, 'd') + '/' + std::string(127, 'd'), too_long = longest + 'd';
    for (const char *path : {"a/b/c/", "/tmp/x", "a//e", longest.c_str()})
        EXPECT_TRUE(mkdir_recursive(path, 0777) == 1 && mode(path) == 0750) << path;
    EXPECT_EQ(mkdir_recursive("", 0777) + mkdir_recursive(too_long.c_str(), 0777) + mkdir_recursive(nullptr, 0), 0);
    EXPECT_EQ(mkdir_recursive("/", 0777) + mkdir_recursive("/proc/x", 0777) + ensure_dir_exists("a", 0777), 3);
    EXPECT_TRUE(ensure_dir_exists("y/z", 0775) == 0 && mode("y") == 0775 && mode("y/z") == 0775 && umask(0) == 027);
}

TEST_F(util, command_gives_its_output_and_its_end)
{
    const std::tuple<const char *, size_t, int, const char *> cases[] = {
        {"while :; do echo hi; done", 4, 3, "hi\n"}, {"echo hi", 3, 2, "hi"}, {"echo hi", 4, 0, "hi\n"},
        {"printf ab; exec >&-; exit 0", 8, 0, "ab"}, {"echo hi", 1, 2, ""},   {"exit 3", 8, 1, ""},
        {"printf ab; kill -KILL $$", 8, 1, "ab"},    {nullptr, 4, 4, ""},     {"", 4, 0, ""}};
    const int descriptors = open_descriptors();
    std::string buffer(3000001, 'x');
    EXPECT_EQ(vd_run_command_simple("yes | head -c 3000000", buffer.data(), 3000001), 0);
    EXPECT_EQ(std::strlen(buffer.data()), 3000000U);
    sigset_t signals;
    sigfillset(&signals);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr); // a command gets neither this nor how the caller handles SIGPIPE
    for (const auto &handling : {SIG_DFL, SIG_IGN}) {
        std::signal(SIGPIPE, handling);
        for (const auto &[command, size, want, output] : cases) {
            buffer.assign(size, 'x');
            EXPECT_EQ(vd_run_command_simple(command, buffer.data(), size), want) << command << size;
            EXPECT_STREQ(buffer.c_str(), output) << command << size;
        }
        EXPECT_EQ(vd_run_command_simple("while :; do echo hi; done", nullptr, 0), 1);
        EXPECT_EQ(std::signal(SIGPIPE, handling), handling);
    }
    EXPECT_TRUE(waitpid(-1, nullptr, WNOHANG) == -1 && open_descriptors() == descriptors);
    EXPECT_TRUE(vd_run_command_simple("exit 0", buffer.data(), 0) == 0 && vd_run_command_simple("", nullptr, 1) == 8);
    const rlimit none{0, 1024}, enough{1024, 1024};
    setrlimit(RLIMIT_NOFILE, &none);
    EXPECT_EQ(vd_run_command_simple("exit 0", nullptr, 0), 16);
    setrlimit(RLIMIT_NOFILE, &enough);
    EXPECT_TRUE(std::labs(get_uptime() - std::stol(read_file("/proc/uptime"))) <= 1 && get_uptime_seconds() == -1);
}

TEST_F(util, signals_cut_nothing_of_an_output)
{
    const interruptions while_it_runs;
    char output[8] = "";
    EXPECT_EQ(vd_run_command_simple("printf tr; sleep 0.1; printf ue", output, sizeof output), 0);
    EXPECT_STREQ(output, "true");
}

TEST_F(util, common_names_are_found_told_apart_and_translated)
{
    for (const char *name : {"token", "Token-1", "vd-vpnclientX", static_cast<const char *>(nullptr)})
        EXPECT_EQ(vpn_type_get_by_common_name(name), PEER_TYPE_UNKNOWN) << name;
    EXPECT_EQ(vpn_type_get_by_common_name("token-1A2B"), PEER_TYPE_TOKEN);
    EXPECT_EQ(vpn_type_get_by_common_name("vd-vpnserver-0") + 3 * vpn_type_get_by_common_name("vd-vpnclient-0"), 7);
    char name[28] = "xxxxxxxxxxxxxxxxxxxxxxxxxxx";
    const std::string digits = "012345678901234567890123456789";
    EXPECT_TRUE(extract_cn_from_path(("/a.b/" + digits).c_str(), name) == 0 && name == digits.substr(0, 26));
    EXPECT_TRUE(extract_cn_from_path("token-1.2.json", name) == 0 && std::memcmp(name, "token-1\0", 8) == 0);
    EXPECT_TRUE(extract_cn_from_path("dir/", name) == 0 && !*name && extract_cn_from_path(nullptr, name) == -1);
    EXPECT_EQ(log(), records{error("basename is null", "util.c")});
    const std::tuple<const char *, int, const char *> cases[] = {
        {"vd-vpnclient-1", 1, "vd-vpnserver-1"}, {"vd-vpnserverX", 2, "vd-vpnclientX"},
        {"vd-vpnclient-1", 2, "vd-vpnclient-1"}, {"tokenXYZ", 1, "tokenXYZ"},
        {"", 1, "Invalid common name "},         {nullptr, 0, "Missing arguments"},
        {"token-", 3, "Invalid output_type 3"},  {"no", 0, "Invalid output_type 0"}};
    for (const auto &[common_name, type, want] : cases) {
        strlcpy(name, "untouched", sizeof name);
        const bool translated = translate_common_name(name, common_name, type) == 1;
        EXPECT_STREQ(name, translated ? want : "untouched") << type;
        EXPECT_EQ(log(), translated ? records{} : records{warning(want, "util.c")});
    }
    EXPECT_TRUE(parse_ip("10.1") == 0x0A000001 && parse_ip_free(strdup("10.2")) == 0x0A000002 && log().size() == 2);
}

} // namespace
