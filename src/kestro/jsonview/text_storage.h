#pragma once

// A long attributed text kept in chunks, so that replacing a range costs in proportion to the
// range, not to the document. The JSON viewer's shown document lives here: folding and
// expanding a container replace its lines in place.
//
// Thread safety: a plain value, as AttributedText.

#include <cstddef>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "kestro/core/export.h"
#include "kestro/jsonview/attributed_text.h"

namespace kestro {

/// A long attributed text kept in chunks of a few kilobytes: replacing a range touches only the
/// chunks it overlaps. The shown document of the JSON viewer lives here.
class KESTRO_API TextStorage {
  public:
    TextStorage() = default;
    explicit TextStorage(const AttributedText& text);

    std::size_t length() const { return length_; }
    std::size_t utf16Length() const;
    bool empty() const { return length_ == 0; }

    /// Replaces the bytes of range (clamped) with replacement.
    void replace(TextRange range, const AttributedText& replacement);
    void setText(const AttributedText& text);

    AttributedText attributedSubstring(TextRange range) const;
    /// The whole text as one AttributedText.
    AttributedText flattened() const;
    std::string string() const;

    /// Calls f for every run that overlaps range, clipped to it (a run that crosses a chunk
    /// boundary is reported once per chunk).
    void enumerateRuns(TextRange range,
                       const std::function<void(const AttributedText::Run&)>& f) const;

    std::size_t utf16Offset(std::size_t bytePosition) const;
    std::size_t byteOffset(std::size_t utf16Position) const;

    std::size_t chunkCount() const { return chunks_.size(); }

  private:
    struct Chunk {
        AttributedText text;
        std::size_t utf16 = 0;
    };
    // Index of the chunk holding byte position (the last chunk for the end) and its start.
    std::pair<std::size_t, std::size_t> locate(std::size_t position) const;
    // Cuts text into chunks and appends them.
    void appendChunks(const AttributedText& text, std::vector<Chunk>& out) const;

    std::vector<Chunk> chunks_;
    std::size_t length_ = 0;
};

}  // namespace kestro
