#include "kestro/jsonview/text_storage.h"

#include <algorithm>
#include <iterator>
#include <string_view>

#include "kestro/jsonview/utf16.h"

namespace kestro {

using jsonview::internal::utf16Count;

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
            // The chunk's UTF-16 length changes by what goes and what comes.
            const std::size_t removed = utf16Count(c.text.string().substr(loc - s0, end - loc));
            c.text.replace({loc - s0, end - loc}, replacement);
            c.utf16 = c.utf16 - removed + replacement.utf16Length();
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
