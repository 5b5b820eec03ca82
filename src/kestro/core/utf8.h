#pragma once

#include <string_view>

#include "kestro/core/export.h"

namespace kestro {

/// Whether bytes are well-formed UTF-8 (no overlongs, no surrogates, nothing above U+10FFFF).
KESTRO_API bool isValidUTF8(std::string_view bytes);

}  // namespace kestro
