#pragma once

// Fonts as the JSON viewer's attributed text refers to them: a family name, a size and a bold
// flag, with the metrics that layout needs. Families are looked up by name in a process-wide
// registry; a drawing layer maps a description to the fonts it actually renders with.
//
// Thread safety: Font is a plain value. The registry may be read and changed from any thread.

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "kestro/core/export.h"

namespace kestro {

/// A font description with the metrics text layout needs. Metrics are in points and scale with
/// the size; the descender is negative (below the baseline). Fonts are looked up by family name
/// among the registered families ("sans" and "monospace" are always there); a drawing layer maps
/// a description to the fonts it actually renders with.
class KESTRO_API Font {
  public:
    /// The metrics of a family at size 1.
    struct Family {
        std::string name;
        double ascender = 0.95;
        double descender = -0.24;
        double lineGap = 0;
        double averageAdvance =
            0.55;  // mean advance of a character, for measuring without a renderer
        bool hasBold = true;
        bool monospaced = false;
    };

    /// A font of a registered family, or nothing if the family is unknown.
    static std::optional<Font> named(std::string_view family, double size);
    /// The default proportional font ("sans").
    static Font system(double size);
    /// The default fixed-pitch font ("monospace").
    static Font monospacedSystem(double size);
    /// Adds or replaces a family. Any thread.
    static void registerFamily(Family family);

    const std::string& family() const { return family_->name; }
    double size() const { return size_; }
    bool isBold() const { return bold_; }
    bool isMonospaced() const { return family_->monospaced; }
    double ascender() const { return family_->ascender * size_; }
    double descender() const { return family_->descender * size_; }
    /// Distance between two baselines: ascender − descender + line gap.
    double lineHeight() const;
    /// Advance of one character of the given scalar, as an estimate from the family's metrics
    /// (wide East Asian characters count twice, combining marks not at all).
    double advance(char32_t scalar) const;

    /// The bold variant at the same size, or nothing if the family has none.
    std::optional<Font> boldVariant() const;

    friend KESTRO_API bool operator==(const Font& a, const Font& b);

  private:
    Font(std::shared_ptr<const Family> family, double size, bool bold)
        : family_(std::move(family)), size_(size), bold_(bold) {}

    std::shared_ptr<const Family> family_;
    double size_ = 0;
    bool bold_ = false;
};

}  // namespace kestro
