// bus call, bus send, bus listen: what is done over one connection to a daemon.
#include "bus.hpp"
#include "command.hpp"
#include "message.hpp"

#include <linux/sockios.h>
#include <sys/ioctl.h>

namespace vdctl {

int bus_call(const invocation &given);
int bus_listen(const invocation &given);
int bus_send(const invocation &given);

namespace {

constexpr unsigned default_patience = 5;    // seconds
constexpr timeval look_interval{0, 10'000}; // at how much the daemon has read

void look_again(int, short, void *) {}

/// How many bytes the daemon has not read, as the kernel counts them, with what it adds to each packet.
int unread(int fd)
{
    int bytes = 0;
    if (ioctl(fd, SIOCOUTQ, &bytes) != 0)
        fail_with_errno("cannot ask how much was read");
    return bytes;
}

json_handle message_of(const invocation &given)
{
    return new_message(given.words[1], given.words.size() > 2 ? given.words[2] : nullptr);
}

/// Sends a message and waits until it has left.
std::optional<status> send_whole(bus_loop &bus, int fd, json_object *message)
{
    const int before = bus.pending();
    bus.send(fd, message);
    const std::optional<status> stopped = bus.run_until([&] { return bus.pending() <= before; });
    if (stopped == status_late)
        error("time is up: the message has not left, since earlier ones are not read");
    return stopped;
}

std::optional<status> wait_until_read(bus_loop &bus, int fd)
{
    const event_handle look{event_new(bus.base(), -1, EV_PERSIST, look_again, nullptr)};
    if (!look || event_add(look.get(), &look_interval) != 0)
        throw std::bad_alloc{};
    const std::optional<status> stopped = bus.run_until([&] { return unread(fd) == 0; });
    if (stopped == status_late)
        error("time is up: the message has left, but is not read");
    return stopped;
}

} // namespace

int bus_call(const invocation &given)
{
    const std::string name = daemon_name(given.words[0]);
    const char *wanted = given.value('r');
    const unsigned patience = number_of(given, 't', default_patience);
    const json_handle question = message_of(given);
    bus_loop bus{patience, [&](int, const std::string &type, json_object *data) {
                     if (wanted && type != wanted)
                         return;
                     print_message(shown_time::no, type, data);
                     bus.stop(status_yes);
                 }};
    bus.send(bus.connect(name), question.get());
    const status answered = bus.run();
    if (answered == status_late)
        error("time is up: no " + (wanted ? quoted(wanted) : text{"answer"}) + " from " + quoted(name));
    return answered;
}

int bus_send(const invocation &given)
{
    const std::string name = daemon_name(given.words[0]);
    const unsigned patience = number_of(given, 't', default_patience);
    const json_handle message = message_of(given);
    bus_loop bus{patience, [](int, const std::string &, json_object *) {}};
    const int fd = bus.connect(name);
    std::optional<status> stopped;
    for (unsigned left = number_of(given, 'c', 1); left > 0 && !stopped; --left)
        stopped = send_whole(bus, fd, message.get());
    if (!stopped)
        stopped = wait_until_read(bus, fd);
    return stopped.value_or(status_yes);
}

int bus_listen(const invocation &given)
{
    const std::string name = daemon_name(given.words[0]);
    const unsigned patience = number_of(given, 't', 0), count = number_of(given, 'c', 0);
    const json_handle message = given.words.size() > 1 ? message_of(given) : nullptr;
    unsigned shown = 0;
    bus_loop bus{patience, [&](int, const std::string &type, json_object *data) {
                     print_message(shown_time::yes, type, data);
                     if (++shown == count)
                         bus.stop(status_yes);
                 }};
    const int fd = bus.connect(name);
    bus.stop_when_interrupted(status_yes);
    if (message)
        bus.send(fd, message.get());
    const status ended = bus.run();
    return ended == status_late && !count ? status_yes : ended;
}

} // namespace vdctl
