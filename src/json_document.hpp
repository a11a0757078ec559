// JSON files, parsed so that nothing of them is lost unnoticed.
#pragma once

#include "handles.hpp"
#include "json_census.hpp"

#include <optional>

namespace vandrel {

/// What json-c makes of a file, and what stands in it. Without a document, the file can't be parsed. One that is null
/// means that the file says so, or that memory ran out. A document whose own counts are those of the file is whole.
struct json_parsing {
    std::optional<json_handle> document;
    json_counts counts;
};

// All read the file from its beginning, and throw when they see that memory ran out.

json_parsing parse_json(int fd);

/// For a file whose counts may rightly differ from those of its document. Holds it in memory twice.
json_handle parse_json_twice(int fd);

/// The whole document; null where the file can't be parsed or says null.
json_handle parse_whole_json(int fd);

} // namespace vandrel
