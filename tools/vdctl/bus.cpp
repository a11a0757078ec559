#include "bus.hpp"

#include "ipc.h"
#include "served.hpp"
#include "util.h"
#include "zone_file.hpp"

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstring>

#include <sys/stat.h>
#include <unistd.h>

namespace vdctl {

namespace {

constexpr std::size_t longest_name = 80;     // of a daemon; longer ones give one path to several
constexpr std::size_t longest_body = 999995; // of a message, its NUL included
constexpr int deepest_data = 31;             // levels; a message has one more

bus_loop *running = nullptr; // handlers of the bus have no argument of their own

/// The type as its sender wrote it, from the text that a handler gets.
std::string decoded(const char *type)
{
    const json_handle value{json_tokener_parse(("\"" + std::string{type} + "\"").c_str())};
    return {json_object_get_string(value.get()), static_cast<std::size_t>(json_object_get_string_len(value.get()))};
}

void take_message(int fd, const char *type, json_object *data)
{
    if (running)
        running->arrive(fd, type, data);
}

/// Messages of the type "error" have a handler of their own, so one here is the end of a connection.
void take_message_or_end(int fd, const char *type, json_object *data)
{
    if (std::strcmp(type, "error") != 0)
        take_message(fd, type, data);
    else if (running)
        running->end(fd);
}

text join_names(const std::vector<served_name> &names)
{
    text line;
    for (const served_name &served : names) {
        if (served.by != serving::nobody)
            line += (line.empty() ? text{} : text{", "}) + text::of(served.name);
    }
    return line;
}

[[noreturn]] void refuse_unknown(const std::string &name)
{
    const text names = join_names(served_names());
    throw failure{"no daemon " + quoted(name) + (names.empty() ? text{"; none serves"} : "; there are: " + names)};
}

[[noreturn]] void refuse_without_right(const struct stat &socket)
{
    if (socket.st_mode & S_IWGRP)
        throw failure{"no right to its socket: join the group " + text::of(group_name(socket.st_gid))};
    throw failure{"no right to its socket, only " + text::of(user_name(socket.st_uid)) + " has"};
}

/// Why connecting fails, the call does not say; so this is looked at before.
void look_at_socket(const std::string &name)
{
    const std::string path = socket_path(name);
    struct stat socket {};
    if (stat(path.c_str(), &socket) != 0) {
        if (errno == ENOENT)
            refuse_unknown(name);
        fail_with_errno("cannot look at " + text::of(path));
    }
    if (access(path.c_str(), W_OK) != 0)
        refuse_without_right(socket);
}

/// And this afterwards: a listener in another network namespace can't be seen, but be reached.
[[noreturn]] void say_why_not(const std::string &name)
{
    for (const served_name &served : served_names()) {
        if (served.name == name && served.by != serving::nobody)
            throw failure{"cannot connect to " + quoted(name)};
    }
    throw failure{quoted(name) + " does not run: nobody listens at its socket"};
}

/// While it lives, SIGALRM ends vdctl: connecting has no limit of its own.
class connecting {
public:
    connecting(const std::string &name, unsigned seconds)
    {
        reason_ = "vdctl: time is up: " + quoted(name).str() + " accepts nobody\n";
        std::signal(SIGALRM, give_up);
        alarm(seconds);
    }
    ~connecting() { alarm(0); }
    connecting(const connecting &) = delete;
    connecting &operator=(const connecting &) = delete;

private:
    static void give_up(int)
    {
        static_cast<void>(!write(STDERR_FILENO, reason_.data(), reason_.size()));
        _exit(status_late);
    }

