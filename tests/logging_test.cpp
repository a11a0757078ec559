#include "device_test.hpp"

#include "logging.h"

#include <cerrno>
#include <thread>

#include <syslog.h>
#include <unistd.h>

namespace {

class logging : public device_test {};

int log_through(logging_ctx *ctx, const char *text)
{
    return vd_logging_log(ctx, LOG_ERR, "zones.c", 7, -1, "%s", text);
}

TEST_F(logging, record_carries_text_severity_position_and_error)
{
    const struct {
        int priority, err, line;
        const char *file, *text, *want; // want: what stands behind time stamp and program name
    } cases[] = {
        {LOG_ERR, -1, 214, "zones.c", "plain", "plain; filename='zones.c:214'"},
        {LOG_WARNING, ENOENT, 42, "/dir/a.c", "bad", "bad; error='No such file or directory (2)', filename='a.c:42'"},
        {LOG_INFO, 0, -7, "a/", "zero", "zero; error='Success (0)', filename='a:-7'"},
        {LOG_INFO, -1, 1, "", "no name", "no name; filename='.:1'"},
        {LOG_ERR, EPERM, 9, nullptr, "nowhere", "nowhere; error='Operation not permitted (1)'"},
        {LOG_ERR, -1, 9, nullptr, "", ";"},
        {LOG_ERR, -1, 9, nullptr, "100% ;\n\\", "100% \\;\\x0a\\;"}, // escaped as the event log does it
    };
    for (const auto &[priority, err, line, file, text, want] : cases) {
        EXPECT_EQ(vd_logging_log(libvandrel_logcontext, priority, file, line, err, "%s", text), 0);
        const std::string sent = raw_log(1).at(0);
        EXPECT_TRUE(sent.ends_with(std::string{": "} + want)) << sent;
        EXPECT_TRUE(sent.starts_with("<" + std::to_string(LOG_DAEMON | priority) + ">")) << sent;
    }
}

TEST_F(logging, what_cannot_be_logged_says_why_and_sends_nothing)
{
    logging_ctx unopened{nullptr, 1};
    const char *format = nullptr;
    const wchar_t unencodable[] = {0x7fffffff, 0};
    testing::internal::CaptureStderr();
    EXPECT_TRUE(log_through(nullptr, "text") == -1 && log_through(&unopened, "text") == -1);
    EXPECT_EQ(vd_logging_log(libvandrel_logcontext, LOG_ERR, "a.c", 1, -1, format, 1), -2);
    EXPECT_EQ(vd_logging_log(libvandrel_logcontext, LOG_ERR, "a.c", 1, -1, "%ls", unencodable), -2);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_EQ(log(), records{});
}

TEST_F(logging, context_opens_closes_and_echoes)
{
    logging_ctx *first = libvandrel_logcontext;
    logging_ctx *second = logging_init(nullptr, -5); // named after the program
    EXPECT_TRUE(libvandrel_logcontext == second && first != second && second->echo_stderr == -5);
    testing::internal::CaptureStderr();
    EXPECT_EQ(log_through(first, "silent") + log_through(second, "loud"), 0);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "loud; filename='zones.c:7'\n");
    EXPECT_EQ(log(2), (records{error("silent", "zones.c"), error("loud", "zones.c")}));
    vd_logging_close(nullptr);
    vd_logging_close(&first);
    vd_logging_close(&first);
    EXPECT_EQ(first, nullptr);
}

TEST_F(logging, survives_a_huge_text_a_full_socket_and_none)
{
    const std::string megabyte(1 << 20, 'm'), long_text(9999, 'm');
    EXPECT_EQ(log_through(libvandrel_logcontext, megabyte.c_str()), 0); // more than a datagram holds: lost
    EXPECT_EQ(log_through(libvandrel_logcontext, long_text.c_str()), 0);
    EXPECT_EQ(log(1), records{error(long_text, "zones.c")});

    std::thread sender{[] {
        for (int i = 0; i < 1000; ++i) // far more than the socket holds: the sender waits
            log_through(libvandrel_logcontext, "text");
    }};
    EXPECT_EQ(log(1000), records(1000, error("text", "zones.c")));
    sender.join();

    closelog();
    unlink("/dev/log");
    EXPECT_EQ(log_through(libvandrel_logcontext, "nobody listens"), 0);
}

TEST_F(logging, refused_memory_costs_at_most_the_record_or_a_tag)
{
    bool refused = true;
    for (int n = 1; refused; ++n) {
        const allocation_refusal refusal{n};
        const int result = log_through(libvandrel_logcontext, "text");
        refused = refusal.happened();
        if (result == 0)
            EXPECT_EQ(log(1), records{error("text", refused ? "" : "zones.c")}) << n;
        else
            EXPECT_EQ(result, -2) << n;
    }
    const allocation_refusal refusal{1};
    EXPECT_EQ(vd_logging_initialize("name", 0), nullptr);
}

} // namespace
