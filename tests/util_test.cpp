#include "device_test.hpp"

#include "util.h"

#include <climits>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <set>
#include <string>
#include <utility>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

class util : public device_test {};

int sign(int value)
{
    return (value > 0) - (value < 0);
}

TEST_F(util, texts_and_blocks_are_compared)
{
    const struct {
        const char *a, *b;
        int whole, first; // the sign for all of them, and for the first byte
    } cases[] = {
        {"ab", "ac", -1, 0}, {"ac", "ab", 1, 0}, {"ETH0", "eth0", -1, -1}, {"\xE4", "z", 1, 1}, {"", "", 0, 0}};
    for (const auto &[a, b, whole, first] : cases) {
        EXPECT_EQ(sign(safestrcmp(a, b)), whole) << a << b;
        EXPECT_EQ(sign(safestrncmp(a, b, 1)), first) << a << b;
        EXPECT_EQ(sign(safememcmp(a, 1, b)), first) << a << b;
        EXPECT_EQ(safestrncmp(a, b, 0), 0) << a << b;
        EXPECT_EQ(safememcmp(a, 0, b), 0) << a << b;
    }
}

TEST_F(util, null_equals_only_null)
{
    const struct {
        const char *a, *b;
        int want;
    } cases[] = {{nullptr, nullptr, 0}, {nullptr, "", 1}, {"", nullptr, 1}};
    for (const auto &[a, b, want] : cases) {
        EXPECT_EQ(safestrcmp(a, b), want);
        for (const std::size_t size : {0U, 1U}) {
            EXPECT_EQ(safestrncmp(a, b, size), want) << size;
            EXPECT_EQ(safememcmp(a, size, b), want) << size;
        }
    }
}

TEST_F(util, texts_are_compared_in_either_case)
{
    const struct {
        const char *a, *b;
        int want;
    } cases[] = {{"ETH0", "eth0", 0}, {"\xE4", "z", 106}, {"_", "A", -2}, {"a", "aB", -'b'}, {"aB", "a", 'b'}};
    for (const auto &[a, b, want] : cases)
        EXPECT_EQ(__stricmp(a, b), want) << a << b;
}

TEST_F(util, texts_are_copied_as_far_as_there_is_room)
{
    const struct {
        std::size_t size;
        const char *want;
    } cases[] = {{0, "xxxxxx"}, {1, "\0xxxxx"}, {3, "ab\0xxx"}, {4, "abc\0xx"}, {6, "abc\0xx"}};
    for (const auto &[size, want] : cases) {
        char buffer[] = "xxxxxx";
        EXPECT_EQ(strlcpy(buffer, "abc", size), 3U) << size;
        EXPECT_EQ(std::string(buffer, 6), std::string(want, 6)) << size;
    }
}

TEST_F(util, copies_are_new_blocks)
{
    char *block = static_cast<char *>(memdup("a\0b", 3));
    EXPECT_EQ(std::string(block, 3), std::string("a\0b", 3));
    EXPECT_EQ(memzero(block, 2), block);
    EXPECT_EQ(std::string(block, 3), std::string("\0\0b", 3));
    std::free(block);
    char *text = safedup("text");
    EXPECT_STREQ(text, "text");
    std::free(text);
    EXPECT_EQ(memdup("a", 0), nullptr);
    EXPECT_EQ(memdup(nullptr, 3), nullptr);
    EXPECT_EQ(safedup(nullptr), nullptr);
    EXPECT_EQ(memzero(nullptr, 3), nullptr);
    const allocation_refusal refuse{1};
    EXPECT_EQ(memdup("a", 1), nullptr);
}

