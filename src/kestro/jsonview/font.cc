#include "kestro/jsonview/font.h"

#include <map>
#include <mutex>

namespace kestro {

namespace {

// The registered families by name, with the two that are always there.
struct FamilyRegistry {
    std::mutex mutex;
    std::map<std::string, std::shared_ptr<const Font::Family>, std::less<>> families;

    FamilyRegistry() {
        families["sans"] = std::make_shared<const Font::Family>(
            Font::Family{"sans", 0.952, -0.213, 0.028, 0.55, true, false});
        families["monospace"] = std::make_shared<const Font::Family>(
            Font::Family{"monospace", 0.8, -0.2, 0.0, 0.6, true, true});
    }
};

FamilyRegistry& registry() {
    // Never destroyed: usable from static destructors.
    static FamilyRegistry* r = new FamilyRegistry();
    return *r;
}

bool isWide(char32_t c) {
    return (c >= 0x1100 && c <= 0x115F) || (c >= 0x2E80 && c <= 0xA4CF) ||
           (c >= 0xAC00 && c <= 0xD7A3) || (c >= 0xF900 && c <= 0xFAFF) ||
           (c >= 0xFE30 && c <= 0xFE4F) || (c >= 0xFF00 && c <= 0xFF60) ||
           (c >= 0xFFE0 && c <= 0xFFE6) || (c >= 0x1F300 && c <= 0x1F64F) ||
           (c >= 0x1F900 && c <= 0x1F9FF) || (c >= 0x20000 && c <= 0x3FFFD);
}

}  // namespace

std::optional<Font> Font::named(std::string_view family, double size) {
    auto& r = registry();
    std::lock_guard lock(r.mutex);
    auto it = r.families.find(family);
    if (it == r.families.end()) return std::nullopt;
    return Font(it->second, size, false);
}

Font Font::system(double size) { return *named("sans", size); }
Font Font::monospacedSystem(double size) { return *named("monospace", size); }

void Font::registerFamily(Family family) {
    auto& r = registry();
    std::lock_guard lock(r.mutex);
    auto name = family.name;
    r.families[name] = std::make_shared<const Family>(std::move(family));
}

double Font::lineHeight() const {
    return (family_->ascender - family_->descender + family_->lineGap) * size_;
}

double Font::advance(char32_t scalar) const {
    if (scalar >= 0x300 && scalar <= 0x36F) return 0;  // combining marks
    const double base = family_->averageAdvance * size_ * (bold_ ? 1.05 : 1.0);
    if (scalar == U'\t') return base * 4;
    return isWide(scalar) ? base * 2 : base;
}

std::optional<Font> Font::boldVariant() const {
    if (!family_->hasBold) return std::nullopt;
    return Font(family_, size_, true);
}

bool operator==(const Font& a, const Font& b) {
    return a.size_ == b.size_ && a.bold_ == b.bold_ &&
           (a.family_ == b.family_ || a.family_->name == b.family_->name);
}

}  // namespace kestro
