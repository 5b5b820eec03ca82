#include "kestro/imgui/inspector/image_preview.h"

#include <stb_image.h>

#include <algorithm>
#include <limits>

#include "kestro/imgui/item_probe.h"

namespace kestro::imgui::inspector {
namespace {
// Larger images are not decoded: a preview does not need them, and a forged header could ask
// for gigabytes.
constexpr int kMaxSide = 8192;
}  // namespace

ImagePreview::ImagePreview(std::shared_ptr<const std::string> bytes) : bytes_(std::move(bytes)) {
    if (!bytes_ || bytes_->empty() || bytes_->size() > std::numeric_limits<int>::max()) {
        failure_ = "The image could not be decoded.";
        return;
    }
    const auto* data = reinterpret_cast<const stbi_uc*>(bytes_->data());
    const int length = static_cast<int>(bytes_->size());
    int w = 0, h = 0, channels = 0;
    if (!stbi_info_from_memory(data, length, &w, &h, &channels)) {
        failure_ = "The image could not be decoded.";
        return;
    }
    if (w <= 0 || h <= 0 || w > kMaxSide || h > kMaxSide) {
        failure_ = "The image is too large to preview (" + std::to_string(w) + " × " +
                   std::to_string(h) + ").";
        return;
    }
    width_ = w;
    height_ = h;
}

ImagePreview::~ImagePreview() {
    if (texture_ && hooks_.destroy) hooks_.destroy(texture_);
}

void ImagePreview::draw(float maxHeight) {
    if (!failure_.empty()) {
        ImGui::TextDisabled("%s", failure_.c_str());
        return;
    }
    if (!uploaded_) {
        uploaded_ = true;
        hooks_ = imageTextureHooks();
        int w = 0, h = 0, channels = 0;
        stbi_uc* pixels =
            stbi_load_from_memory(reinterpret_cast<const stbi_uc*>(bytes_->data()),
                                  static_cast<int>(bytes_->size()), &w, &h, &channels, 4);
        if (!pixels) {
            failure_ = "The image could not be decoded.";
            width_ = height_ = 0;
            ImGui::TextDisabled("%s", failure_.c_str());
            return;
        }
        if (hooks_.create) texture_ = hooks_.create(pixels, w, h);
        stbi_image_free(pixels);
    }
    if (!texture_) {
        ImGui::TextDisabled("A %d × %d image (this host shows no image previews).", width_,
                            height_);
        return;
    }
    const float scale = std::min({1.0f, maxHeight / static_cast<float>(height_),
                                  ImGui::GetContentRegionAvail().x / static_cast<float>(width_)});
    const ImVec2 size(static_cast<float>(width_) * scale, static_cast<float>(height_) * scale);
    const ImVec2 min = ImGui::GetCursorScreenPos();
    ImGui::Dummy(size);
    ImGui::GetWindowDrawList()->AddImageRounded(texture_, min,
                                                ImVec2(min.x + size.x, min.y + size.y),
                                                ImVec2(0, 0), ImVec2(1, 1), IM_COL32_WHITE, 8.0f);
    probeItem("image.preview", min, ImVec2(min.x + size.x, min.y + size.y));
}

}  // namespace kestro::imgui::inspector