TEST_F(util, numbers_are_whole_and_in_range)
{
    const struct {
        const char *text;
        long long want;
        const char *fault;
        int err; // E2BIG: as it was
        long long low = 0, high = 32;
    } cases[] = {
        {"0", 0, nullptr, E2BIG},
        {"32", 32, nullptr, E2BIG},
        {" \t+7", 7, nullptr, E2BIG},
        {"010", 10, nullptr, E2BIG},
        {"-0", 0, nullptr, E2BIG},
        {"5", 5, nullptr, E2BIG, 5, 5},
        {"-9223372036854775808", LLONG_MIN, nullptr, E2BIG, LLONG_MIN, LLONG_MAX},
        {"9223372036854775807", LLONG_MAX, nullptr, E2BIG, LLONG_MIN, LLONG_MAX},
        {"12a", 0, "invalid", EINVAL},
        {"", 0, "invalid", EINVAL},
        {"1\n", 0, "invalid", EINVAL},
        {"0x1", 0, "invalid", EINVAL},
        {"99999999999999999999x", 0, "invalid", EINVAL},
        {nullptr, 0, "invalid", EINVAL},
        {"5", 0, "invalid", EINVAL, 5, 4},
        {"-1", 0, "too small", ERANGE},
        {"-9223372036854775809", 0, "too small", ERANGE, LLONG_MIN, LLONG_MAX},
        {"33", 0, "too large", ERANGE},
        {"9223372036854775808", 0, "too large", ERANGE, LLONG_MIN, LLONG_MAX},
    };
    for (const auto &[text, want, expected, err, low, high] : cases) {
        const char *fault = "left";
        errno = E2BIG;
        EXPECT_EQ(strtonum(text, low, high, &fault), want) << text;
        EXPECT_EQ(errno, err) << text;
        EXPECT_STREQ(fault, expected) << text;
    }
    EXPECT_EQ(strtonum("x", 0, 1, nullptr), 0);
}

TEST_F(util, random_numbers_fill_their_range_in_either_order)
{
    const struct {
        int a, b;
        std::set<int> want;
    } cases[] = {
        {1, 6, {1, 2, 3, 4, 5, 6}}, {6, 1, {1, 2, 3, 4, 5, 6}}, {-1, 0, {-1, 0}}, {INT_MAX, INT_MAX, {INT_MAX}}};
    for (const auto &[a, b, want] : cases) {
        std::set<int> seen;
        for (int i = 0; i < 1000; ++i)
            seen.insert(random_number(a, b));
        EXPECT_EQ(seen, want);
    }
    EXPECT_LT(random_number(INT_MAX, INT_MIN), 0);
}

