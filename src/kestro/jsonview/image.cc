#include "kestro/jsonview/image.h"

#include <map>
#include <mutex>

namespace kestro {

namespace {

// The registered images by name, with the viewer's two icons.
struct ImageRegistry {
    std::mutex mutex;
    std::map<std::string, Image, std::less<>> images;

    ImageRegistry() {
        images["expand"] = Image{"expand", 16, 16};
        images["fold"] = Image{"fold", 16, 16};
    }
};

ImageRegistry& registry() {
    // Never destroyed: usable from static destructors.
    static ImageRegistry* r = new ImageRegistry();
    return *r;
}

}  // namespace

std::optional<Image> Image::named(std::string_view name) {
    auto& r = registry();
    std::lock_guard lock(r.mutex);
    auto it = r.images.find(name);
    if (it == r.images.end()) return std::nullopt;
    return it->second;
}

void Image::registerNamed(Image image) {
    auto& r = registry();
    std::lock_guard lock(r.mutex);
    auto name = image.name;
    r.images[name] = std::move(image);
}

}  // namespace kestro
