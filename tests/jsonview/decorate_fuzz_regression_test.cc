// Replays the decorator fuzzer's seed corpus and kept crash inputs
// (tests/fuzz/{corpus,regressions}/decorate_fuzz) with the fuzzer's checks.

#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "jsonview/fuzz_inputs.h"
#include "kestro/jsonview/json_decorator.h"

namespace kestro {
namespace {

void replay(const std::string& bytes) {
    ASSERT_FALSE(bytes.empty());
    const auto initial = (bytes[0] & 1) ? JSONSlice::State::folded : JSONSlice::State::expand;
    auto decorator = JSONDecorator::highlight(std::string_view(bytes).substr(1),
                                              HighlightStyle::default_(), initial);
    if (!decorator) return;
    auto& slices = decorator->slices;
    ASSERT_FALSE(slices.empty());
    for (std::size_t i = 0; i < slices.size(); ++i)
        EXPECT_EQ(slices[i].lineNumber, static_cast<int>(i) + 1);
    const auto first = decorator->assemble();
    EXPECT_TRUE(std::is_sorted(first.lines.begin(), first.lines.end()));
    const auto& text = first.attributedText.string();
    EXPECT_GE(static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n')),
              first.lines.size());
    std::vector<JSONSlice::State> saved;
    for (auto& s : slices) {
        saved.push_back(s.state);
        if (s.folded) s.state = JSONSlice::State::folded;
    }
    for (int line : decorator->assemble().lines)
        EXPECT_EQ(slices[static_cast<std::size_t>(line) - 1].level, 0);
    for (std::size_t i = 0; i < slices.size(); ++i) slices[i].state = saved[i];
    EXPECT_EQ(decorator->assemble().attributedText, first.attributedText);
}

TEST(DecorateFuzzRegressions, KeptInputsDecorateAndAssembleConsistently) {
    const int replayed = test::forEachKeptFuzzInput("decorate_fuzz", [](const std::string& bytes) {
        if (!bytes.empty()) replay(bytes);
    });
    EXPECT_GE(replayed, 8);
}

}  // namespace
}  // namespace kestro
