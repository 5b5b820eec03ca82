#pragma once

#include <string>

#include "kestro/core/export.h"
#include "kestro/records/records.h"

namespace kestro {

/// A command for a POSIX shell that repeats the exchange's request with curl: method, URL,
/// every captured header but Content-Length (curl counts the body itself), and the body as
/// stored. Each argument is single-quoted; the command is split over lines ending in " \" so
/// it pastes as one. A body that holds bytes rather than text (a cut body of a non-text type,
/// or text holding NUL) is written by printf's octal escapes into curl's standard input
/// (`printf '...' | curl ... --data-binary @-`). Pure: any thread.
KESTRO_API std::string curlCommand(const RequestTypeRequest& exchange);

/// `text` as one single-quoted POSIX shell word: a single quote inside becomes '\''.
KESTRO_API std::string shellQuote(std::string_view text);

}  // namespace kestro
