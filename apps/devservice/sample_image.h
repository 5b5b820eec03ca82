#pragma once

#include <string>

namespace kestro::devservice {

/// A small PNG image (64 × 64 pixels, 8-bit RGB, a colour gradient with a diagonal band), built
/// in memory once and reused, so that the sample API can serve a real image without a file.
/// Any thread.
const std::string& samplePNG();

/// Builds a PNG of the given size from tightly packed 8-bit RGB rows. Empty when the pixels do
/// not match the size or compression fails.
std::string encodePNG(int width, int height, const std::string& rgb);

}  // namespace kestro::devservice