TEST_F(util, files_are_looked_at)
{
    write_file("/tmp/file", "");
    EXPECT_EQ(file_exists("/tmp"), 1);
    EXPECT_EQ(file_exists("/tmp/none"), 0);
    EXPECT_EQ(file_exists(nullptr), 0);
    const timespec times[] = {{0, UTIME_OMIT}, {1'234'567'890, 999'999'999}};
    utimensat(AT_FDCWD, "/tmp/file", times, 0);
    EXPECT_EQ(file_get_mtime("/tmp/file"), 1'234'567'890);
    testing::internal::CaptureStderr();
    EXPECT_EQ(file_get_mtime("/tmp/none"), -1);
    EXPECT_EQ(file_get_mtime(nullptr), -1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST_F(util, beginning_or_first_line_of_a_file_is_read)
{
    enum { bytes, line, unknown };
    const struct {
        const char *content;
        int size, mode, want;
        const char *left;
    } cases[] = {
        {"abc\r\nnext", 8, line, 3, "abc"}, {"a\n\r\n", 8, line, 1, "a"},
        {"abcdef", 4, line, 3, "abc"},      {"\n", 8, line, 0, ""},
        {"", 8, line, 0, "xxxxxx"},         {"abc", 0, line, 0, "xxxxxx"},
        {"abcdef", 4, bytes, 4, "abcdxx"},  {"a\r\n", 8, bytes, 3, "a\r\nxxx"},
        {"abc", -1, bytes, 0, "xxxxxx"},    {"abc", 8, unknown, 0, "xxxxxx"},
    };
    for (const auto &[content, size, mode, want, left] : cases) {
        char buffer[8] = "xxxxxx";
        write_file("/tmp/file", content);
        EXPECT_EQ(file_read("/tmp/file", buffer, size, mode), want) << content << mode;
        EXPECT_STREQ(buffer, left) << content << mode;
    }
    EXPECT_EQ(file_read("/tmp/file", nullptr, 8, bytes), 0);
    EXPECT_EQ(log(), records{});
}

TEST_F(util, file_that_cannot_be_read_is_told_when_it_cannot_be_opened)
{
    char buffer[8] = "xxxxxx";
    EXPECT_EQ(file_read("/tmp", buffer, 8, 0), 0);
    EXPECT_EQ(log(), records{});
    EXPECT_EQ(file_read("/tmp/none", buffer, 8, 0), 0);
    EXPECT_EQ(log(), records{warning("Couldn't open file /tmp/none", "util.c")});
    EXPECT_EQ(file_read(nullptr, buffer, 8, 0), 0);
    EXPECT_EQ(log(), records{warning("Couldn't open file (null)", "util.c")});
    EXPECT_STREQ(buffer, "xxxxxx");
}

TEST_F(util, whole_file_is_read)
{
    write_file("/tmp/file", "abc");
    for (const int size : {200'000'000, 3, 0}) {
        char *block = nullptr;
        EXPECT_EQ(truncate("/tmp/file", size), 0);
        EXPECT_EQ(file_read_all(&block, "/tmp/file"), size);
        ASSERT_NE(block, nullptr) << size;
        EXPECT_EQ(std::string(block, size ? 3 : 0), size ? "abc" : "");
        std::free(block);
    }
    std::filesystem::resize_file("/tmp/file", 200'000'001);
    const int descriptors = open_descriptors();
    char *block = nullptr;
    for (const char *path :
         {"/tmp", "/proc", "/sys/class/net/lo/mtu", "/tmp/file", "/tmp/none", static_cast<const char *>(nullptr)}) {
        EXPECT_EQ(file_read_all(&block, path), -1) << path; // mtu is shorter than it says
        EXPECT_EQ(block, nullptr) << path;
    }
    EXPECT_EQ(file_read_all(nullptr, "/etc/passwd"), -1);
    const allocation_refusal refuse{1};
    EXPECT_EQ(file_read_all(&block, "/etc/passwd"), -1);
    EXPECT_EQ(block, nullptr);
    EXPECT_EQ(open_descriptors(), descriptors);
    EXPECT_EQ(log(), records{});
}

int mode_of(const std::string &path)
{
    return static_cast<int>(std::filesystem::status(path).permissions());
}

TEST_F(util, directories_are_made_with_those_above)
{
    std::filesystem::current_path("/tmp");
    umask(027);
    const std::string longest = std::string(127, 'd') + '/' + std::string(127, 'd');
    for (const char *path : {"a/b/c/", "/tmp/#", "a//e", longest.c_str()}) {
        EXPECT_EQ(mkdir_recursive(path, 0777), 1) << path;
        EXPECT_EQ(mode_of(path), 0750) << path;
    }
    for (const char *path : {"/", "a", "/proc/x"})
        EXPECT_EQ(mkdir_recursive(path, 0777), 1) << path << ", though nothing can be made";
    const std::string too_long = std::string(127, 'e') + '/' + std::string(128, 'e');
    for (const char *path : {"", too_long.c_str(), static_cast<const char *>(nullptr)})
        EXPECT_EQ(mkdir_recursive(path, 0777), 0) << path;
    EXPECT_FALSE(std::filesystem::exists(std::string(127, 'e')));
}

TEST_F(util, directory_that_is_ensured_has_exactly_its_mode)
{
    std::filesystem::current_path("/tmp");
    umask(027);
    EXPECT_EQ(ensure_dir_exists("y/z", 0775), 0);
    EXPECT_EQ(mode_of("y"), 0775);
    EXPECT_EQ(mode_of("y/z"), 0775);
    EXPECT_EQ(ensure_dir_exists("y", 0700), 1);
    EXPECT_EQ(mode_of("y"), 0775);
    EXPECT_EQ(umask(0), 027U);
}

TEST_F(util, command_gives_its_output_and_its_end)
{
    const struct {
        const char *command;
        std::size_t size;
        int want;
        const char *output;
    } cases[] = {
        {"while :; do echo hi; done", 4, 3, "hi\n"}, {"echo hi", 3, 2, "hi"}, {"echo hi", 4, 0, "hi\n"},
        {"printf ab; exec >&-; exit 0", 8, 0, "ab"}, {"echo hi", 1, 2, ""},   {"exit 3", 8, 1, ""},
        {"printf ab; kill -KILL $$", 8, 1, "ab"},    {nullptr, 4, 4, ""},     {"", 4, 0, ""},
        {"/not/there 2>/dev/null", 8, 1, ""},
    };
    const int descriptors = open_descriptors();
    sigset_t signals;
    sigfillset(&signals);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr); // a command gets neither this nor how the caller handles SIGPIPE
    for (const auto &handling : {SIG_DFL, SIG_IGN}) {
        std::signal(SIGPIPE, handling);
        for (const auto &[command, size, want, output] : cases) {
            std::string buffer(size, 'x');
            EXPECT_EQ(vd_run_command_simple(command, buffer.data(), size), want) << command << size;
            EXPECT_STREQ(buffer.c_str(), output) << command << size;
        }
        EXPECT_EQ(vd_run_command_simple("while :; do echo hi; done", nullptr, 0), 1);
        EXPECT_EQ(std::signal(SIGPIPE, handling), handling);
    }
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1); // no child is left
    EXPECT_EQ(open_descriptors(), descriptors);
}

TEST_F(util, command_is_not_run_without_room_for_its_output_or_a_shell)
{
    char buffer[] = "x";
    EXPECT_EQ(vd_run_command_simple("echo hi", buffer, 0), 0);
    EXPECT_STREQ(buffer, "x");
    EXPECT_EQ(vd_run_command_simple("touch /tmp/run", nullptr, 1), 8);
    EXPECT_EQ(vd_run_command_simple(nullptr, nullptr, 1), 4);
    const rlimit none{0, 1024};
    setrlimit(RLIMIT_NOFILE, &none);
    EXPECT_EQ(vd_run_command_simple("touch /tmp/run", buffer, 1), 16);
    EXPECT_STREQ(buffer, "");
    const rlimit enough{1024, 1024};
    setrlimit(RLIMIT_NOFILE, &enough);
    EXPECT_FALSE(std::filesystem::exists("/tmp/run"));
}

TEST_F(util, command_prints_where_the_daemon_has_closed_its_own_output)
{
    const int kept = dup(STDOUT_FILENO);
    close(STDIN_FILENO);
    close(STDOUT_FILENO);
    char output[8] = "";
    const int result = vd_run_command_simple("echo hi", output, sizeof output);
    dup2(kept, STDOUT_FILENO);
    EXPECT_EQ(result, 0);
    EXPECT_STREQ(output, "hi\n");
}

TEST_F(util, signals_cut_nothing_of_an_output)
{
    const interruptions while_it_runs;
    char output[8] = "";
    EXPECT_EQ(vd_run_command_simple("printf tr; sleep 0.1; printf ue", output, sizeof output), 0);
    EXPECT_STREQ(output, "true");
}

TEST_F(util, uptime_is_that_of_the_device)
{
    EXPECT_LE(std::labs(get_uptime() - std::stol(read_file("/proc/uptime"))), 1);
    EXPECT_EQ(get_uptime_seconds(), -1);
}

TEST_F(util, peer_type_is_told_by_the_whole_prefix)
{
    const struct {
        const char *name;
        int want;
    } cases[] = {{"token-1A2B", PEER_TYPE_TOKEN},         {"vd-vpnserver-0", PEER_TYPE_VPNSERVER},
                 {"vd-vpnclient-0", PEER_TYPE_VPNCLIENT}, {"token", PEER_TYPE_UNKNOWN},
                 {"Token-1", PEER_TYPE_UNKNOWN},          {"vd-vpnserverX", PEER_TYPE_UNKNOWN},
                 {"vd-vpnclientX", PEER_TYPE_UNKNOWN},    {nullptr, PEER_TYPE_UNKNOWN}};
    for (const auto &[name, want] : cases)
        EXPECT_EQ(vpn_type_get_by_common_name(name), want) << name;
    EXPECT_EQ(log(), records{});
}

TEST_F(util, common_name_is_taken_out_of_a_path)
{
    const std::string digits = "012345678901234567890123456789";
    const struct {
        std::string path, want;
    } cases[] = {
        {"/a.b/" + digits, digits.substr(0, 26)}, {"token-1.2.json", "token-1"}, {"NOEXT", "NOEXT"}, {"dir/", ""}};
    for (const auto &[path, want] : cases) {
        char name[28] = "xxxxxxxxxxxxxxxxxxxxxxxxxxx";
        EXPECT_EQ(extract_cn_from_path(path.c_str(), name), 0) << path;
        EXPECT_EQ(std::string(name, 27), want + std::string(27 - want.size(), '\0')) << path;
    }
    EXPECT_EQ(extract_cn_from_path("path", nullptr), -1);
    EXPECT_EQ(log(), records{});
}

TEST_F(util, path_without_text_or_memory_gives_an_empty_name)
{
    const struct {
        const char *path;
        int refused; // allocation
    } cases[] = {{nullptr, 0}, {"path", 1}};
    for (const auto &[path, refused] : cases) {
        char name[28] = "xxxxxxxxxxxxxxxxxxxxxxxxxxx";
        const allocation_refusal refuse{refused};
        EXPECT_EQ(extract_cn_from_path(path, name), -1) << path;
        EXPECT_EQ(std::string(name, 27), std::string(27, '\0')) << path;
        EXPECT_EQ(log(), records{error("basename is null", "util.c")}) << path;
    }
}

TEST_F(util, common_name_is_translated)
{
    const struct {
        const char *name;
        int type;
        const char *want;
    } cases[] = {{"vd-vpnclient-1", PEER_TYPE_VPNSERVER, "vd-vpnserver-1"},
                 {"vd-vpnserverX", PEER_TYPE_VPNCLIENT, "vd-vpnclientX"},
                 {"vd-vpnclient-1", PEER_TYPE_VPNCLIENT, "vd-vpnclient-1"},
                 {"vd-vpnserver-1", PEER_TYPE_VPNSERVER, "vd-vpnserver-1"},
                 {"tokenXYZ", PEER_TYPE_VPNSERVER, "tokenXYZ"}};
    for (const auto &[name, type, want] : cases) {
        char out[28] = "";
        EXPECT_EQ(translate_common_name(out, name, type), 1) << name;
        EXPECT_STREQ(out, want) << name;
        char in_place[28];
        strlcpy(in_place, name, sizeof in_place);
        EXPECT_EQ(translate_common_name(in_place, in_place, type), 1) << name;
        EXPECT_STREQ(in_place, want) << name;
    }
    EXPECT_EQ(log(), records{});
}

TEST_F(util, what_cannot_be_translated_is_told)
{
    const struct {
        const char *name;
        int type;
        const char *text;
    } cases[] = {{"", 1, "Invalid common name "},
                 {"toke", 2, "Invalid common name toke"},
                 {nullptr, 0, "Missing arguments"},
                 {"token-", 3, "Invalid output_type 3"},
                 {"no", 0, "Invalid output_type 0"}};
    for (const auto &[name, type, text] : cases) {
        char out[] = "untouched";
        EXPECT_EQ(translate_common_name(out, name, type), 0) << text;
        EXPECT_STREQ(out, "untouched") << text;
        EXPECT_EQ(log(), records{warning(text, "util.c")});
    }
    EXPECT_EQ(translate_common_name(nullptr, "token-", 1), 0);
    EXPECT_EQ(log(), records{warning("Missing arguments", "util.c")});
}

TEST_F(util, obsolete_names_parse_and_tell)
{
    EXPECT_EQ(parse_ip("10.1"), 0x0A000001U);
    EXPECT_EQ(log(), records{warning("parse_ip() is obsolete", "util.c")});
    EXPECT_EQ(parse_ip_free(strdup("10.2")), 0x0A000002U);
    EXPECT_EQ(log(), records{warning("parse_ip_free() is obsolete", "util.c")});
}

} // namespace
