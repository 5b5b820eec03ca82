#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "kestro/core/export.h"
#include "kestro/core/utf8.h"  // isValidUTF8, part of this header's surface

namespace kestro {

/// Whether a (lowercased) content type names text: it contains "application/json",
/// "application/ld+json", "image/svg+xml", "application/xml" or "text/".
KESTRO_API bool isTextRequest(std::string_view contentType);

/// The body as captured: for a text content type the bytes as UTF-8 text, or
/// "[non-utf8 text]" when they are not valid UTF-8; otherwise standard base64 without line
/// breaks. The content type is lowercased here. The whole body is converted.
KESTRO_API std::string capturedBodyText(std::string_view bytes, std::string_view contentType);

/// `bytes` without a UTF-8 sequence that the end cuts short: a prefix of valid UTF-8 text
/// ends at a character boundary. Anything else is kept.
KESTRO_API std::string_view withoutCutSequence(std::string_view bytes);

/// The captured form of a body of which the capture kept the first bytes, `kept` (all of them,
/// or at least the first `maxBytes`), out of `totalBytes` in all. A body longer than
/// `maxBytes` (a limit of 0 or less is none) is cut to its first `maxBytes` bytes, and for a
/// text content type further to the last whole UTF-8 character, before it is converted as
/// capturedBodyText() does; `totalBytes` then says it was cut.
struct CapturedBody {
    std::string text;
    std::optional<std::int64_t> totalBytes;  // set when the body was cut
};
KESTRO_API CapturedBody capturedBody(std::string_view kept, std::int64_t totalBytes,
                                     std::string_view contentType, std::int64_t maxBytes);

/// Standard base64 (RFC 4648, with padding, no line breaks).
KESTRO_API std::string base64Encode(std::string_view bytes);
/// The bytes of standard base64 text as base64Encode writes it: the standard alphabet, padded
/// to a multiple of four, no line breaks or other characters. Nothing for any other text; the
/// empty text decodes to no bytes.
KESTRO_API std::optional<std::string> base64Decode(std::string_view text);

}  // namespace kestro
