#pragma once

#include <array>
#include <cstdint>
#include <string>

#include "kestro/core/export.h"

namespace kestro {

/// A random (version 4) UUID from a cryptographic source (the kernel's getrandom, read in
/// blocks and consumed 16 bytes at a time so that ids stay cheap on the logging path).
struct KESTRO_API UUID {
    std::array<std::uint8_t, 16> bytes{};

    static UUID random();
    /// Canonical text: 36 characters, upper-case hexadecimal, hyphens after the 8th, 12th,
    /// 16th and 20th digit.
    std::string string() const;
    /// Writes the 36 characters of string() to out.
    void writeTo(char out[36]) const;

    bool operator==(const UUID&) const = default;
};

/// A fresh random UUID in canonical text form.
KESTRO_API std::string newUUIDString();

}  // namespace kestro
