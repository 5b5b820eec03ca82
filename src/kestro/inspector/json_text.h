#pragma once

// JSON helpers of the detail screens: recognising a JSON body and writing values out indented.

#include <boost/json/object.hpp>
#include <boost/json/value.hpp>
#include <optional>
#include <string>
#include <string_view>

#include "kestro/core/export.h"

namespace kestro {

/// Whether text is a JSON document whose top level is an object or an array (no fragments),
/// in valid UTF-8. Reads the text without building it; any depth.
KESTRO_API bool parsesAsJSONContainer(std::string_view text);

/// The value written as indented JSON (two spaces per level, " : " between key and value,
/// members in their order), without a trailing line feed. Nothing when it cannot be written:
/// a number that is not finite, or a text that is not valid UTF-8. Any depth: the writer
/// keeps its own stack.
KESTRO_API std::optional<std::string> prettyPrintedJSON(const boost::json::value& value);
KESTRO_API std::optional<std::string> prettyPrintedJSON(const boost::json::object& object);
/// The same without line breaks and blanks ({"a":[1,2.5]}); numbers as above.
KESTRO_API std::optional<std::string> compactJSON(const boost::json::object& object);

}  // namespace kestro
