#pragma once

#include <boost/json/object.hpp>
#include <boost/json/value.hpp>
#include <cstdint>
#include <optional>

#include "kestro/core/export.h"

namespace kestro {

/// The value as a signed 64-bit integer: an integral number within range. A fractional number
/// with no fraction (12.0) counts as integral; 12.5, NaN and numbers out of range do not.
KESTRO_API std::optional<std::int64_t> jsonInteger(const boost::json::value& v);

/// Whether every number in `v` is finite. JSON text has no form for infinities and NaN, so a
/// value holding one cannot be written as JSON (it is neither stored nor sent as a body).
KESTRO_API bool allNumbersFinite(const boost::json::value& v);
KESTRO_API bool allNumbersFinite(const boost::json::object& o);

}  // namespace kestro
