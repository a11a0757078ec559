#include "device_test.hpp"

#include "logging.h"

#include <cerrno>
#include <string>
#include <thread>
#include <utility>
#include <vector>

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
        EXPECT_TRUE(sent.starts_with("<" + std::to_string(LOG_DAEMON | priority) + ">")) << sent;
        EXPECT_TRUE(sent.ends_with(std::string{": "} + want)) << sent;
    }
}

TEST_F(logging, what_cannot_be_logged_says_why_and_sends_nothing)
{
    logging_ctx unopened{nullptr, 1};
    const char *format = nullptr;
    const wchar_t unencodable[] = {0x7fffffff, 0};
    testing::internal::CaptureStderr();
    EXPECT_EQ(log_through(nullptr, "text"), -1);
    EXPECT_EQ(log_through(&unopened, "text"), -1);
    EXPECT_EQ(vd_logging_log(libvandrel_logcontext, LOG_ERR, "a.c", 1, -1, format, 1), -2);
    EXPECT_EQ(vd_logging_log(libvandrel_logcontext, LOG_ERR, "a.c", 1, -1, "%ls", unencodable), -2);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_EQ(log(), records{});
}

TEST_F(logging, context_opens_and_closes)
{
    logging_ctx *first = libvandrel_logcontext;
    logging_ctx *const second = logging_init("second", -5);
    EXPECT_EQ(libvandrel_logcontext, second);
    EXPECT_NE(second, first);
    EXPECT_EQ(second->echo_stderr, -5);
    vd_logging_close(nullptr);
    vd_logging_close(&first);
    EXPECT_EQ(first, nullptr);
    vd_logging_close(&first);
    EXPECT_EQ(log_through(second, "the other one is still open"), 0);
}

TEST_F(logging, echo_prints_the_record_and_sends_it_too)
{
    logging_ctx *loud = vd_logging_initialize("loud", 1);
    testing::internal::CaptureStderr();
    log_through(libvandrel_logcontext, "silent");
    log_through(loud, "text");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "text; filename='zones.c:7'\n");
    EXPECT_EQ(log(2), (records{error("silent", "zones.c"), error("text", "zones.c")}));
    vd_logging_close(&loud);
}

/// The program name in "<28>Nov 22 22:55:00 test[7]: text".
std::string name_in(const std::string &raw)
{
    const std::size_t begin = raw.find('>') + sizeof "Nov 22 22:55:00 ";
    return raw.substr(begin, raw.find('[') - begin);
}

TEST_F(logging, record_carries_the_name_of_its_context)
{
    logging_ctx *const first = libvandrel_logcontext; // "test"
    logging_ctx *const second = logging_init("second", 0);
    logging_ctx *const unnamed = vd_logging_initialize(nullptr, 0);
    const std::pair<logging_ctx *, const char *> cases[] = {
        {second, "second"}, {first, "test"}, {unnamed, "logging_test"}, {first, "test"}};
    for (const auto &[ctx, name] : cases) {
        openlog("a name that the daemon itself gave", 0, LOG_USER);
        log_through(ctx, "text");
        EXPECT_EQ(name_in(raw_log(1).at(0)), name);
    }
    for (logging_ctx *ctx : {first, second, unnamed})
        vd_logging_close(&ctx);
    libvandrel_logcontext = nullptr;
}

TEST_F(logging, threads_log_through_contexts_of_their_own)
{
    constexpr int each = 2000;
    std::vector<std::thread> threads;
    for (const char *name : {"a", "b", "c"})
        threads.emplace_back([name] {
            logging_ctx *ctx = vd_logging_initialize(name, 0);
            for (int i = 0; i < each; ++i)
                log_through(ctx, name);
            vd_logging_close(&ctx);
        });
    const std::vector<std::string> sent = raw_log(3 * each);
    for (std::thread &thread : threads)
        thread.join();
    EXPECT_EQ(sent.size(), 3 * each);
    for (const std::string &raw : sent)
        EXPECT_TRUE(raw.ends_with(": " + name_in(raw) + "; filename='zones.c:7'")) << raw;
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
    const allocation_refusal no_record{1, "libevtlog"};
    EXPECT_EQ(log_through(libvandrel_logcontext, "text"), -3);
}

TEST_F(logging, context_without_memory_is_none_or_one_that_cannot_log)
{
    {
        const allocation_refusal refusal{1};
        EXPECT_EQ(vd_logging_initialize("name", 0), nullptr);
    }
    bool refused = true;
    for (int n = 1; refused; ++n) {
        logging_ctx *ctx = nullptr;
        {
            openlog("another", 0, LOG_USER);
            const allocation_refusal refusal{n, "libevtlog"};
            ctx = vd_logging_initialize("name", 0);
            refused = refusal.happened();
        }
        if (ctx->event_ctx)
            EXPECT_EQ(log_through(ctx, "text"), 0) << n;
        else
            EXPECT_TRUE(refused) << n;
        for (const std::string &raw : raw_log(ctx->event_ctx ? 1 : 0))
            EXPECT_EQ(name_in(raw), "name") << n;
        vd_logging_close(&ctx);
    }
}

} // namespace
