#include "kestro/jsonview/block_cache.h"

#include <bit>
#include <cstdint>

#if defined(__SANITIZE_ADDRESS__)
#define KESTRO_BLOCK_CACHE_OFF 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define KESTRO_BLOCK_CACHE_OFF 1
#endif
#endif

namespace kestro::jsonview::internal {

namespace {

// Size classes: multiples of 16 bytes up to 256, then four steps per power of two up to 1 MiB,
// so that rounding a request up wastes at most a quarter of it.
constexpr std::size_t kSmallLimit = 256;
constexpr std::size_t kLargestClass = std::size_t{1} << 20;
constexpr int kSmallClasses = 16;
constexpr int kClasses = kSmallClasses + 4 * (20 - 8);

// The class of a request of bytes (1 ≤ bytes ≤ kLargestClass).
int classOf(std::size_t bytes) {
    if (bytes <= kSmallLimit) return static_cast<int>((bytes + 15) / 16) - 1;
    const std::size_t b = bytes - 1;
    const int power = std::bit_width(b) - 1;  // 8 … 19
    const int step = static_cast<int>((b - (std::size_t{1} << power)) >> (power - 2));
    return kSmallClasses + (power - 8) * 4 + step;
}

// The block size of a class: the largest request it serves.
std::size_t classSize(int c) {
    if (c < kSmallClasses) return static_cast<std::size_t>(c + 1) * 16;
    const int power = 8 + (c - kSmallClasses) / 4;
    const std::size_t step = std::size_t{1} << (power - 2);
    return (std::size_t{1} << power) + static_cast<std::size_t>((c - kSmallClasses) % 4 + 1) * step;
}

struct FreeBlock {
    FreeBlock* next;
};

// Constant-initialised and trivially destructible, so that it is usable at any point of the
// thread's life; the Drain below empties it when the thread ends.
struct Cache {
    enum State : std::uint8_t { unused, active, ended };
    FreeBlock* heads[kClasses];
    std::size_t bytes;
    State state;
};
thread_local Cache tlsCache{};

void drain(Cache& cache) noexcept {
    for (auto& head : cache.heads) {
        while (head) {
            FreeBlock* next = head->next;
            ::operator delete(head);
            head = next;
        }
    }
    cache.bytes = 0;
}

struct Drain {
    ~Drain() {
        drain(tlsCache);
        tlsCache.state = Cache::ended;
    }
};

// The calling thread's cache, or nullptr once the thread is ending.
Cache* cache() noexcept {
    Cache& c = tlsCache;
    if (c.state == Cache::active) return &c;
    if (c.state == Cache::ended) return nullptr;
    thread_local Drain drainAtExit;
    (void)drainAtExit;
    c.state = Cache::active;
    return &c;
}

}  // namespace

void* allocateBlock(std::size_t bytes) {
    if (bytes == 0) bytes = 1;
#ifndef KESTRO_BLOCK_CACHE_OFF
    if (bytes <= kLargestClass) {
        const int c = classOf(bytes);
        const std::size_t size = classSize(c);
        if (Cache* cache_ = cache()) {
            if (FreeBlock* block = cache_->heads[c]) {
                cache_->heads[c] = block->next;
                cache_->bytes -= size;
                return block;
            }
        }
        return ::operator new(size);
    }
#endif
    return ::operator new(bytes);
}

std::size_t blockSizeFor(std::size_t bytes) noexcept {
#ifndef KESTRO_BLOCK_CACHE_OFF
    if (bytes > 0 && bytes <= kLargestClass) return classSize(classOf(bytes));
#endif
    return bytes;
}

void freeBlock(void* block, std::size_t bytes) noexcept {
    if (block == nullptr) return;
    if (bytes == 0) bytes = 1;
#ifndef KESTRO_BLOCK_CACHE_OFF
    if (bytes <= kLargestClass) {
        const int c = classOf(bytes);
        const std::size_t size = classSize(c);
        Cache* cache_ = cache();
        if (cache_ && cache_->bytes + size <= kMaxCachedBytes) {
            auto* free = static_cast<FreeBlock*>(block);
            free->next = cache_->heads[c];
            cache_->heads[c] = free;
            cache_->bytes += size;
            return;
        }
    }
#endif
    ::operator delete(block);
}

void releaseCachedBlocks() noexcept {
    if (tlsCache.state == Cache::active) drain(tlsCache);
}

std::size_t cachedBlockBytes() noexcept { return tlsCache.bytes; }

}  // namespace kestro::jsonview::internal
