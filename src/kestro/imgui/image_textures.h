#pragma once

// How the inspector's image previews reach the GPU. The host installs the functions that make
// a texture from RGBA pixels and release it (the demo host's make OpenGL textures); without
// them a preview says that it cannot be shown. UI thread.

#include <imgui.h>

#include <cstdint>
#include <functional>

#include "kestro/core/export.h"

namespace kestro::imgui {

struct KESTRO_API ImageTextureHooks {
    /// A texture of width × height RGBA pixels (8 bits each, rows top to bottom); nullptr when
    /// it could not be made.
    std::function<ImTextureID(const std::uint8_t* rgba, int width, int height)> create;
    /// Releases a texture that create made.
    std::function<void(ImTextureID)> destroy;
};

/// Installs the hooks (empty hooks remove them). Textures made before keep the hooks they were
/// made with until released.
KESTRO_API void setImageTextureHooks(ImageTextureHooks hooks);
KESTRO_API const ImageTextureHooks& imageTextureHooks();

}  // namespace kestro::imgui
