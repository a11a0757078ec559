#include "json_document.hpp"

#include "json_tree.hpp"

#include <new>
#include <utility>

#include <unistd.h>

namespace vandrel {

namespace {

constexpr std::size_t chunk_size = std::size_t{16} * 1024; // of a file; it stays in the processor's caches

} // namespace

json_parsing parse_json(int fd)
{
    const tokener_handle tokener{json_tokener_new()};
    if (!tokener || lseek(fd, 0, SEEK_SET) != 0)
        throw std::bad_alloc{};
    char chunk[chunk_size];
    json_census census;
    json_handle document;
    do {
        const ssize_t length = uninterrupted([&] { return read(fd, chunk, sizeof chunk); });
        if (length <= 0)
            return {};
        census.read({chunk, static_cast<std::size_t>(length)});
        document.reset(json_tokener_parse_ex(tokener.get(), chunk, static_cast<int>(length)));
    } while (json_tokener_get_error(tokener.get()) == json_tokener_continue);
    const json_tokener_error error = json_tokener_get_error(tokener.get());
    if (error > json_tokener_error_size) // for want of memory, which json-c tells from 0.17 on
        throw std::bad_alloc{};
    if (error != json_tokener_success)
        return {};
    return {std::move(document), census.counts()};
}

/// While one document keeps its memory, the other lacks the same part only if none of it was lost for want of memory.
json_handle parse_json_twice(int fd)
{
    json_parsing one = parse_json(fd);
    const json_parsing other = parse_json(fd);
    if (!one.document || !other.document || !is_same_tree(one.document->get(), other.document->get()))
        throw std::bad_alloc{};
    return std::move(*one.document);
}

json_handle parse_whole_json(int fd)
{
    json_parsing first = parse_json(fd);
    if (!first.document)
        return nullptr;
    if (counts_of(first.document->get()) == first.counts)
        return std::move(*first.document);
    first.document.reset(); // there may be no memory for three
    return parse_json_twice(fd);
}

} // namespace vandrel
