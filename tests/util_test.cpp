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

TEST_F(util, comparisons_order_texts_and_take_null)
{
    const auto sign = [](int value) { return (value > 0) - (value < 0); };
    const std::tuple<const char *, const char *, int, int, int> cases[] = {
        {"a", "b", -1, -1, -1},      {"ab", "ac", -1, 0, -1}, {"a", "", 1, 1, 1},    {"ETH0", "eth0", -1, -1, 0},
        {"eth", "eth0", -1, 0, -1},  {"\xE4", "z", 1, 1, 1},  {"_", "A", 1, 1, -1},  {"same", "same", 0, 0, 0},
        {nullptr, nullptr, 0, 0, 0}, {nullptr, "", 1, 1, 0},  {"", nullptr, 1, 1, 0}};
    for (const auto &[a, b, whole, first, either_case] : cases) {
        EXPECT_EQ(sign(safestrcmp(a, b)), whole) << a;
        EXPECT_TRUE(sign(safestrncmp(a, b, 1)) == first && sign(safememcmp(a, 1, b)) == first) << a;
        EXPECT_TRUE(!a || !b || sign(__stricmp(a, b)) == either_case) << a;
    }
}

TEST_F(util, copies_are_whole_cut_or_null)
{
    for (const auto &[size, want] : {std::pair{0U, "xxxxxx"}, {1U, "\0xxxxx"}, {3U, "ab\0xxx"}, {4U, "abc\0xx"}}) {
        char buffer[] = "xxxxxx";
        EXPECT_TRUE(strlcpy(buffer, "abc", size) == 3 && std::memcmp(buffer, want, 6) == 0) << size;
        char *copy = static_cast<char *>(memdup(buffer, 6)), *duplicate = safedup("text");
        EXPECT_TRUE(std::memcmp(copy, want, 6) == 0 && std::strcmp(duplicate, "text") == 0);
        EXPECT_TRUE(memzero(copy, 2) == copy && copy[1] == '\0' && std::memcmp(copy + 2, want + 2, 4) == 0);
        std::free(copy);
        std::free(duplicate);
    }
    const allocation_refusal refuse{1};
    EXPECT_TRUE(!memdup("a", 1) && !memdup("a", 0) && !memdup(nullptr, 3) && !safedup(nullptr) && !memzero(nullptr, 3));
}

TEST_F(util, strtonum_takes_only_whole_numbers_in_range)
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
    EXPECT_EQ(strtonum("-9223372036854775808", LLONG_MIN, LLONG_MAX, nullptr), LLONG_MIN);
    EXPECT_EQ(strtonum("-9223372036854775809", LLONG_MIN, LLONG_MAX, nullptr), 0);
}

TEST_F(util, random_number_covers_any_range)
{
    std::set<int> seen;
    for (int i = 0; i < 1000; ++i)
        seen.insert({random_number(1, 6), random_number(6, 1), random_number(3, 3), random_number(-1, 0)});
    EXPECT_EQ(seen, (std::set{-1, 0, 1, 2, 3, 4, 5, 6}));
    std::srand(1);
    const int drawn = std::rand();
    std::srand(1);
    EXPECT_EQ(random_number(INT_MAX, INT_MIN), INT_MIN + drawn);
}