    inline static std::string reason_;
};

} // namespace

std::string daemon_name(const char *word)
{
    std::string name = word;
    if (name.size() > longest_name || name.find('/') != std::string::npos)
        throw misuse{quoted(name) + " is no daemon's name: up to " + text{longest_name} + " characters, without /"};
    return name;
}

unsigned number_of(const invocation &given, char letter, unsigned otherwise)
{
    const char *value = given.value(letter), *fault = nullptr;
    if (!value)
        return otherwise;
    const auto number = static_cast<unsigned>(strtonum(value, letter == 'c' ? 1 : 0, INT_MAX, &fault));
    if (fault)
        throw misuse{quoted(value) + " is no number that -" + text::of(std::string{letter}) + " takes"};
    return number;
}

json_handle read_json(const char *word, const char *name)
{
    const bool is_input = std::strcmp(word, "-") == 0;
    const std::string json = is_input ? read_zone_text(word).bytes : word;
    const tokener_handle tokener{json_tokener_new_ex(deepest_data)};
    if (!tokener)
        throw std::bad_alloc{};
    json_tokener_set_flags(tokener.get(), JSON_TOKENER_STRICT | JSON_TOKENER_VALIDATE_UTF8);
    const int length = static_cast<int>(json.size()) + 1; // the NUL ends a number
    json_handle value{json_tokener_parse_ex(tokener.get(), json.c_str(), length)};
    const json_tokener_error error = json_tokener_get_error(tokener.get());
    if (error != json_tokener_success)
        throw misuse{text::of(name) + " is no JSON: " + text::of(json_tokener_error_desc(error))};
    if (json_tokener_get_parse_end(tokener.get()) < json.size())
        throw misuse{text::of(name) + " is no JSON: there is a NUL in it"};
    return value;
}

json_handle new_message(const char *type, const char *data)
{
    json_handle message{json_object_new_object()};
    json_object_object_add(message.get(), "type", new_string(type));
    if (data)
        json_object_object_add(message.get(), "data", read_json(data, "DATA").release());
    std::size_t length = 0;
    if (!json_object_to_json_string_length(message.get(), JSON_C_TO_STRING_SPACED, &length))
        throw std::bad_alloc{};
    if (length >= longest_body)
        throw failure{"the message is too long: " + text{length} + " characters, and " + text{longest_body - 1} +
                      " is the most"};
    return message;
}

bus_loop::bus_loop(unsigned seconds, receiver receive)
    : base_{event_base_new()}, receive_{std::move(receive)}, seconds_{seconds}
{
    timer_.reset(base_ ? evtimer_new(base_.get(), time_is_up, this) : nullptr);
    if (!timer_)
        throw std::bad_alloc{};
    running = this;
    ipc_register_callback("error", take_message);
}

bus_loop::~bus_loop()
{
    running = nullptr;
    ipc_close(fd_);
}

int bus_loop::connect(const std::string &name)
{
    name_ = name;
    look_at_socket(name);
    {
        const connecting limit{name, seconds_};
        fd_ = ipc_client_new(name.c_str(), base_.get(), take_message_or_end);
        if (fd_ != -1 && seconds_)
            seconds_ = alarm(0);
    }
    if (fd_ == -1)
        say_why_not(name);
    wait_at_most(seconds_);
    return fd_;
}

int bus_loop::serve(const std::string &name)
{
    wait_at_most(seconds_);
    return fd_ = ipc_server_new(name.c_str(), base_.get(), take_message_or_end);
}

void bus_loop::wait_at_most(unsigned seconds)
{
    const timeval limit{static_cast<time_t>(seconds), 0};
    if (seconds && event_add(timer_.get(), &limit) != 0)
        throw std::bad_alloc{};
}

void bus_loop::stop_when_interrupted(status s)
{
    when_interrupted_ = s;
    for (const int number : {SIGINT, SIGTERM, SIGHUP}) {
        signals_.emplace_back(evsignal_new(base_.get(), number, interrupted, this));
        if (!signals_.back() || event_add(signals_.back().get(), nullptr) != 0)
            throw std::bad_alloc{};
    }
}

void bus_loop::send(int fd, json_object *message)
{
    if (ipc_write(fd, message) != 0)
        throw failure{"cannot send the message"};
}

status bus_loop::run()
{
    return *run_until([] { return false; });
}

std::optional<status> bus_loop::run_until(const std::function<bool()> &is_done)
{
    while (!stopped_ && !is_done()) {
        const bool runs = event_base_loop(base_.get(), EVLOOP_ONCE) == 0;
        if (failed_)
            std::rethrow_exception(failed_);
        if (!runs && !stopped_)
            throw failure{"waiting failed"};
    }
    return std::exchange(stopped_, std::nullopt);
}

int bus_loop::pending() const
{
    return event_base_get_num_events(base_.get(), EVENT_BASE_COUNT_ADDED);
}

void bus_loop::arrive(int fd, const char *type, json_object *data)
{
    if (stopped_ || failed_)
        return; // what had arrived with the last one
    try {
        receive_(fd, decoded(type), data);
    } catch (...) {
        failed_ = std::current_exception();
    }
}

void bus_loop::end(int fd)
{
    if (fd != fd_)
        return; // a client of ours
    fd_ = -1;
    if (stopped_ || failed_)
        return;
    error(quoted(name_) + " ended the connection");
    stop(status_no);
}

void bus_loop::time_is_up(int, short, void *loop)
{
    static_cast<bus_loop *>(loop)->stop(status_late);
}

void bus_loop::interrupted(int, short, void *loop)
{
    auto *self = static_cast<bus_loop *>(loop);
    self->stop(self->when_interrupted_);
}

} // namespace vdctl
