#include "ipc_frame.hpp"

#include "json.hpp"
#include "json_census.hpp"
#include "lasting.hpp"

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

constexpr std::size_t max_message_memory = 64 << 20;

// What json-c allocates for a value of each kind, with malloc's own part, on a machine of 64 bits.
constexpr std::size_t object_cost = 144; // without its table
constexpr std::size_t slot_cost = 40;    // of a table
constexpr std::size_t array_cost = 384;  // with the room for its first values, which is not used again where it lies
constexpr std::size_t value_cost = 16;   // where it lies in an array
constexpr std::size_t text_cost = 80;
constexpr std::size_t scalar_cost = 96; // of a fraction; an integer takes less
constexpr std::size_t key_cost = 32;
constexpr std::size_t text_byte_cost = 3; // in the text, and while it is read
constexpr std::size_t body_byte_cost = 2; // in the pieces that came, and put together

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

std::uint64_t frame_size(std::string_view bytes)
{
    std::uint32_t body_bytes = 0;
    if (bytes.size() >= header_bytes)
        std::memcpy(&body_bytes, bytes.data(), header_bytes);
    return std::uint64_t{header_bytes} + be32toh(body_bytes);
}

bool is_too_costly(std::string_view body)
{
    json_census census;
    census.read(body);
    const json_counts &counts = census.counts();
    const std::size_t values = counts.objects + counts.arrays + counts.texts + counts.scalars + counts.nulls;
    const std::size_t cost = counts.objects * object_cost + census.table_slots() * slot_cost +
                             counts.arrays * array_cost + values * value_cost + counts.texts * text_cost +
                             counts.scalars * scalar_cost + counts.keys * key_cost +
                             counts.text_bytes * text_byte_cost + body.size() * body_byte_cost;
    return cost > max_message_memory;
}

/// The tokener is kept only after a value that was complete before the end: any other text may leave its depth or half
/// a character behind, which json_tokener_reset does not clear. Without a value, null or no memory, success says
/// nothing.
json_handle parse_body(std::string_view body)
{
    tokener_handle tokener = take_tokener();
    if (!tokener)
        return nullptr;
    const auto text_bytes = static_cast<int>(strnlen(body.data(), body.size()));
    json_handle message{json_tokener_parse_ex(tokener.get(), body.data(), text_bytes)};
    if (json_tokener_get_error(tokener.get()) == json_tokener_success) {
        if (message && body.size() <= long_body_bytes) // it would keep room for the longest text that it has seen
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
    text_ = json_text(object_, body_bytes_);
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
