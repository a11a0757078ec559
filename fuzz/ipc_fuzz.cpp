// The stream of a bus connection: any bytes, cut anywhere, to a server whose handlers answer. The first byte says how
// long the cuts are. What the handlers get, and the answers that come back, must be what a plain reading of the whole
// stream gives. Then each body of it, and all of its bytes and the first cut as one body, is sent alone, and a message
// on a further connection must mean what it says.
#include "device.hpp"

#include "ipc.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include <endian.h>
#include <event2/event.h>
#include <json-c/json.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

constexpr std::size_t longest_body = 999'995;
constexpr std::size_t most_alone = 8; // more would only cost time

event_base *base;
std::vector<std::string> handled; // "type data" of each message
bool has_ended;

struct released {
    void operator()(json_object *object) const { json_object_put(object); }
};
using json_handle = std::unique_ptr<json_object, released>;

void require(bool holds)
{
    if (!holds)
        std::abort();
}

std::string shown(std::string_view type, json_object *data)
{
    return std::string{type} + ' ' + json_object_to_json_string(data);
}

/// Answers each message with its own data; "close" goes against the rules, and the others use them.
void handle(int fd, const char *type, json_object *data)
{
    if (std::strcmp(type, "error") == 0 && !data) {
        has_ended = true;
        ipc_server_remove_subscriber(fd);
        return;
    }
    handled.push_back(shown(type, data));
    const json_handle answer{json_object_new_object()};
    json_object_object_add(answer.get(), "type", json_object_new_string("answer"));
    json_object_object_add(answer.get(), "data", json_object_get(data));
    if (std::strcmp(type, "subscribe") == 0) {
        ipc_server_add_subscriber("news", fd);
        require(ipc_server_write_to_subscribers("news", answer.get()) == 0);
        return;
    }
    require(ipc_write(fd, answer.get()) == 0);
    if (std::strcmp(type, "register") == 0)
        ipc_register_callback(json_object_get_string(data), handle);
    else if (std::strcmp(type, "deregister") == 0)
        ipc_deregister_all_callbacks(json_object_get_string(data));
    else if (std::strcmp(type, "close") == 0)
        ipc_close(fd);
}

std::uint32_t length_at(std::string_view stream)
{
    std::uint32_t header;
    std::memcpy(&header, stream.data(), sizeof header);
    return be32toh(header);
}

std::vector<std::string> bodies_of(std::string_view stream)
{
    std::vector<std::string> bodies;
    while (stream.size() >= 4 && length_at(stream) <= longest_body && stream.size() - 4 >= length_at(stream)) {
        bodies.emplace_back(stream.substr(4, length_at(stream)));
        stream.remove_prefix(4 + bodies.back().size());
    }
    return bodies;
}

/// What the handlers have to see of a whole stream.
std::vector<std::string> read_plainly(std::string_view stream)
{
    std::vector<std::string> messages;
    for (const std::string &body : bodies_of(stream)) {
        const json_handle message{json_tokener_parse(body.c_str())};
        json_object *type = nullptr;
        if (!json_object_object_get_ex(message.get(), "type", &type) || !json_object_is_type(type, json_type_string))
            continue;
        std::string_view text = json_object_to_json_string(type);
        text = text.substr(1, text.size() - 2);
        json_object *data = json_object_object_get(message.get(), "data");
        if (text == "error" && !data)
            continue; // looks like the notice
        messages.push_back(shown(text, data));
        if (text == "close")
            break;
    }
    return messages;
}

int connect_peer()
{
    sockaddr_un address{AF_UNIX, "/var/run/vandrel/ipc_fuzz.sock"};
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0);
    require(connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0);
    return fd;
}

void run(std::size_t bytes)
{
    for (std::size_t turns = bytes / 4096 + 3; turns > 0; --turns)
        event_base_loop(base, EVLOOP_NONBLOCK);
}

/// Adds the answers that came to answers.
void receive(int fd, std::string &answers)
{
    char part[1 << 16];
    for (ssize_t size; (size = recv(fd, part, sizeof part, 0)) > 0;)
        answers.append(part, static_cast<std::size_t>(size));
}

void send_in_cuts(int fd, std::string_view stream, std::size_t cut, std::string &answers)
{
    while (!stream.empty()) {
        const ssize_t sent = send(fd, stream.data(), std::min(cut, stream.size()), MSG_NOSIGNAL);
        if (sent < 0 && errno != EAGAIN)
            return; // the server has closed it
        stream.remove_prefix(static_cast<std::size_t>(std::max<ssize_t>(sent, 0)));
        run(static_cast<std::size_t>(std::max<ssize_t>(sent, 0)));
        receive(fd, answers);
    }
}

std::size_t count_frames(std::string_view answers)
{
    std::size_t frames = 0;
    for (; !answers.empty(); ++frames) {
        require(answers.size() >= 4 && answers.size() - 4 >= length_at(answers));
        require(answers[3 + length_at(answers)] == '\0');
        answers.remove_prefix(4 + length_at(answers));
    }
    return frames;
}

/// A connection from its beginning to its end.
void converse(std::string_view stream, std::size_t cut)
{
    handled.clear();
    has_ended = false;
    const int fd = connect_peer();
    std::string answers;
    run(0);
    send_in_cuts(fd, stream, cut, answers);
    const std::vector<std::string> expected = read_plainly(stream);
    const bool closes = !expected.empty() && expected.back().starts_with("close ");
    require(handled == expected);
    // Where the server dropped the connection, the answers that had not left yet are lost.
    require(closes || has_ended || count_frames(answers) == expected.size());
    close(fd);
    run(0);
    require(closes || has_ended);
}

void send_alone(std::string_view body)
{
    const std::uint32_t header = htobe32(static_cast<std::uint32_t>(body.size()));
    std::string frame(reinterpret_cast<const char *>(&header), sizeof header);
    frame += body;
    converse(frame, frame.size());
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    enter_device();
    base = event_base_new();
    require(ipc_server_new("fuzz", base, handle) >= 0);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *input, std::size_t size)
{
    if (size == 0)
        return 0;
    const std::string_view stream{reinterpret_cast<const char *>(input) + 1, size - 1};
    converse(stream, input[0] == 0 ? size : input[0]);

    std::vector<std::string> bodies = bodies_of(stream);
    bodies.resize(std::min(bodies.size(), most_alone));
    bodies.emplace_back(stream.substr(0, longest_body));
    bodies.emplace_back(stream.substr(0, input[0]));
    for (const std::string &body : bodies) {
        send_alone(body);
        send_alone(R"({"type":"vc-\u0041lice","data":["\u00e9",{"a":1}]})");
    }
    ipc_deregister_all_callbacks(nullptr);
    return 0;
}
