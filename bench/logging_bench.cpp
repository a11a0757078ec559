// What a log call costs beside a libevtlog record made by hand with the same text and the same two tags, both to a
// /dev/log that somebody drains.
#include "against_floor.hpp"
#include "device.hpp"

#include "logging.h"

#include <cerrno>
#include <cstdio>
#include <string>
#include <thread>

#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>

#include <glib.h>
extern "C" {
#include <evtlog.h>
}

namespace {

void log_call(benchmark::State &state)
{
    for ([[maybe_unused]] auto _ : state)
        vd_logging_log(libvandrel_logcontext, LOG_WARNING, "zones.c", 214, ENOENT, "Opening %s failed", "zones.json");
}

void by_hand(benchmark::State &state)
{
    for ([[maybe_unused]] auto _ : state) {
        EVTREC *record = evt_rec_init(libvandrel_logcontext->event_ctx, LOG_WARNING, "Opening zones.json failed");
        evt_rec_add_tag(record, evt_tag_errno("error", ENOENT));
        evt_rec_add_tag(record, evt_tag_str("filename", "zones.c:214"));
        evt_log(record);
    }
}

void drain(int fd)
{
    char buffer[4096];
    while (recv(fd, buffer, sizeof buffer, 0) > 0) {}
}

} // namespace

int main(int argc, char **argv)
{
    enter_device();
    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{AF_UNIX, "/dev/log"};
    if (bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) < 0)
        return 1;
    std::thread reader{drain, fd};
    logging_init("bench", 0);

    const double ratio = cost_against_floor(argc, argv, log_call, by_hand);
    std::printf("a log call costs %.2f times a record made by hand\n", ratio);
    std::fflush(stdout);

    vd_logging_close(&libvandrel_logcontext);
    closelog();
    shutdown(fd, SHUT_RDWR);
    reader.join();
}
