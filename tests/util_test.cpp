#include "device_test.hpp"

#include "util.h"

#include <climits>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <set>

#include <sys/resource.h>
#include <sys/wait.h>

namespace {

class util : public device_test {};

TEST_F(util, texts_are_compared_and_copied)
{
    const auto sign = [](int value) { return (value > 0) - (value < 0); };
    const std::tuple<const char *, const char *, int, int, int> cases[] = {
        {"a", "b", -1, -1, -1},      {"ab", "ac", -1, 0, -1}, {"a", "", 1, 1, 1},    {"ETH0", "eth0", -1, -1, 0},
        {"eth", "eth0", -1, 0, -1},  {"\xE4", "z", 1, 1, 1},  {"_", "A", 1, 1, -1},  {"same", "same", 0, 0, 0},
        {nullptr, nullptr, 0, 0, 0}, {nullptr, "", 1, 1, 0},  {"", nullptr, 1, 1, 0}};
    for (const auto &[a, b, whole, first, either_case] : cases) {
        EXPECT_TRUE(sign(safestrcmp(a, b)) == whole && sign(safestrncmp(a, b, 1)) == first) << a << b;
        EXPECT_TRUE(sign(safememcmp(a, 1, b)) == first && (!a || !b || sign(__stricmp(a, b)) == either_case)) << a << b;
    }
    for (const auto &[size, want] : {std::pair{0U, "xxxxxx"}, {1U, "\0xxxxx"}, {3U, "ab\0xxx"}, {4U, "abc\0xx"}}) {
        char buffer[] = "xxxxxx";
        EXPECT_TRUE(strlcpy(buffer, "abc", size) == 3 && std::memcmp(buffer, want, 6) == 0) << size;
        char *copy = static_cast<char *>(memdup(buffer, 6)), *duplicate = safedup(buffer);
        EXPECT_TRUE(std::memcmp(copy, want, 6) == 0 && std::strcmp(duplicate, want) == 0);
        EXPECT_TRUE(memzero(copy, 2) == copy && copy[1] == '\0' && std::memcmp(copy + 2, want + 2, 4) == 0);
        std::free(copy);
        std::free(duplicate);
    }
    const allocation_refusal refuse{1};
    EXPECT_TRUE(!memdup("a", 1) && !memdup("a", 0) && !memdup(nullptr, 3) && !safedup(nullptr) && !memzero(nullptr, 3));
}

TEST_F(util, numbers_are_whole_and_in_range)
{
    const std::tuple<const char *, int, std::vector<const char *>> cases[] = {
        {nullptr, E2BIG, {"0", "32", " \t+7", "010", "-0"}},
        {"invalid", EINVAL, {"12a", "", "-", " 1 ", "1\n", "0x1", "99999999999999999999x", nullptr}},
        {"too small", ERANGE, {"-1", "-9223372036854775809"}},
        {"too large", ERANGE, {"33", "9223372036854775808"}}};
    const char *fault;
    for (const auto &[want, err, texts] : cases) {
        for (const char *text : texts) {
            errno = E2BIG; // as it was, when the text is good
            EXPECT_EQ(strtonum(text, 0, 32, &fault), want ? 0 : std::atoi(text)) << text;
            EXPECT_TRUE(errno == err && safestrcmp(fault, want) == 0) << text << " " << fault;
        }
    }
    EXPECT_TRUE(strtonum("5", 5, 4, &fault) == 0 && std::string{fault} == "invalid");
    EXPECT_EQ(strtonum("9223372036854775807", LLONG_MIN, LLONG_MAX, nullptr), LLONG_MAX);
    EXPECT_EQ(strtonum("-9223372036854775809", LLONG_MIN, LLONG_MAX, nullptr), 0);
    std::set<int> seen;
    for (int i = 0; i < 1000; ++i)
        seen.insert({random_number(1, 6), random_number(6, 1), random_number(-1, 0), random_number(INT_MAX, INT_MAX)});
    EXPECT_EQ(seen, (std::set{-1, 0, 1, 2, 3, 4, 5, 6, INT_MAX}));
    EXPECT_LT(random_number(INT_MAX, INT_MIN), 0); // INT_MIN and a number up to RAND_MAX
}

TEST_F(util, files_are_looked_at_and_read)
{
    const std::tuple<const char *, int, int, int, const char *> cases[] = {
        {"abc\r\nnext", 8, 1, 3, "abc"}, {"a\n\r\n", 8, 1, 1, "a"},      {"\n", 8, 1, 0, ""},
        {"abcdef", 4, 1, 3, "abc"},      {"abc", 1, 1, 0, ""},           {"a\rb\n", 8, 1, 3, "a\rb"},
        {"", 8, 1, 0, "xxxxxx"},         {"a\r\n", 8, 0, 3, "a\r\nxxx"}, {"abcdef", 4, 0, 4, "abcdxx"},
        {"abc", 8, 2, 0, "xxxxxx"},      {"abc", 0, 1, 0, "xxxxxx"},     {"abc", -1, 0, 0, "xxxxxx"}};
    char buffer[8], *block = nullptr;
    for (const auto &[content, size, mode, want, left] : cases) {
        write_file("/tmp/file", content);
        strlcpy(buffer, "xxxxxx", sizeof buffer);
        EXPECT_EQ(file_read("/tmp/file", buffer, size, mode), want) << content << mode;
        EXPECT_STREQ(buffer, left) << content << mode;
    }
    for (const size_t size : {200000000, 3, 0}) {
        std::filesystem::resize_file("/tmp/file", size);
        EXPECT_EQ(file_read_all(&block, "/tmp/file"), size);
        EXPECT_TRUE(block && std::memcmp(block, "abc", size ? 3 : 0) == 0);
        std::free(std::exchange(block, nullptr));
    }
    EXPECT_TRUE(file_exists("/tmp") && std::labs(file_get_mtime("/tmp/file") - std::time(nullptr)) <= 1);
    std::filesystem::resize_file("/tmp/file", 200000001);
    std::filesystem::create_symlink("/tmp/none", "/tmp/dangling");
    testing::internal::CaptureStderr();
    const int descriptors = open_descriptors();
    for (const char *path : {"/tmp/none", "/tmp/dangling", "/dev/null/x", static_cast<const char *>(nullptr)})
        EXPECT_TRUE(!file_exists(path) && file_get_mtime(path) == -1 && file_read_all(&block, path) == -1) << path;
    for (const char *path : {"/tmp", "/sys/class/net/lo/mtu", "/tmp/file"}) // mtu is shorter than it says
        EXPECT_EQ(file_read_all(&block, path), -1) << path;
    const allocation_refusal refuse{1};
    EXPECT_EQ(file_read_all(&block, "/etc/passwd") + file_read_all(nullptr, "/etc/passwd"), -2);
    EXPECT_TRUE(!block && open_descriptors() == descriptors && testing::internal::GetCapturedStderr().empty());
    for (const char *path : {"/tmp", "/proc/self/mem", "/tmp/none"}) // the first two open, but cannot be read
        EXPECT_EQ(file_read(path, buffer, 8, 0) + file_read(path, buffer, 8, 1), 0) << path;
    EXPECT_EQ(log(), records(2, warning("Couldn't open file /tmp/none", "util.c")));
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
        {"printf ab; exec >&-; exit 0", 8, 0, "ab"}, {"yes", 3, 3, "y\n"},    {"exit 3", 8, 1, ""},
        {"printf ab; kill -KILL $$", 8, 1, "ab"},    {"echo hi", 1, 2, ""},   {nullptr, 4, 4, ""}};
    const int descriptors = open_descriptors();
    std::string buffer;
    for (const auto handling : {SIG_DFL, SIG_IGN}) {
        std::signal(SIGPIPE, handling);
        for (const auto &[command, size, want, output] : cases) {
            buffer.assign(size, 'x');
            EXPECT_EQ(vd_run_command_simple(command, buffer.data(), size), want) << command << size;
            EXPECT_STREQ(buffer.c_str(), output) << command << size;
        }
        EXPECT_EQ(vd_run_command_simple("while :; do echo hi; done", nullptr, 0), 1);
        EXPECT_EQ(std::signal(SIGPIPE, handling), handling);
    }
    buffer.assign(3000001, 'x');
    EXPECT_EQ(vd_run_command_simple("yes | head -c 3000000", buffer.data(), buffer.size()), 0);
    EXPECT_TRUE(std::strlen(buffer.data()) == 3000000 && open_descriptors() == descriptors);
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1); // no child is left
    EXPECT_EQ(vd_run_command_simple("exit 0", buffer.data(), 0) + vd_run_command_simple(nullptr, buffer.data(), 0), 4);
    EXPECT_EQ(vd_run_command_simple("echo >/tmp/ran", nullptr, 1) + vd_run_command_simple(nullptr, nullptr, 1), 12);
    const rlimit none{0, 1024}, enough{1024, 1024};
    setrlimit(RLIMIT_NOFILE, &none);
    EXPECT_EQ(vd_run_command_simple("echo >/tmp/ran", nullptr, 0), 16);
    setrlimit(RLIMIT_NOFILE, &enough);
    EXPECT_TRUE(buffer[0] == 'y' && !file_exists("/tmp/ran"));
    timespec now{};
    clock_gettime(CLOCK_BOOTTIME, &now);
    EXPECT_TRUE(std::labs(get_uptime() - now.tv_sec) <= 1 && get_uptime_seconds() == -1);
}

