#pragma once

#include <chrono>
#include <string>

#include "kestro/core/export.h"

namespace kestro {

using TimePoint = std::chrono::system_clock::time_point;

/// ISO 8601 time of day in UTC with milliseconds and "Z", e.g. "14:03:27.481Z".
KESTRO_API std::string timeOfDay(TimePoint t);
/// Writes the 13 characters of timeOfDay(t) to out (no terminator), with integer arithmetic
/// only: it runs on every log call.
KESTRO_API void timeOfDayTo(TimePoint t, char out[13]);

/// ISO 8601 internet date-time with milliseconds in UTC, e.g. "2024-05-01T12:34:56.789Z".
KESTRO_API std::string iso8601WithMilliseconds(TimePoint t);

/// Seconds since 1970-01-01T00:00:00Z as a double, and back (microsecond precision).
KESTRO_API double secondsSince1970(TimePoint t);
KESTRO_API TimePoint fromSecondsSince1970(double seconds);

}  // namespace kestro
