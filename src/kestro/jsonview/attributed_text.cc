#include "kestro/jsonview/attributed_text.h"

#include <algorithm>
#include <cmath>
#include <map>
#include <mutex>

namespace kestro {

namespace jsonview::internal {

std::size_t utf16Count(std::string_view utf8) {
    // Every byte that is not a continuation byte starts a scalar (one unit); a four-byte lead
    // adds the second unit of a surrogate pair. Malformed bytes count one unit each, as the
    // replacement character they decode to would.
    std::size_t units = 0;
    for (unsigned char b : utf8) units += ((b & 0xC0) != 0x80) + (b >= 0xF0);
    return units;
}

std::size_t advanceUTF16(std::string_view utf8, std::size_t utf16Units) {
    std::size_t units = 0;
    std::size_t i = 0;
    const std::size_t n = utf8.size();
    while (i < n) {
        const auto b = static_cast<unsigned char>(utf8[i]);
        const std::size_t width = b >= 0xF0 ? 2 : 1;
        if (units + width > utf16Units) break;
        units += width;
        ++i;
        while (i < n && (static_cast<unsigned char>(utf8[i]) & 0xC0) == 0x80) ++i;
    }
    return i;
}

bool isWellFormedUTF8(std::string_view bytes) {
    const auto* p = reinterpret_cast<const unsigned char*>(bytes.data());
    const std::size_t n = bytes.size();
    std::size_t i = 0;
    while (i < n) {
        const unsigned char b = p[i];
        if (b < 0x80) {
            ++i;
            continue;
        }
        std::size_t len;
        unsigned char lo = 0x80, hi = 0xBF;
        if (b >= 0xC2 && b <= 0xDF) {
            len = 2;
        } else if (b == 0xE0) {
            len = 3;
            lo = 0xA0;
        } else if (b >= 0xE1 && b <= 0xEC) {
            len = 3;
        } else if (b == 0xED) {
            len = 3;
            hi = 0x9F;  // no surrogates
        } else if (b >= 0xEE && b <= 0xEF) {
            len = 3;
        } else if (b == 0xF0) {
            len = 4;
            lo = 0x90;
        } else if (b >= 0xF1 && b <= 0xF3) {
            len = 4;
        } else if (b == 0xF4) {
            len = 4;
            hi = 0x8F;
        } else {
            return false;
        }
        if (i + len > n) return false;
        if (p[i + 1] < lo || p[i + 1] > hi) return false;
        for (std::size_t k = 2; k < len; ++k)
            if ((p[i + k] & 0xC0) != 0x80) return false;
        i += len;
    }
    return true;
}

std::size_t scalarCount(std::string_view utf8) {
    std::size_t count = 0;
    for (unsigned char b : utf8) count += (b & 0xC0) != 0x80;
    return count;
}

}  // namespace jsonview::internal

namespace {

using jsonview::internal::utf16Count;

// ---- registries of fonts and images -------------------------------------------------------

struct Registry {
    std::mutex mutex;
    std::map<std::string, std::shared_ptr<const Font::Family>, std::less<>> families;
    std::map<std::string, Image, std::less<>> images;

