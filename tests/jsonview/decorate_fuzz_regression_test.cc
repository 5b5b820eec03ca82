// Replays the decorator fuzzer's kept crash inputs and seed corpus
// (tests/fuzz/{regressions,corpus}/decorate_fuzz) with the fuzzer's checks.

#include <gtest/gtest.h>

#include <string>

#include "jsonview/decorate_checks.h"
#include "jsonview/fuzz_inputs.h"

namespace kestro {
namespace {

TEST(DecorateFuzzRegressions, KeptInputsDecorateAssembleAndFoldConsistently) {
    const int replayed = test::forEachKeptFuzzInput("decorate_fuzz", [](const std::string& bytes) {
        EXPECT_EQ(test::decorationFault(bytes), "");
    });
    EXPECT_GT(replayed, 0);
}

}  // namespace
}  // namespace kestro
