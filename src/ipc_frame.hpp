// A frame of the bus: the length of its body (4 bytes, big-endian) and the body, the JSON text of one object and a NUL.
#pragma once

#include "handles.hpp"

#include <cstddef>
#include <cstdint>
#include <string_view>

struct evbuffer;

namespace vandrel {

inline constexpr std::size_t header_bytes = 4;
inline constexpr std::size_t max_body_bytes = 999'995;
inline constexpr std::size_t max_frame_bytes = header_bytes + max_body_bytes;

/// The size of the frame at the start of the bytes, as far as they tell: that of a header until one has come. A header
/// may announce more than a size of 32 bits can hold.
std::uint64_t frame_size(std::string_view bytes);

inline constexpr std::size_t long_body_bytes = 65'536; // from here on a body's memory is looked at

/// Whether a body would take more than 64 MiB once it is parsed: 1 MB of empty objects takes 262.
bool is_too_costly(std::string_view body);

/// What json_tokener_parse makes of a body's text, which ends at its NUL or else with the body.
json_handle parse_body(std::string_view body);

/// A whole frame that several connections have queued; its bytes follow.
struct shared_frame;

/// A message on its way out. Its text belongs to the object, which must outlive it.
class outgoing_frame {
public:
    outgoing_frame(json_object *object, bool for_several) noexcept : object_{object}, for_several_{for_several} {}
    outgoing_frame(const outgoing_frame &) = delete;
    outgoing_frame &operator=(const outgoing_frame &) = delete;
    ~outgoing_frame();

    bool make_text(); // when the first connection needs it; false without memory
    std::size_t body_bytes() const { return body_bytes_; }
    std::size_t frame_bytes() const { return header_bytes + body_bytes_; }
    bool append_to(evbuffer *output); // whole, or nothing of it and false

private:
    bool append_copy(evbuffer *output) const;
    bool append_shared(evbuffer *output);
    void fill(char *frame) const;

    json_object *object_;
    bool for_several_;
    const char *text_ = nullptr;
    std::size_t body_bytes_ = 0; // the text and its NUL
    shared_frame *shared_ = nullptr;
};

} // namespace vandrel
