// Replays the parser fuzzer's kept crash inputs and seed corpus
// (tests/fuzz/{regressions,corpus}/json_parser_fuzz), checking what the fuzzer checks: parse()
// returns a tree whose texts are well-formed UTF-8 and that equals its copy.

#include <gtest/gtest.h>

#include <string>

#include "jsonview/fuzz_inputs.h"
#include "kestro/core/utf8.h"
#include "kestro/jsonview/json_parser.h"

namespace kestro {
namespace {

void expectWellFormed(const JSONValue& v) {
    EXPECT_TRUE(isValidUTF8(v.text()));
    if (auto wrong = v.wrong()) {
        EXPECT_TRUE(isValidUTF8(*wrong));
    }
    if (v.isArray())
        for (const auto& e : v.asArray()) expectWellFormed(e);
    if (v.isObject()) {
        for (const auto& e : v.asObject()) {
            EXPECT_TRUE(isValidUTF8(e.key.key));
            expectWellFormed(e.value);
        }
    }
}

TEST(JSONParserFuzzRegressions, KeptInputsParseToWellFormedTrees) {
    const int replayed =
        test::forEachKeptFuzzInput("json_parser_fuzz", [](const std::string& bytes) {
            const JSONValue value = parseJSON(bytes);
            expectWellFormed(value);
            const JSONValue copy = value;
            EXPECT_EQ(copy, value);
        });
    EXPECT_GT(replayed, 0);
}

}  // namespace
}  // namespace kestro