TEST_F(util, common_names_are_found_told_apart_and_translated)
{
    const std::pair<const char *, int> types[] = {
        {"token-1A2B", 0}, {"vd-vpnserver-0", 1}, {"vd-vpnclient-0", 2}, {"token", -1},    {"vd-vpnserver", -1},
        {"", -1},          {"vd-vpnclientX", -1}, {"Token-1", -1},       {" token-1", -1}, {nullptr, -1}};
    for (const auto &[name, want] : types)
        EXPECT_EQ(vpn_type_get_by_common_name(name), want) << name;
    char name[28];
    for (const auto &[path, want] : {std::pair{"/a.b/vd-vpnclient-1.json", "vd-vpnclient-1"},
                                     {"noext", "noext"},
                                     {"d/", ""},
                                     {"0123456789012345678901234567", "01234567890123456789012345"}}) {
        std::memset(name, 'x', sizeof name);
        EXPECT_EQ(extract_cn_from_path(path, name), 0);
        EXPECT_EQ(std::string(name, 28), want + std::string(27 - std::strlen(want), '\0') + 'x') << path;
    }
    EXPECT_TRUE(log().empty() && extract_cn_from_path(nullptr, name) == -1 && name[0] == '\0');
    EXPECT_EQ(log(), records{error("basename is null", "util.c")});
    const std::tuple<const char *, int, const char *> cases[] = {
        {"vd-vpnclient-1", 1, "vd-vpnserver-1"}, {"tokenXYZ", 1, "tokenXYZ"},
        {"vd-vpnclient-1", 2, "vd-vpnclient-1"}, {"", 1, "Invalid common name "},
        {"vd-vpnserverX", 2, "vd-vpnclientX"},   {nullptr, 0, "Missing arguments"},
        {"token-", 3, "Invalid output_type 3"},  {"no", 0, "Invalid output_type 0"}};
    for (const auto &[common_name, type, want] : cases) {
        strlcpy(name, "untouched", sizeof name);
        const bool translated = translate_common_name(name, common_name, type) == 1;
        EXPECT_STREQ(name, translated ? want : "untouched") << type;
        EXPECT_EQ(log(), translated ? records{} : records{warning(want, "util.c")});
    }
    EXPECT_TRUE(parse_ip("10.1") == 0x0A000001 && parse_ip_free(strdup("10.2")) == 0x0A000002);
    EXPECT_EQ(log().front(), warning("parse_ip() is obsolete", "util.c"));
}

} // namespace
