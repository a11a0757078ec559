#include "device_test.hpp"

#include "logging.h"

#include <cerrno>
#include <thread>

#include <syslog.h>
#include <unistd.h>

namespace {

class logging : public device_test {};

template <typename... Arguments> int log_through(logging_ctx *ctx, Arguments... arguments)
{
    return vd_logging_log(ctx, LOG_ERR, "zones.c", 7, -1, arguments...);
}

TEST_F(logging, record_carries_text_severity_position_and_error)
{
    const struct {
        int priority, err;
        const char *file;
        int line;
        const char *text;
        record want;
        const char *raw; // behind time stamp and program name
    } cases[] = {
        {3, -1, "zones.c", 214, "plain", error("plain", "zones.c"), "plain; filename='zones.c:214'"},
        {4, ENOENT, "/some/dir/netinfo.c", 42, "bad", warning("bad", "netinfo.c", ENOENT),
         "bad; error='No such file or directory (2)', filename='netinfo.c:42'"},
        {6, 0, "a/", -7, "zero", info("zero", "a", 0), "zero; error='Success (0)', filename='a:-7'"},
        {6, -1, "", 1, "no name", info("no name", "."), "no name; filename='.:1'"},
        {3, EPERM, nullptr, 9, "nowhere", error("nowhere", "", EPERM), "nowhere; error='Operation not permitted (1)'"},
        {3, -1, nullptr, 9, "bare", error("bare", ""), "bare;"},
        {3, -1, "a.c", 1, "100% ;\n\\", error("100% ;\n\\", "a.c"), ""}, // escaped as the event log likes
        {3, -1, "a.c", 1, "", error("", "a.c"), "; filename='a.c:1'"},
    };
    for (const auto &[priority, err, file, line, text, want, raw] : cases) {
        EXPECT_EQ(vd_logging_log(libvandrel_logcontext, priority, file, line, err, "%s", text), 0);
        const auto sent = raw_log(1).at(0);
        EXPECT_TRUE(sent.ends_with(raw)) << sent;
        EXPECT_TRUE(sent.starts_with("<" + std::to_string((3 << 3) + priority) + ">")) << sent; // LOG_DAEMON
        vd_logging_log(libvandrel_logcontext, priority, file, line, err, "%s", text);
        EXPECT_EQ(log(1), records{want});
    }
}

TEST_F(logging, what_cannot_be_logged_says_why_and_sends_nothing)
{
    logging_ctx unopened{nullptr, 1};
    testing::internal::CaptureStderr();
    EXPECT_EQ(log_through(nullptr, "text"), -1);
    EXPECT_EQ(log_through(&unopened, "text"), -1);
    EXPECT_EQ(log_through(libvandrel_logcontext, static_cast<const char *>(nullptr)), -2);
    const wchar_t unencodable[] = {0x7fffffff, 0};
    EXPECT_EQ(log_through(libvandrel_logcontext, "%ls", unencodable), -2);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_EQ(log(), records{});
}

TEST_F(logging, context_opens_closes_and_echoes)
{
    logging_ctx *first = libvandrel_logcontext;
    logging_ctx *second = logging_init(nullptr, -5); // named after the program
    EXPECT_EQ(libvandrel_logcontext, second);
    EXPECT_NE(first, second);
    EXPECT_EQ(second->echo_stderr, -5);

    testing::internal::CaptureStderr();
    EXPECT_EQ(log_through(first, "silent"), 0);
    EXPECT_EQ(log_through(second, "loud"), 0);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "loud; filename='zones.c:7'\n");
    EXPECT_EQ(log(2), (records{error("silent", "zones.c"), error("loud", "zones.c")}));

    vd_logging_close(nullptr);
    vd_logging_close(&first);
    vd_logging_close(&first);
    EXPECT_EQ(first, nullptr);
    vd_logging_close(&libvandrel_logcontext);
    EXPECT_EQ(log_through(libvandrel_logcontext, "text"), -1);
}

TEST_F(logging, survives_a_huge_text_a_full_socket_and_no_socket)
{
    const std::string megabyte(1 << 20, ';');
    EXPECT_EQ(log_through(libvandrel_logcontext, "%s", megabyte.c_str()), 0); // more than a datagram holds: lost
    EXPECT_EQ(log_through(libvandrel_logcontext, "%.9999s", megabyte.c_str()), 0);
    EXPECT_EQ(log(1), records{error(megabyte.substr(0, 9999), "zones.c")});

    constexpr std::size_t many = 5000; // more than the socket holds: the writer waits and loses nothing
    std::thread writer{[] {
        for (std::size_t i = 0; i < many; ++i)
            log_through(libvandrel_logcontext, "again");
    }};
    EXPECT_EQ(log(many), records(many, error("again", "zones.c")));
    writer.join();

    closelog();
    unlink("/dev/log");
    EXPECT_EQ(log_through(libvandrel_logcontext, "nobody listens"), 0);
    EXPECT_EQ(log(), records{});
}

TEST_F(logging, refused_memory_costs_at_most_the_record_or_a_tag)
{
    for (int n = 1;; ++n) {
        const allocation_refusal refusal{n};
        const int result = log_through(libvandrel_logcontext, "text");
        if (!refusal.happened())
            break;
        if (result == 0)
            EXPECT_EQ(log(1), records{error("text", "")}) << n;
        else
            EXPECT_EQ(result, -2) << n;
    }
    EXPECT_EQ(log(1).size(), 1U);

    const allocation_refusal refusal{1};
    EXPECT_EQ(vd_logging_initialize("name", 0), nullptr);
}

} // namespace
