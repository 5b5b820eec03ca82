#include "devservice/sample_image.h"

#include <zlib.h>

#include <cstdint>
#include <cstdlib>

namespace kestro::devservice {
namespace {

void putBigEndian32(std::string& out, std::uint32_t v) {
    out.push_back(static_cast<char>(v >> 24));
    out.push_back(static_cast<char>(v >> 16));
    out.push_back(static_cast<char>(v >> 8));
    out.push_back(static_cast<char>(v));
}

// A chunk is its length, its four-letter type, its data, and a CRC-32 over type and data.
void putChunk(std::string& out, const char type[4], const std::string& data) {
    putBigEndian32(out, static_cast<std::uint32_t>(data.size()));
    const std::size_t typeAt = out.size();
    out.append(type, 4);
    out += data;
    uLong crc = crc32(0L, Z_NULL, 0);
    crc = crc32(crc, reinterpret_cast<const Bytef*>(out.data() + typeAt), 4 + data.size());
    putBigEndian32(out, static_cast<std::uint32_t>(crc));
}

}  // namespace

std::string encodePNG(int width, int height, const std::string& rgb) {
    if (width <= 0 || height <= 0 ||
        rgb.size() != static_cast<std::size_t>(width) * static_cast<std::size_t>(height) * 3) {
        return {};
    }
    // Each scan line is preceded by its filter type; 0 (none) keeps the encoder trivial.
    std::string raw;
    raw.reserve(rgb.size() + static_cast<std::size_t>(height));
    const std::size_t stride = static_cast<std::size_t>(width) * 3;
    for (int y = 0; y < height; ++y) {
        raw.push_back('\0');
        raw.append(rgb, static_cast<std::size_t>(y) * stride, stride);
    }
    uLongf packedSize = compressBound(raw.size());
    std::string packed(packedSize, '\0');
    if (compress2(reinterpret_cast<Bytef*>(packed.data()), &packedSize,
                  reinterpret_cast<const Bytef*>(raw.data()), raw.size(),
                  Z_BEST_COMPRESSION) != Z_OK) {
        return {};
    }
    packed.resize(packedSize);

    std::string header;
    putBigEndian32(header, static_cast<std::uint32_t>(width));
    putBigEndian32(header, static_cast<std::uint32_t>(height));
    header += std::string{8, 2, 0, 0, 0};  // depth 8, RGB, deflate, adaptive filters, no interlace

    std::string png("\x89PNG\r\n\x1a\n", 8);
    putChunk(png, "IHDR", header);
    putChunk(png, "IDAT", packed);
    putChunk(png, "IEND", {});
    return png;
}

const std::string& samplePNG() {
    static const std::string png = [] {
        constexpr int size = 64;
        std::string rgb;
        rgb.reserve(size * size * 3);
        for (int y = 0; y < size; ++y) {
            for (int x = 0; x < size; ++x) {
                const bool band = std::abs(x - y) < 6;
                rgb.push_back(static_cast<char>(band ? 255 : x * 4));
                rgb.push_back(static_cast<char>(band ? 255 : y * 4));
                rgb.push_back(static_cast<char>(band ? 255 : 160));
            }
        }
        return encodePNG(size, size, rgb);
    }();
    return png;
}

}  // namespace kestro::devservice
