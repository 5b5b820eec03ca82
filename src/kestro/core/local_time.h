#pragma once

#include <string>
#include <string_view>

#include "kestro/core/export.h"
#include "kestro/core/time_text.h"

namespace kestro {

/// Formats a point in time in the process's current time zone and default locale with an ICU
/// date pattern ("HH:mm:ss.SSS", "yyyy-MM-dd'T'HH:mm:ss.SSSZ"). Each thread keeps one formatter
/// per pattern, so formatting a visible list's rows every frame costs no set-up. An invalid
/// pattern gives the empty text.
KESTRO_API std::string formatLocalTime(TimePoint t, std::string_view icuPattern);

/// Makes the formatters of the calling thread follow a new default time zone (ICU reads the
/// zone when a formatter is made). Used after the time zone is changed at run time.
KESTRO_API void resetLocalTimeFormatters();

}  // namespace kestro
