#pragma once

// Images as the JSON viewer's attributed text refers to them: a name and a natural size, looked
// up in a process-wide registry, and the inline attachment that places one in a line of text.
// The drawing layer decides how a name is painted.
//
// Thread safety: Image and TextAttachment are plain values. The registry may be read and
// changed from any thread.

#include <optional>
#include <string>
#include <string_view>

#include "kestro/core/export.h"

namespace kestro {

/// A named image with its natural size in points. Images are looked up by name among the
/// registered ones ("expand" and "fold", the viewer's icons, are always there); the drawing layer
/// decides how a name is painted.
struct KESTRO_API Image {
    std::string name;
    double width = 0;
    double height = 0;

    /// The registered image of that name, or nothing.
    static std::optional<Image> named(std::string_view name);
    /// Adds or replaces an image. Any thread.
    static void registerNamed(Image image);

    friend bool operator==(const Image&, const Image&) = default;
};

struct KESTRO_API Rect {
    double x = 0;
    double y = 0;
    double width = 0;
    double height = 0;
    friend bool operator==(const Rect&, const Rect&) = default;
};

/// An inline image: drawn in place of one character, its bounds relative to the baseline.
struct KESTRO_API TextAttachment {
    Image image;
    Rect bounds;
    friend bool operator==(const TextAttachment&, const TextAttachment&) = default;
};

}  // namespace kestro
