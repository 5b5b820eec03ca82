#include "kestro/jsonview/text_attributes.h"

#include <algorithm>
#include <cmath>

namespace kestro {

Color Color::rgb24(std::uint32_t rgb) {
    return {((rgb >> 16) & 255) / 255.0, ((rgb >> 8) & 255) / 255.0, (rgb & 255) / 255.0, 1.0};
}

std::uint32_t Color::argb32() const {
    auto c = [](double v) {
        return static_cast<std::uint32_t>(std::lround(std::clamp(v, 0.0, 1.0) * 255.0));
    };
    return (c(alpha) << 24) | (c(red) << 16) | (c(green) << 8) | c(blue);
}

double ParagraphStyle::lineHeight(const Font& font) const {
    double h = font.lineHeight();
    if (lineHeightMultiple > 0) h *= lineHeightMultiple;
    if (minimumLineHeight > 0) h = std::max(h, minimumLineHeight);
    if (maximumLineHeight > 0) h = std::min(h, maximumLineHeight);
    return h;
}

bool TextAttributes::empty() const {
    return !font && !foregroundColor && !backgroundColor && !paragraphStyle && !baselineOffset &&
           !link && !underlineStyle && !attachment;
}

void TextAttributes::merge(const TextAttributes& o) {
    if (o.font) font = o.font;
    if (o.foregroundColor) foregroundColor = o.foregroundColor;
    if (o.backgroundColor) backgroundColor = o.backgroundColor;
    if (o.paragraphStyle) paragraphStyle = o.paragraphStyle;
    if (o.baselineOffset) baselineOffset = o.baselineOffset;
    if (o.link) link = o.link;
    if (o.underlineStyle) underlineStyle = o.underlineStyle;
    if (o.attachment) attachment = o.attachment;
}

void TextAttributes::remove(AttributeKey key) {
    switch (key) {
        case AttributeKey::font:
            font.reset();
            break;
        case AttributeKey::foregroundColor:
            foregroundColor.reset();
            break;
        case AttributeKey::backgroundColor:
            backgroundColor.reset();
            break;
        case AttributeKey::paragraphStyle:
            paragraphStyle.reset();
            break;
        case AttributeKey::baselineOffset:
            baselineOffset.reset();
            break;
        case AttributeKey::link:
            link.reset();
            break;
        case AttributeKey::underlineStyle:
            underlineStyle.reset();
            break;
        case AttributeKey::attachment:
            attachment.reset();
            break;
    }
}

bool operator==(const TextAttributes& a, const TextAttributes& b) {
    return a.font == b.font && a.foregroundColor == b.foregroundColor &&
           a.backgroundColor == b.backgroundColor && a.paragraphStyle == b.paragraphStyle &&
           a.baselineOffset == b.baselineOffset && a.link == b.link &&
           a.underlineStyle == b.underlineStyle && a.attachment == b.attachment;
}

AttributesRef makeAttributes(TextAttributes attributes) {
    if (attributes.empty()) return nullptr;
    return std::make_shared<const TextAttributes>(std::move(attributes));
}

}  // namespace kestro
