// All commands and options. To add a command, declare its function below, write it in a file of its own (CMake finds
// it) and add a row: help, usage, and the check of words and options follow from the row. The function gives an exit
// status; where no answer is to be had it throws a failure (output.hpp) before it prints anything.
#include "command.hpp"

namespace vdctl {

int bus_call(const invocation &given);
int bus_list(const invocation &given);
int bus_listen(const invocation &given);
int bus_send(const invocation &given);
int bus_serve(const invocation &given);
int doctor(const invocation &given);
int vpn(const invocation &given);
int zones_check(const invocation &given);
int zones_diff(const invocation &given);
int zones_matrix(const invocation &given);
int zones_reach(const invocation &given);
int zones_who(const invocation &given);
int zones_why(const invocation &given);

namespace {

constexpr command rows[] = {
    {"zones why", "PEER TARGET", 2, 2, "fn",
     "whether a peer may reach a target, and by which line of the file or why not", zones_why},
    {"zones check", "[FILE]", 0, 1, "f", "mistakes in a zone file, by line", zones_check},
    {"zones diff", "NEW", 1, 1, "f", "what NEW would allow more and less than the live file", zones_diff},
    {"zones reach", "PEER", 1, 1, "fn", "all that a peer reaches", zones_reach},
    {"zones who", "TARGET", 1, 1, "fn", "all who reach a target", zones_who},
    {"zones matrix", "", 0, 0, "fnH", "all that every peer reaches", zones_matrix},
    {"bus list", "", 0, 0, "", "who serves on the message bus", bus_list},
    {"bus call", "NAME TYPE [DATA]", 2, 3, "tr", "asks a daemon, and prints its answer", bus_call},
    {"bus send", "NAME TYPE [DATA]", 2, 3, "tc", "sends a daemon a message, and waits until it has read it", bus_send},
    {"bus listen", "NAME [TYPE [DATA]]", 1, 3, "tc", "prints what a daemon sends, after sending it a message",
     bus_listen},
    {"bus serve", "NAME [REPLIES]", 1, 2, "tc", "stands in for a daemon", bus_serve},
    {"doctor", "", 0, 0, "", "what of the set-up is missing or wrong", doctor},
    {"vpn", "[PEER]", 0, 1, "", "connections, and what their state files say", vpn},
};

constexpr option option_rows[] = {
    {'j', "json", nullptr, "JSON instead of text"},
    {'q', "quiet", nullptr, "errors only; the exit status tells the rest"},
    {'h', "help", nullptr, "this text"},
    {'V', "version", nullptr, "the version"},
    {'f', "file", "FILE", "asks about FILE (-: standard input) instead of the live zone file"},
    {'n', "no-schedule", nullptr, "leaves schedules alone"},
    {'H', "html", nullptr, "one page for a browser"},
    {'t', "timeout", "SECONDS", "how long to wait (0: for ever)"},
    {'c', "count", "COUNT", "how many messages"},
    {'r', "reply-type", "TYPE", "waits for a message of this type"},
};

} // namespace

const std::span<const command> commands{rows};
const std::span<const option> options{option_rows};

} // namespace vdctl
