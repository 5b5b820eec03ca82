#pragma once

// An image preview of a detail screen: the bytes decoded once (PNG, JPEG, GIF, BMP and the
// other formats stb_image reads), uploaded through the host's texture hooks, drawn scaled to fit
// at most a given height with rounded corners. Bytes that do not decode say so. UI thread.

#include <imgui.h>

#include <memory>
#include <string>

#include "kestro/imgui/image_textures.h"

namespace kestro::imgui::inspector {

class ImagePreview {
  public:
    explicit ImagePreview(std::shared_ptr<const std::string> bytes);
    ~ImagePreview();
    ImagePreview(const ImagePreview&) = delete;
    ImagePreview& operator=(const ImagePreview&) = delete;

    void draw(float maxHeight);

    bool decoded() const { return width_ > 0; }
    int width() const { return width_; }
    int height() const { return height_; }

  private:
    std::shared_ptr<const std::string> bytes_;
    int width_ = 0, height_ = 0;
    std::string failure_;
    ImTextureID texture_ = nullptr;
    ImageTextureHooks hooks_;  // the ones that made texture_
    bool uploaded_ = false;
};

}  // namespace kestro::imgui::inspector
