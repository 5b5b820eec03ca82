#include "kestro/imgui/image_textures.h"

namespace kestro::imgui {
namespace {
ImageTextureHooks& hooks() {
    static ImageTextureHooks h;
    return h;
}
}  // namespace

void setImageTextureHooks(ImageTextureHooks h) { hooks() = std::move(h); }
const ImageTextureHooks& imageTextureHooks() { return hooks(); }

}  // namespace kestro::imgui
