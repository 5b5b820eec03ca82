#include "kestro/jsonview/text_storage.h"

#include <gtest/gtest.h>

#include <random>
#include <string>

namespace kestro {
namespace {

AttributesRef colored(std::uint32_t rgb) {
    TextAttributes a;
    a.foregroundColor = Color::rgb24(rgb);
    return makeAttributes(a);
}

// Long texts kept in chunks must behave exactly like one contiguous text.
TEST(TextStorage, ReplacementsMatchAContiguousText) {
    const AttributesRef styles[] = {nullptr, colored(0xAA0000), colored(0x00BB00)};
    std::mt19937 rng(1234);
    auto randomText = [&](std::size_t maxLen) {
        AttributedText t;
        const std::size_t pieces = rng() % 6;
        for (std::size_t p = 0; p < pieces; ++p) {
            std::string s;
            const std::size_t n = rng() % maxLen;
            for (std::size_t i = 0; i < n; ++i) {
                switch (rng() % 8) {
                    case 0:
                        s += '\n';
                        break;
                    case 1:
                        s += "\xC3\xA9";
                        break;
                    case 2:
                        s += "\xF0\x9F\x98\x80";
                        break;
                    default:
                        s += static_cast<char>('a' + rng() % 26);
                }
            }
            t.append(s, styles[rng() % 3]);
        }
        return t;
    };
    AttributedText reference;
    for (int i = 0; i < 40; ++i) reference.append(randomText(900));
    TextStorage storage(reference);
    EXPECT_GT(storage.chunkCount(), 3u);
    for (int step = 0; step < 300; ++step) {
        const std::size_t len = reference.length();
        std::size_t loc = len ? rng() % (len + 1) : 0;
        std::size_t n = rng() % 5 == 0 ? rng() % 20000 : rng() % 300;
        // Keep edits on scalar boundaries, as callers do.
        auto boundary = [&](std::size_t p) {
            p = std::min(p, reference.length());
            while (p < reference.length() &&
                   (static_cast<unsigned char>(reference.string()[p]) & 0xC0) == 0x80)
                ++p;
            return p;
        };
        loc = boundary(loc);
        n = boundary(loc + n) - loc;
        const AttributedText replacement = randomText(step % 7 == 0 ? 6000 : 200);
        reference.replace({loc, n}, replacement);
        storage.replace({loc, n}, replacement);
        ASSERT_EQ(storage.length(), reference.length());
        if (step % 25 == 0) {
            ASSERT_EQ(storage.flattened(), reference) << "step " << step;
            ASSERT_EQ(storage.utf16Length(), reference.utf16Length());
            const std::size_t p = boundary(reference.length() / 3);
            EXPECT_EQ(storage.utf16Offset(p), reference.utf16Offset(p));
            EXPECT_EQ(storage.byteOffset(reference.utf16Offset(p)), p);
            EXPECT_EQ(storage.attributedSubstring({p, 5000}), reference.substring({p, 5000}));
        }
    }
    EXPECT_EQ(storage.flattened(), reference);
    EXPECT_EQ(storage.string(), reference.string());
    storage.replace({0, storage.length()}, AttributedText());
    EXPECT_TRUE(storage.empty());
    EXPECT_EQ(storage.chunkCount(), 0u);
}

TEST(TextStorage, EnumeratesRunsAcrossChunksWithDocumentPositions) {
    AttributedText doc;
    for (int i = 0; i < 3000; ++i) doc.append("line " + std::to_string(i) + "\n", colored(i % 2));
    TextStorage storage(doc);
    ASSERT_GT(storage.chunkCount(), 1u);
    std::string rebuilt;
    std::size_t expectedStart = 0;
    storage.enumerateRuns({0, storage.length()}, [&](const AttributedText::Run& r) {
        EXPECT_EQ(r.range.location, expectedStart);
        expectedStart = r.range.end();
        rebuilt += doc.string().substr(r.range.location, r.range.length);
        EXPECT_EQ(r.attributes, doc.attributes(r.range.location));
    });
    EXPECT_EQ(rebuilt, doc.string());
}

}  // namespace
}  // namespace kestro
