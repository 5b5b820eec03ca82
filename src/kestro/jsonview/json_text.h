#pragma once

// The immutable text a JSONValue holds (string contents, number source text, unknown text).
// Texts of up to 30 bytes live inside the value itself, so the short strings and the numbers
// that make up most documents cost no allocation; longer ones take one block from the per-thread block cache.

#include <cstdint>
#include <cstring>
#include <new>
#include <string_view>

#include "kestro/jsonview/block_cache.h"

namespace kestro::jsonview::internal {

class Text {
  public:
    static constexpr std::size_t kInline = 30;

    Text() noexcept { setEmpty(); }
    explicit Text(std::string_view s) {
        if (s.size() <= kInline) {
            std::memcpy(data_, s.data(), s.size());
            data_[s.size()] = '\0';
            tag_ = static_cast<std::uint8_t>(s.size());
        } else {
            char* p = static_cast<char*>(allocateBlock(s.size()));
            std::memcpy(p, s.data(), s.size());
            const std::size_t size = s.size();
            std::memcpy(data_, &p, sizeof p);
            std::memcpy(data_ + sizeof p, &size, sizeof size);
            tag_ = kHeap;
        }
    }
    Text(const Text& other) : Text(other.view()) {}
    Text(Text&& other) noexcept {
        std::memcpy(data_, other.data_, sizeof data_);
        tag_ = other.tag_;
        other.setEmpty();
    }
    Text& operator=(const Text&) = delete;
    Text& operator=(Text&&) = delete;
    ~Text() {
        if (tag_ == kHeap) freeBlock(heapData(), view().size());
    }

    std::string_view view() const noexcept {
        if (tag_ != kHeap) return {data_, tag_};
        std::size_t size;
        std::memcpy(&size, data_ + sizeof(char*), sizeof size);
        return {heapData(), size};
    }

  private:
    static constexpr std::uint8_t kHeap = 0xFF;

    void setEmpty() noexcept {
        data_[0] = '\0';
        tag_ = 0;
    }
    char* heapData() const noexcept {
        char* p;
        std::memcpy(&p, data_, sizeof p);
        return p;
    }

    // Inline: the bytes, tag_ = their count. Heap: pointer and size copied into data_,
    // tag_ = kHeap.
    char data_[31];
    std::uint8_t tag_;
};

}  // namespace kestro::jsonview::internal
