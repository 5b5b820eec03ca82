#pragma once

// A per-thread cache of freed memory blocks for the JSON tree and the attributed lines the
// decorator builds from it.
//
// A document is read into tens of thousands of small containers and torn down again as soon
// as it has been laid out; laying it out makes as many small run lists. Handing those blocks
// back to malloc lets it coalesce them and return the pages to the system, so that the next
// document of the same size takes a page fault for every page of its tree again, and how much
// is returned depends on what the process did before. Here a freed block goes onto a free list
// of its size class on the freeing thread and the next request of that class takes it back,
// without malloc and without touching fresh pages.
//
// Blocks are ordinary operator new blocks: one freed on another thread than the one that made
// it simply joins the freeing thread's cache. Each thread keeps at most kMaxCachedBytes; beyond
// that, and for blocks above the largest class, blocks go straight back to operator delete.
// A thread's cache is emptied when the thread ends, or on request with releaseCachedBlocks().
// Under AddressSanitizer the cache is off, so that every free stays visible to it.

#include <cstddef>
#include <limits>
#include <new>

#include "kestro/core/export.h"

namespace kestro::jsonview::internal {

/// Bytes of freed blocks one thread keeps at most.
inline constexpr std::size_t kMaxCachedBytes = std::size_t{32} << 20;

/// At least bytes of memory, aligned for any object of fundamental alignment.
KESTRO_API void* allocateBlock(std::size_t bytes);
/// The bytes a request of bytes is rounded up to: asking for that many costs the same block,
/// so a growing buffer may use them all (and must then give back that many).
KESTRO_API std::size_t blockSizeFor(std::size_t bytes) noexcept;
/// Gives back a block from allocateBlock(bytes), with the same bytes.
KESTRO_API void freeBlock(void* block, std::size_t bytes) noexcept;
/// Frees the calling thread's cached blocks.
KESTRO_API void releaseCachedBlocks() noexcept;
/// Bytes cached by the calling thread.
KESTRO_API std::size_t cachedBlockBytes() noexcept;

/// A standard allocator over allocateBlock / freeBlock. Stateless: any two compare equal.
template <typename T>
struct BlockAllocator {
    using value_type = T;

    BlockAllocator() noexcept = default;
    template <typename U>
    BlockAllocator(const BlockAllocator<U>&) noexcept {}  // NOLINT: implicit, as allocators are

    T* allocate(std::size_t n) {
        if (n > std::numeric_limits<std::size_t>::max() / sizeof(T)) throw std::bad_array_new_length();
        return static_cast<T*>(allocateBlock(n * sizeof(T)));
    }
    void deallocate(T* p, std::size_t n) noexcept { freeBlock(p, n * sizeof(T)); }

    template <typename U>
    friend bool operator==(const BlockAllocator&, const BlockAllocator<U>&) noexcept {
        return true;
    }
};

}  // namespace kestro::jsonview::internal
