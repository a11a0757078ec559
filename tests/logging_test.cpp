#include "device_test.hpp"

#include "logging.h"

#include <cerrno>
#include <clocale>
#include <cstdlib>

namespace {

class logging : public device_test {};

#define LOG(...) vd_logging_log(libvandrel_logcontext, __VA_ARGS__)

TEST_F(logging, record_carries_text_severity_position_and_error)
{
    const struct {
        int priority, err;
        const char *file;
        int line;
        const char *text;
        record want;
        const char *tags;
    } cases[] = {
        {3, -1, "zones.c", 214, "plain", error("plain", "zones.c"), "plain; filename='zones.c:214'"},
        {4, ENOENT, "/some/dir/netinfo.c", 42, "bad", warning("bad", "netinfo.c", ENOENT),
         "bad; error='No such file or directory (2)', filename='netinfo.c:42'"},
        {6, 0, "a/", -7, "zero", info("zero", "a", 0), "zero; error='Success (0)', filename='a:-7'"},
        {6, -1, "", 1, "no name", info("no name", "."), "no name; filename='.:1'"},
        {3, EPERM, nullptr, 9, "nowhere", error("nowhere", "", EPERM), "nowhere; error='Operation not permitted (1)'"},
        {3, -1, "a.c", 1, "100% ;\n\\", error("100% ;\n\\", "a.c"), nullptr},
        {3, -1, "a.c", 1, "", error("", "a.c"), "; filename='a.c:1'"},
    };
    for (const auto &[priority, err, file, line, text, want, tags] : cases) {
        EXPECT_EQ(LOG(priority, file, line, err, "%s", text), 0);
        const auto raw = raw_log(1);
        ASSERT_EQ(raw.size(), 1U) << text;
        EXPECT_TRUE(!tags || raw[0].ends_with(std::string{": "} + tags)) << raw[0];
        EXPECT_TRUE(raw[0].starts_with("<" + std::to_string((3 << 3) + priority) + ">")) << raw[0]; // LOG_DAEMON
        LOG(priority, file, line, err, "%s", text);
        EXPECT_EQ(log(1), records{want});
    }
}
} // namespace
