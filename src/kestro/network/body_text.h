#pragma once

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

/// Standard base64 (RFC 4648, with padding, no line breaks).
KESTRO_API std::string base64Encode(std::string_view bytes);
/// The bytes of standard base64 text as base64Encode writes it: the standard alphabet, padded
/// to a multiple of four, no line breaks or other characters. Nothing for any other text; the
/// empty text decodes to no bytes.
KESTRO_API std::optional<std::string> base64Decode(std::string_view text);

}  // namespace kestro
