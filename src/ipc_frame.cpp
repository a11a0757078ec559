#include "ipc_frame.hpp"

#include "lasting.hpp"

#include <cstdint>
#include <cstdlib>
#include <cstring>

#include <endian.h>

#include <event2/buffer.h>

namespace vandrel {

struct shared_frame {
    std::size_t holders;

    char *bytes() { return reinterpret_cast<char *>(this + 1); }
};

namespace {

constexpr std::size_t kept_tokener_bytes = 65'536;
constexpr std::size_t shared_from_bytes = 2048; // below, a copy is cheaper than sharing

lasting<tokener_handle> kept_tokener; // from one message to the next

void release_frame(const void *, std::size_t, void *argument)
{
    auto *frame = static_cast<shared_frame *>(argument);
    if (--frame->holders == 0)
        std::free(frame);
}

tokener_handle take_tokener()
{
    tokener_handle kept = std::move(kept_tokener.value);
    return kept ? std::move(kept) : tokener_handle{json_tokener_new()};
}

} // namespace

std::size_t frame_size(std::string_view bytes)
{
    std::uint32_t body_bytes = 0;
    if (bytes.size() >= header_bytes)
        std::memcpy(&body_bytes, bytes.data(), header_bytes);
    return header_bytes + be32toh(body_bytes);
}

/// The tokener is kept only after a value that was complete before the end: any other text may leave its depth or half
/// a character behind, which json_tokener_reset does not clear.
json_handle parse_body(std::string_view body)
{
    tokener_handle tokener = take_tokener();
    if (!tokener)
        return nullptr;
    const auto text_bytes = static_cast<int>(strnlen(body.data(), body.size()));
    json_handle message{json_tokener_parse_ex(tokener.get(), body.data(), text_bytes)};
    if (json_tokener_get_error(tokener.get()) == json_tokener_success) {
        if (body.size() <= kept_tokener_bytes) // it would keep room for the longest text that it has seen
            kept_tokener.value = std::move(tokener);
        return message;
    }
    if (json_tokener_get_error(tokener.get()) == json_tokener_continue)
        message.reset(json_tokener_parse_ex(tokener.get(), "", 1));
    return json_tokener_get_error(tokener.get()) == json_tokener_success ? std::move(message) : nullptr;
}

outgoing_frame::~outgoing_frame()
{
    if (shared_)
        release_frame(nullptr, 0, shared_);
}

bool outgoing_frame::make_text()
{
    if (text_)
        return true;
    text_ = json_object_to_json_string_length(object_, JSON_C_TO_STRING_SPACED, &body_bytes_);
    ++body_bytes_;
    return text_ != nullptr;
}

bool outgoing_frame::append_to(evbuffer *output)
{
    return for_several_ && frame_bytes() >= shared_from_bytes ? append_shared(output) : append_copy(output);
}

bool outgoing_frame::append_copy(evbuffer *output) const
{
    evbuffer_iovec space;
    if (evbuffer_reserve_space(output, static_cast<ev_ssize_t>(frame_bytes()), &space, 1) != 1)
        return false;
    fill(static_cast<char *>(space.iov_base));
    space.iov_len = frame_bytes();
    return evbuffer_commit_space(output, &space, 1) == 0;
}

bool outgoing_frame::append_shared(evbuffer *output)
{
    if (!shared_) {
        shared_ = static_cast<shared_frame *>(std::malloc(sizeof(shared_frame) + frame_bytes()));
        if (!shared_)
            return false;
        shared_->holders = 1;
        fill(shared_->bytes());
    }
    if (evbuffer_add_reference(output, shared_->bytes(), frame_bytes(), release_frame, shared_) != 0)
        return false;
    ++shared_->holders;
    return true;
}

void outgoing_frame::fill(char *frame) const
{
    const std::uint32_t header = htobe32(static_cast<std::uint32_t>(body_bytes_));
    std::memcpy(frame, &header, header_bytes);
    std::memcpy(frame + header_bytes, text_, body_bytes_);
}

} // namespace vandrel