    Registry() {
        families["sans"] = std::make_shared<const Font::Family>(
            Font::Family{"sans", 0.952, -0.213, 0.028, 0.55, true, false});
        families["monospace"] = std::make_shared<const Font::Family>(
            Font::Family{"monospace", 0.8, -0.2, 0.0, 0.6, true, true});
        images["expand"] = Image{"expand", 16, 16};
        images["fold"] = Image{"fold", 16, 16};
    }
};

Registry& registry() {
    static Registry* r = new Registry();  // never destroyed: usable from static destructors
    return *r;
}

bool isWide(char32_t c) {
    return (c >= 0x1100 && c <= 0x115F) || (c >= 0x2E80 && c <= 0xA4CF) ||
           (c >= 0xAC00 && c <= 0xD7A3) || (c >= 0xF900 && c <= 0xFAFF) ||
           (c >= 0xFE30 && c <= 0xFE4F) || (c >= 0xFF00 && c <= 0xFF60) ||
           (c >= 0xFFE0 && c <= 0xFFE6) || (c >= 0x1F300 && c <= 0x1F64F) ||
           (c >= 0x1F900 && c <= 0x1F9FF) || (c >= 0x20000 && c <= 0x3FFFD);
}

const TextAttributes& emptyAttributes() {
    static const TextAttributes* empty = new TextAttributes();
    return *empty;
}

const TextAttributes& deref(const AttributesRef& ref) { return ref ? *ref : emptyAttributes(); }

bool sameAttributes(const AttributesRef& a, const AttributesRef& b) {
    if (a == b) return true;
    if (!a) return b->empty();
    if (!b) return a->empty();
    return *a == *b;
}

}  // namespace

// ---- Color, Font, Image, ParagraphStyle, TextAttributes ------------------------------------

Color Color::rgb24(std::uint32_t rgb) {
    return {((rgb >> 16) & 255) / 255.0, ((rgb >> 8) & 255) / 255.0, (rgb & 255) / 255.0, 1.0};
}

std::uint32_t Color::argb32() const {
    auto c = [](double v) {
        return static_cast<std::uint32_t>(std::lround(std::clamp(v, 0.0, 1.0) * 255.0));
    };
    return (c(alpha) << 24) | (c(red) << 16) | (c(green) << 8) | c(blue);
}

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

// ---- AttributedText -------------------------------------------------------------------------

AttributedText::AttributedText(std::string_view text, AttributesRef attributes) : text_(text) {
    // Most texts get further runs appended right away: a member line holds the key, the
    // colon, the value and a comma.
    runs_.reserve(4);
    if (!text_.empty()) runs_.push_back({0, std::move(attributes)});
}

AttributedText::AttributedText(std::string_view text, const TextAttributes& attributes)
    : AttributedText(text, makeAttributes(attributes)) {}

AttributedText AttributedText::attachment(TextAttachment attachment) {
    TextAttributes attributes;
    attributes.attachment = std::move(attachment);
    return AttributedText(kAttachmentCharacter, makeAttributes(std::move(attributes)));
}

std::size_t AttributedText::utf16Length() const { return utf16Count(text_); }

std::size_t AttributedText::runIndexAt(std::size_t position) const {
    auto it = std::upper_bound(runs_.begin(), runs_.end(), position,
                               [](std::size_t p, const RunEntry& r) { return p < r.start; });
    return static_cast<std::size_t>(it - runs_.begin()) - 1;
}

std::size_t AttributedText::splitAt(std::size_t position) {
    if (position >= text_.size()) return runs_.size();
    const std::size_t i = runIndexAt(position);
    if (runs_[i].start == position) return i;
    runs_.insert(runs_.begin() + static_cast<std::ptrdiff_t>(i) + 1,
                 RunEntry{position, runs_[i].attributes});
    return i + 1;
}

void AttributedText::coalesce(std::size_t from, std::size_t to) {
    if (runs_.size() < 2) return;
    from = std::max<std::size_t>(from, 1);
    to = std::min(to, runs_.size() - 1);
    if (from > to) return;
    std::size_t write = from;
    for (std::size_t read = from; read < runs_.size(); ++read) {
        if (read <= to && sameAttributes(runs_[write - 1].attributes, runs_[read].attributes))
            continue;  // the previous run absorbs this one
        if (write != read) runs_[write] = std::move(runs_[read]);
        ++write;
    }
    runs_.resize(write);
}

void AttributedText::append(std::string_view text, const AttributesRef& attributes) {
    if (text.empty()) return;
    if (runs_.empty() || !sameAttributes(runs_.back().attributes, attributes))
        runs_.push_back({text_.size(), attributes});
    text_.append(text);
}

void AttributedText::append(const AttributedText& other) {
    if (other.text_.empty()) return;
    const std::size_t offset = text_.size();
    std::size_t first = 0;
    if (!runs_.empty() && sameAttributes(runs_.back().attributes, other.runs_.front().attributes))
        first = 1;
    for (std::size_t i = first; i < other.runs_.size(); ++i)
        runs_.push_back({other.runs_[i].start + offset, other.runs_[i].attributes});
    text_.append(other.text_);
}

void AttributedText::reserve(std::size_t bytes, std::size_t runs) {
    text_.reserve(bytes);
    runs_.reserve(runs);
}

void AttributedText::insert(std::size_t position, const AttributedText& other) {
    replace({position, 0}, other);
}

void AttributedText::erase(TextRange range) { replace(range, AttributedText()); }

void AttributedText::clear() {
    text_.clear();
    runs_.clear();
}

void AttributedText::replace(TextRange range, const AttributedText& replacement) {
    const std::size_t loc = std::min(range.location, text_.size());
    const std::size_t end = std::min(range.end(), text_.size());
    if (loc == text_.size()) {
        append(replacement);
        return;
    }
    const std::size_t s = splitAt(loc);
    const std::size_t e = splitAt(end);
    runs_.erase(runs_.begin() + static_cast<std::ptrdiff_t>(s),
                runs_.begin() + static_cast<std::ptrdiff_t>(e));
    RunList inserted;
    inserted.reserve(replacement.runs_.size());
    for (const auto& r : replacement.runs_) inserted.push_back({r.start + loc, r.attributes});
    runs_.insert(runs_.begin() + static_cast<std::ptrdiff_t>(s), inserted.begin(), inserted.end());
    const std::size_t after = s + inserted.size();
    const std::size_t removed = end - loc;
    const std::size_t added = replacement.text_.size();
    for (std::size_t i = after; i < runs_.size(); ++i)
        runs_[i].start = runs_[i].start - removed + added;
    text_.replace(loc, removed, replacement.text_);
    coalesce(s == 0 ? 0 : s, after);
    if (text_.empty()) runs_.clear();
}

AttributedText AttributedText::substring(TextRange range) const {
    AttributedText out;
    const std::size_t loc = std::min(range.location, text_.size());
    const std::size_t end = std::min(range.end(), text_.size());
    if (loc >= end) return out;
    out.text_.assign(text_, loc, end - loc);
    for (std::size_t i = runIndexAt(loc); i < runs_.size() && runs_[i].start < end; ++i)
        out.runs_.push_back({std::max(runs_[i].start, loc) - loc, runs_[i].attributes});
    return out;
}

template <typename Edit>
void AttributedText::editAttributes(TextRange range, Edit&& edit) {
    const std::size_t loc = std::min(range.location, text_.size());
    const std::size_t end = std::min(range.end(), text_.size());
    if (loc >= end) return;
    const std::size_t s = splitAt(loc);
    const std::size_t e = splitAt(end);
    // Runs that shared an attribute set before the edit share the edited one after it.
    std::vector<std::pair<const TextAttributes*, AttributesRef>> memo;
    for (std::size_t i = s; i < e; ++i) {
        const TextAttributes* old = runs_[i].attributes.get();
        auto hit = std::find_if(memo.begin(), memo.end(), [&](auto& m) { return m.first == old; });
        if (hit != memo.end()) {
            runs_[i].attributes = hit->second;
            continue;
        }
        TextAttributes updated = deref(runs_[i].attributes);
        edit(updated);
        AttributesRef ref = makeAttributes(std::move(updated));
        memo.emplace_back(old, ref);
        runs_[i].attributes = std::move(ref);
    }
    coalesce(s, e);
}

void AttributedText::setAttributes(TextRange range, const AttributesRef& attributes) {
    const std::size_t loc = std::min(range.location, text_.size());
    const std::size_t end = std::min(range.end(), text_.size());
    if (loc >= end) return;
    const std::size_t s = splitAt(loc);
    const std::size_t e = splitAt(end);
    runs_.erase(runs_.begin() + static_cast<std::ptrdiff_t>(s) + 1,
                runs_.begin() + static_cast<std::ptrdiff_t>(e));
    runs_[s].attributes = attributes;
    coalesce(s, s + 1);
}

void AttributedText::addAttributes(TextRange range, const TextAttributes& attributes) {
    editAttributes(range, [&](TextAttributes& a) { a.merge(attributes); });
}

void AttributedText::removeAttribute(TextRange range, AttributeKey key) {
    editAttributes(range, [&](TextAttributes& a) { a.remove(key); });
}

const AttributesRef& AttributedText::attributesRef(std::size_t position) const {
    static const AttributesRef none;
    if (position >= text_.size()) return none;
    return runs_[runIndexAt(position)].attributes;
}

const TextAttributes& AttributedText::attributes(std::size_t position, TextRange* effective) const {
    if (position >= text_.size()) {
        if (effective) *effective = {text_.size(), 0};
        return emptyAttributes();
    }
    const std::size_t i = runIndexAt(position);
    if (effective) {
        const std::size_t end = i + 1 < runs_.size() ? runs_[i + 1].start : text_.size();
        *effective = {runs_[i].start, end - runs_[i].start};
    }
    return deref(runs_[i].attributes);
}

void AttributedText::enumerateRuns(TextRange range,
                                   const std::function<void(const Run&)>& f) const {
    const std::size_t loc = std::min(range.location, text_.size());
    const std::size_t end = std::min(range.end(), text_.size());
    if (loc >= end) return;
    for (std::size_t i = runIndexAt(loc); i < runs_.size() && runs_[i].start < end; ++i) {
        const std::size_t runEnd = i + 1 < runs_.size() ? runs_[i + 1].start : text_.size();
        const std::size_t a = std::max(runs_[i].start, loc);
        const std::size_t b = std::min(runEnd, end);
        f(Run{{a, b - a}, deref(runs_[i].attributes), runs_[i].attributes});
    }
}

std::size_t AttributedText::utf16Offset(std::size_t bytePosition) const {
    return utf16Count(std::string_view(text_).substr(0, std::min(bytePosition, text_.size())));
}

std::size_t AttributedText::byteOffset(std::size_t utf16Position) const {
    return jsonview::internal::advanceUTF16(text_, utf16Position);
}

TextRange AttributedText::utf16Range(TextRange r) const {
    const std::size_t a = utf16Offset(r.location);
    const std::size_t end = std::min(r.end(), text_.size());
    const std::size_t loc = std::min(r.location, text_.size());
    return {a, utf16Count(std::string_view(text_).substr(loc, end - loc))};
}

TextRange AttributedText::byteRange(TextRange r) const {
    const std::size_t a = byteOffset(r.location);
    const std::size_t b =
        a + jsonview::internal::advanceUTF16(std::string_view(text_).substr(a), r.length);
    return {a, b - a};
}

std::vector<TextRange> AttributedText::findRanges(std::string_view needle) const {
    std::vector<TextRange> hits;
    if (needle.empty()) return hits;
    const std::string_view hay(text_);
    for (std::size_t at = hay.find(needle); at != std::string_view::npos;
         at = hay.find(needle, at + needle.size()))
        hits.push_back({at, needle.size()});
    return hits;
}

std::vector<TextRange> AttributedText::findNSRanges(std::string_view needle) const {
    std::vector<TextRange> hits = findRanges(needle);
    if (hits.empty()) return hits;
    // Hits ascend, so one forward walk converts them all.
    const std::string_view hay(text_);
    const std::size_t needleUnits = utf16Count(needle);
    std::size_t byte = 0;
    std::size_t units = 0;
    for (auto& h : hits) {
        units += utf16Count(hay.substr(byte, h.location - byte));
        byte = h.location;
        h = {units, needleUnits};
    }
    return hits;
}

bool operator==(const AttributedText& a, const AttributedText& b) {
    if (a.text_ != b.text_) return false;
    // Walk both run lists segment by segment, so that equal attributes compare equal whatever
    // their run boundaries.
    std::size_t i = 0, j = 0, pos = 0;
    const std::size_t n = a.text_.size();
    while (pos < n) {
        const auto& ra = a.runs_[i];
        const auto& rb = b.runs_[j];
        if (!sameAttributes(ra.attributes, rb.attributes)) return false;
        const std::size_t endA = i + 1 < a.runs_.size() ? a.runs_[i + 1].start : n;
        const std::size_t endB = j + 1 < b.runs_.size() ? b.runs_[j + 1].start : n;
        pos = std::min(endA, endB);
        if (endA == pos) ++i;
        if (endB == pos) ++j;
    }
    return true;
}

// ---- TextStorage ----------------------------------------------------------------------------

namespace {
constexpr std::size_t kChunkTarget = 4096;
constexpr std::size_t kChunkMax = 2 * kChunkTarget;
}  // namespace

TextStorage::TextStorage(const AttributedText& text) { setText(text); }

void TextStorage::setText(const AttributedText& text) {
    chunks_.clear();
    appendChunks(text, chunks_);
    length_ = text.length();
}

void TextStorage::appendChunks(const AttributedText& text, std::vector<Chunk>& out) const {
    const std::string_view s = text.string();
    std::size_t p = 0;
    while (p < s.size()) {
        std::size_t cut = s.size();
        if (s.size() - p > kChunkMax) {
            // Prefer to end a chunk after a line feed; otherwise at a scalar boundary.
            const std::size_t lo = p + kChunkTarget / 2;
            const std::size_t nl = s.rfind('\n', p + kChunkTarget);
            if (nl != std::string::npos && nl >= lo) {
                cut = nl + 1;
            } else {
                cut = p + kChunkTarget;
                while (cut > p + 1 && (static_cast<unsigned char>(s[cut]) & 0xC0) == 0x80) --cut;
            }
        }
        Chunk c{text.substring({p, cut - p}), 0};
        c.utf16 = c.text.utf16Length();
        out.push_back(std::move(c));
        p = cut;
    }
}

std::pair<std::size_t, std::size_t> TextStorage::locate(std::size_t position) const {
    std::size_t start = 0;
    for (std::size_t i = 0; i < chunks_.size(); ++i) {
        const std::size_t len = chunks_[i].text.length();
        if (position < start + len || i + 1 == chunks_.size()) return {i, start};
        start += len;
    }
    return {0, 0};
}

void TextStorage::replace(TextRange range, const AttributedText& replacement) {
    const std::size_t loc = std::min(range.location, length_);
    const std::size_t end = std::min(range.end(), length_);
    if (chunks_.empty()) {
        setText(replacement);
        return;
    }
    auto [c0, s0] = locate(loc);
    auto [c1, s1] = locate(end);
    if (c0 == c1) {
        Chunk& c = chunks_[c0];
        const std::size_t newSize = c.text.length() - (end - loc) + replacement.length();
        if (newSize <= kChunkMax && newSize > 0) {
            c.text.replace({loc - s0, end - loc}, replacement);
            c.utf16 = c.text.utf16Length();
            length_ = length_ - (end - loc) + replacement.length();
            return;
        }
    }
    AttributedText merged = chunks_[c0].text.substring({0, loc - s0});
    merged.append(replacement);
    const AttributedText& last = chunks_[c1].text;
    merged.append(last.substring({end - s1, last.length() - (end - s1)}));
    std::vector<Chunk> fresh;
    appendChunks(merged, fresh);
    chunks_.erase(chunks_.begin() + static_cast<std::ptrdiff_t>(c0),
                  chunks_.begin() + static_cast<std::ptrdiff_t>(c1) + 1);
    chunks_.insert(chunks_.begin() + static_cast<std::ptrdiff_t>(c0),
                   std::make_move_iterator(fresh.begin()), std::make_move_iterator(fresh.end()));
    length_ = length_ - (end - loc) + replacement.length();
}

std::size_t TextStorage::utf16Length() const {
    std::size_t n = 0;
    for (const auto& c : chunks_) n += c.utf16;
    return n;
}

AttributedText TextStorage::attributedSubstring(TextRange range) const {
    AttributedText out;
    const std::size_t loc = std::min(range.location, length_);
    const std::size_t end = std::min(range.end(), length_);
    std::size_t start = 0;
    for (const auto& c : chunks_) {
        const std::size_t len = c.text.length();
        if (start + len > loc && start < end) {
            const std::size_t a = std::max(loc, start) - start;
            const std::size_t b = std::min(end, start + len) - start;
            out.append(c.text.substring({a, b - a}));
        }
        start += len;
        if (start >= end) break;
    }
    return out;
}

AttributedText TextStorage::flattened() const {
    AttributedText out;
    for (const auto& c : chunks_) out.append(c.text);
    return out;
}

std::string TextStorage::string() const {
    std::string out;
    out.reserve(length_);
    for (const auto& c : chunks_) out += c.text.string();
    return out;
}

void TextStorage::enumerateRuns(TextRange range,
                                const std::function<void(const AttributedText::Run&)>& f) const {
    const std::size_t loc = std::min(range.location, length_);
    const std::size_t end = std::min(range.end(), length_);
    std::size_t start = 0;
    for (const auto& c : chunks_) {
        const std::size_t len = c.text.length();
        if (start + len > loc && start < end) {
            const std::size_t a = std::max(loc, start) - start;
            const std::size_t b = std::min(end, start + len) - start;
            c.text.enumerateRuns({a, b - a}, [&](const AttributedText::Run& r) {
                f(AttributedText::Run{
                    {r.range.location + start, r.range.length}, r.attributes, r.ref});
            });
        }
        start += len;
        if (start >= end) break;
    }
}

std::size_t TextStorage::utf16Offset(std::size_t bytePosition) const {
    std::size_t start = 0, units = 0;
    for (const auto& c : chunks_) {
        const std::size_t len = c.text.length();
        if (bytePosition < start + len) return units + c.text.utf16Offset(bytePosition - start);
        start += len;
        units += c.utf16;
    }
    return units;
}

std::size_t TextStorage::byteOffset(std::size_t utf16Position) const {
    std::size_t start = 0, units = 0;
    for (const auto& c : chunks_) {
        if (utf16Position < units + c.utf16)
            return start + c.text.byteOffset(utf16Position - units);
        start += c.text.length();
        units += c.utf16;
    }
    return start;
}

}  // namespace kestro