TEST_F(util, file_is_there_with_its_time_or_not)
{
    std::filesystem::create_symlink("/tmp/none", "/tmp/dangling");
    EXPECT_TRUE(file_exists("/tmp") && std::labs(file_get_mtime("/tmp") - std::time(nullptr)) <= 1);
    testing::internal::CaptureStderr();
    for (const char *path : {"", "/tmp/none", "/tmp/dangling", "/dev/null/x", static_cast<const char *>(nullptr)})
        EXPECT_TRUE(!file_exists(path) && file_get_mtime(path) == -1) << path;
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST_F(util, file_read_takes_bytes_or_the_first_line)
{
    const std::tuple<const char *, int, int, int, const char *> cases[] = {
        {"abc\r\nnext", 8, 1, 3, "abc"}, {"a\n\r\n", 8, 1, 1, "a"},      {"\n", 8, 1, 0, ""},
        {"abcdef", 4, 1, 3, "abc"},      {"abc", 1, 1, 0, ""},           {"a\rb\n", 8, 1, 3, "a\rb"},
        {"", 8, 1, 0, "xxxxxx"},         {"a\r\n", 8, 0, 3, "a\r\nxxx"}, {"abcdef", 4, 0, 4, "abcdxx"},
        {"abc", 8, 2, 0, "xxxxxx"},      {"abc", 0, 1, 0, "xxxxxx"},     {"abc", -1, 0, 0, "xxxxxx"}};
    char buffer[8];
    for (const auto &[content, size, mode, want, left] : cases) {
        write_file("/tmp/file", content);
        strlcpy(buffer, "xxxxxx", sizeof buffer);
        EXPECT_EQ(file_read("/tmp/file", buffer, size, mode), want) << content << mode;
        EXPECT_STREQ(buffer, left) << content << mode;
    }
    for (const char *path : {"/tmp", "/proc/self/mem", "/tmp/none"}) // the first two open, but cannot be read
        EXPECT_EQ(file_read(path, buffer, 8, 0) + file_read(path, buffer, 8, 1), 0) << path;
    EXPECT_EQ(log(), records(2, warning("Couldn't open file /tmp/none", "util.c")));
}

TEST_F(util, file_read_all_gives_the_whole_file_or_nothing)
{
    char *block = nullptr;
    for (const size_t size : {0, 5, 200000000}) {
        write_file("/tmp/file", {"01\0\n\r", 5});
        std::filesystem::resize_file("/tmp/file", size);
        EXPECT_EQ(file_read_all(&block, "/tmp/file"), size);
        EXPECT_EQ(std::memcmp(block, "01\0\n\r", size ? 5 : 0), 0);
        std::free(std::exchange(block, nullptr));
    }
    std::filesystem::resize_file("/tmp/file", 200000001);
    const int descriptors = open_descriptors();
    for (const char *path : {"/tmp/none", "/tmp", "/tmp/file", "/sys/class/net/lo/mtu"})
        EXPECT_EQ(file_read_all(&block, path), -1) << path; // mtu ends before the size that it tells
    const allocation_refusal refuse{1};
    EXPECT_EQ(file_read_all(&block, "/etc/passwd") + file_read_all(nullptr, "/") + file_read_all(&block, nullptr), -3);
    EXPECT_TRUE(refuse.happened() && !block && open_descriptors() == descriptors && log().empty());
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
    EXPECT_EQ(mkdir_recursive("/", 0777) + mkdir_recursive("a/b", 0777) + mkdir_recursive("/proc/x", 0777), 3);
    EXPECT_TRUE(ensure_dir_exists("a", 0777) == 1 && ensure_dir_exists("/dev/null", 0777) == 1 && mode("a") == 0750);
    EXPECT_TRUE(ensure_dir_exists("y/z", 0775) == 0 && mode("y") == 0775 && mode("y/z") == 0775 && umask(0) == 027);
}

TEST_F(util, command_gives_its_output_and_its_end)
{
    const std::tuple<const char *, size_t, int, const char *> cases[] = {
        {"while :; do echo hi; done", 4, 3, "hi\n"}, {"echo hi", 3, 2, "hi"}, {"echo hi", 4, 0, "hi\n"},
        {"printf ab; kill -KILL $$", 8, 1, "ab"},    {"echo hi", 1, 2, ""},   {"exit 3", 8, 1, ""},
        {"printf ab; exec >&-; exit 0", 8, 0, "ab"}, {"yes", 3, 3, "y\n"},    {nullptr, 4, 4, ""}};
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
}

TEST_F(util, uptime_is_the_kernels_and_obsolete_names_warn)
{
    timespec now{};
    clock_gettime(CLOCK_BOOTTIME, &now);
    EXPECT_TRUE(std::labs(get_uptime() - now.tv_sec) <= 1 && get_uptime_seconds() == -1);
    EXPECT_TRUE(parse_ip("10.1") == 0x0A000001 && parse_ip_free(strdup("10.2")) == 0x0A000002);
    const char *const texts[] = {"parse_ip() is obsolete", "parse_ip_free() is obsolete"};
    EXPECT_EQ(log(), (records{warning(texts[0], "util.c"), warning(texts[1], "util.c")}));
}

TEST_F(util, common_names_have_a_type)
{
    const std::pair<const char *, int> cases[] = {
        {"token-1A2B", 0}, {"vd-vpnserver-0", 1}, {"vd-vpnclient-0", 2}, {"token", -1},    {"vd-vpnserver", -1},
        {"", -1},          {"vd-vpnclientX", -1}, {"Token-1", -1},       {" token-1", -1}, {nullptr, -1}};
    for (const auto &[name, want] : cases)
        EXPECT_EQ(vpn_type_get_by_common_name(name), want) << name;
    EXPECT_EQ(log(), records{});
}

TEST_F(util, common_name_is_taken_from_a_path)
{
    char name[28];
    for (const auto &[path, want] : {std::pair{"/a.b/vd-vpnclient-ABC.json", "vd-vpnclient-ABC"},
                                     {"token-1.2.json", "token-1"},
                                     {"noext", "noext"},
                                     {"dir/", ""},
                                     {"0123456789012345678901234567", "01234567890123456789012345"}}) {
        std::memset(name, 'x', sizeof name);
        EXPECT_EQ(extract_cn_from_path(path, name), 0);
        EXPECT_EQ(std::string(name, 28), want + std::string(27 - std::strlen(want), '\0') + 'x') << path;
    }
    const allocation_refusal refuse{1};
    EXPECT_EQ(extract_cn_from_path("token-1", name), -1);
    EXPECT_EQ(std::string(name, 28), std::string(27, '\0') + 'x');
    EXPECT_TRUE(log() == records{error("basename is null", "util.c")} &&
                extract_cn_from_path("token-1", nullptr) == -1);
}

TEST_F(util, common_name_is_translated_between_roles)
{
    const std::tuple<const char *, int, const char *> cases[] = {
        {"vd-vpnclient-1", 1, "vd-vpnserver-1"},    {"token-X", 1, "token-X"},
        {"vd-vpnclient-1", 2, "vd-vpnclient-1"},    {"tokenXYZ", 2, "tokenXYZ"},
        {"vd-vpnserver-1", 2, "vd-vpnclient-1"},    {"", 1, "Invalid common name "},
        {"vd-vpnserverX", 2, "vd-vpnclientX"},      {nullptr, 0, "Missing arguments"},
        {"token-", 3, "Invalid output_type 3"},     {"no", 0, "Invalid output_type 0"},
        {"vd-vpn", 2, "Invalid common name vd-vpn"}};
    for (const auto &[name, type, want] : cases) {
        char out[27] = "untouched";
        const bool translated = translate_common_name(out, name, type) == 1;
        EXPECT_STREQ(out, translated ? want : "untouched") << name << type;
        EXPECT_EQ(log(), translated ? records{} : records{warning(want, "util.c")});
    }
    EXPECT_EQ(translate_common_name(nullptr, "token-1", 1), 0);
}

} // namespace
