#include "kestro/jsonview/block_cache.h"

#include <gtest/gtest.h>

#include <cstring>
#include <deque>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "kestro/jsonview/json_decorator.h"
#include "kestro/jsonview/json_parser.h"
#include "kestro/jsonview/json_value.h"

namespace kestro {
namespace {

using jsonview::internal::allocateBlock;
using jsonview::internal::cachedBlockBytes;
using jsonview::internal::freeBlock;
using jsonview::internal::kMaxCachedBytes;
using jsonview::internal::releaseCachedBlocks;

// Whether freed blocks are kept (they are not under AddressSanitizer).
bool cacheIsOn() {
    releaseCachedBlocks();
    freeBlock(allocateBlock(24), 24);
    const bool on = cachedBlockBytes() > 0;
    releaseCachedBlocks();
    return on;
}

TEST(BlockCache, EveryRequestedByteIsUsableAcrossTheClassBoundaries) {
    // Sizes on and around the class edges, up to and past the largest class.
    const std::size_t sizes[] = {1,   15,   16,   17,    255,    256,       257,       320,
                                 321, 1000, 4096, 65537, 700000, 1u << 20, (1u << 20) + 1};
    std::vector<void*> blocks;
    for (std::size_t n : sizes) {
        void* p = allocateBlock(n);
        std::memset(p, 0xA5, n);
        blocks.push_back(p);
    }
    for (std::size_t i = 0; i < blocks.size(); ++i) freeBlock(blocks[i], sizes[i]);
    // Taken again after the frees: still whole.
    for (std::size_t n : sizes) {
        void* p = allocateBlock(n);
        std::memset(p, 0x5A, n);
        freeBlock(p, n);
    }
    releaseCachedBlocks();
    EXPECT_EQ(cachedBlockBytes(), 0u);
}

TEST(BlockCache, AFreedBlockServesTheNextRequestOfItsClassWithinTheCap) {
    if (!cacheIsOn()) GTEST_SKIP() << "the cache is off under AddressSanitizer";
    void* a = allocateBlock(90);
    freeBlock(a, 90);
    EXPECT_EQ(cachedBlockBytes(), 96u);  // 90 bytes round up to the 96-byte class
    EXPECT_EQ(allocateBlock(96), a);     // same class, so the same block
    EXPECT_EQ(cachedBlockBytes(), 0u);
    freeBlock(a, 96);

    // Freeing far more than the cap keeps no more than the cap.
    std::vector<void*> big;
    for (std::size_t i = 0; i < kMaxCachedBytes / (1u << 20) + 8; ++i)
        big.push_back(allocateBlock(1u << 20));
    for (void* p : big) freeBlock(p, 1u << 20);
    EXPECT_LE(cachedBlockBytes(), kMaxCachedBytes);
    EXPECT_GT(cachedBlockBytes(), kMaxCachedBytes / 2);
    releaseCachedBlocks();
    EXPECT_EQ(cachedBlockBytes(), 0u);
}

// Trees and decorations made on some threads are torn down on others (their blocks change
// threads), while every thread also decorates: each result must match the one made alone.
TEST(BlockCache, TreesAndLinesMoveBetweenThreads) {
    std::string doc = R"({"list":[)";
    for (int i = 0; i < 300; ++i) {
        if (i) doc += ',';
        doc += R"({"id":)" + std::to_string(i) +
               R"(,"name":"a name long enough to live outside the value","tags":["x","y"],"n":1.5e3})";
    }
    doc += R"(],"tail":[1,2,tru)";
    const JSONValue reference = parseJSON(doc);
    const std::string referenceText =
        std::string(JSONDecorator::highlight(doc)->assemble().attributedText.string());

    std::mutex mutex;
    std::deque<JSONValue> handOver;
    std::vector<std::string> failures;
    auto worker = [&](int seed) {
        for (int round = 0; round < 20; ++round) {
            JSONValue parsed = parseJSON(doc);
            const bool same = parsed == reference;
            const auto decorator = JSONDecorator::highlight(doc);
            const bool sameText = decorator->assemble().attributedText.string() == referenceText;
            std::optional<JSONValue> other;
            {
                std::lock_guard lock(mutex);
                if (!same || !sameText)
                    failures.push_back("worker " + std::to_string(seed) + " round " +
                                       std::to_string(round));
                handOver.push_back(std::move(parsed));
                if (handOver.size() > 2) {
                    other = std::move(handOver.front());
                    handOver.pop_front();
                }
            }
            // Possibly another thread's tree, torn down here.
            other.reset();
        }
    };
    std::vector<std::thread> threads;
    for (int i = 0; i < 3; ++i) threads.emplace_back(worker, i);
    for (auto& t : threads) t.join();
    EXPECT_TRUE(failures.empty()) << failures.front();
    EXPECT_EQ(handOver.size(), 2u);
}

}  // namespace
}  // namespace kestro
