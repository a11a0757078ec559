// What the bus commands share: messages, and a loop that waits for them within a limit of time.
#pragma once

#include "command.hpp"
#include "handles.hpp"

#include <exception>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include <event2/event.h>

namespace vdctl {

using base_handle = std::unique_ptr<event_base, released_by<::event_base_free>>;
using event_handle = std::unique_ptr<event, released_by<::event_free>>;

/// A daemon's name from the command line.
std::string daemon_name(const char *word);

/// The value of an option that is a number, or what counts without it.
unsigned number_of(const invocation &given, char letter, unsigned otherwise);

/// What is JSON on the command line ("-": on standard input), null for null.
json_handle read_json(const char *word, const char *name);

/// The message {"type": ..., "data": ...}; DATA, where there is one, as on the command line.
json_handle new_message(const char *type, const char *data);

/// Runs the bus for one command, until something stops it. There is one at a time.
class bus_loop {
public:
    /// Gets each message, its type as the sender wrote it; data is borrowed.
    using receiver = std::function<void(int fd, const std::string &type, json_object *data)>;

    /// seconds: from the first wait on; 0 is for ever
    bus_loop(unsigned seconds, receiver receive);
    ~bus_loop();
    bus_loop(const bus_loop &) = delete;
    bus_loop &operator=(const bus_loop &) = delete;

    /// Gives the descriptor, or fails with the reason. Where nobody accepts in time it ends vdctl.
    int connect(const std::string &name);
    /// Opens a server, and gives its descriptor or -1.
    int serve(const std::string &name);
    void send(int fd, json_object *message);
    void stop_when_interrupted(status s);

    void stop(status s) { stopped_ = s; }
    /// Runs until it is stopped, and gives what it was stopped with: status_no when the daemon ended the connection,
    /// status_late when time was up.
    status run();
    /// The same, or none once it is done.
    std::optional<status> run_until(const std::function<bool()> &is_done);

    /// How much there is to wait for: more than before while a message has not left.
    int pending() const;
    event_base *base() const { return base_.get(); }

    // For the bus and the event loop; what they throw ends the loop.
    void arrive(int fd, const char *type, json_object *data);
    void end(int fd);

private:
    void wait_at_most(unsigned seconds);
    static void time_is_up(int, short, void *loop);
    static void interrupted(int, short, void *loop);

    base_handle base_;
    receiver receive_;
    unsigned seconds_;
    event_handle timer_;
    std::vector<event_handle> signals_;
    status when_interrupted_ = status_yes;
    std::string name_; // of the daemon
    int fd_ = -1;      // of the connection
    std::optional<status> stopped_;
    std::exception_ptr failed_;
};

} // namespace vdctl
