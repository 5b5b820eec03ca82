// The tolerant parser against a third-party suite of JSON documents: y_ documents must be read
// completely and exactly as a strict parser (Boost.JSON) reads them; n_ and i_ documents must
// come back as a value, and the n_ documents the tolerant rules read completely are pinned.

#include <gtest/gtest.h>

#include <algorithm>
#include <boost/json.hpp>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <string>
#include <vector>

#include "kestro/jsonview/json_parser.h"

namespace kestro {
namespace {

namespace fs = std::filesystem;

struct Document {
    std::string name;
    std::string bytes;
};

std::vector<Document> documents(std::string_view prefix) {
    std::vector<Document> out;
    const fs::path dir(KESTRO_JSON_TEST_SUITE_DIR);
    std::error_code ec;
    for (const auto& entry : fs::directory_iterator(dir, ec)) {
        const std::string name = entry.path().filename().string();
        if (!name.starts_with(prefix) || !name.ends_with(".json")) continue;
        std::ifstream in(entry.path(), std::ios::binary);
        out.push_back({name, std::string(std::istreambuf_iterator<char>(in), {})});
    }
    std::sort(out.begin(), out.end(),
              [](const Document& a, const Document& b) { return a.name < b.name; });
    return out;
}

// No wrong text and no unknown value anywhere in the tree.
bool isComplete(const JSONValue& v) {
    switch (v.kind()) {
        case JSONValue::Case::unknown:
            return false;
        case JSONValue::Case::array:
            return std::all_of(v.asArray().begin(), v.asArray().end(), isComplete);
        case JSONValue::Case::object:
            for (const auto& entry : v.asObject())
                if (entry.key.isWrong || !isComplete(entry.value)) return false;
            return true;
        default:
            return !v.wrong().has_value();
    }
}

// Same structure and values as Boost.JSON's reading; numbers compare by value (the tolerant
// parser keeps their text, which Boost.JSON reads into the representation it would have chosen).
::testing::AssertionResult sameAs(const JSONValue& ours, const boost::json::value& theirs,
                                  const std::string& path) {
    auto mismatch = [&](const std::string& what) {
        return ::testing::AssertionFailure()
               << "at " << (path.empty() ? "<root>" : path) << ": " << what;
    };
    switch (ours.kind()) {
        case JSONValue::Case::string:
            if (!theirs.is_string()) return mismatch("string vs other");
            if (ours.text() != std::string_view(theirs.as_string()))
                return mismatch("string text differs");
            return ::testing::AssertionSuccess();
        case JSONValue::Case::number: {
            if (!theirs.is_number()) return mismatch("number vs other");
            boost::json::error_code ec;
            boost::json::value read = boost::json::parse(ours.text(), ec);
            if (ec || read != theirs)
                return mismatch("number differs: " + std::string(ours.text()));
            return ::testing::AssertionSuccess();
        }
        case JSONValue::Case::boolean:
            if (!theirs.is_bool() || theirs.as_bool() != ours.asBool()) return mismatch("bool");
            return ::testing::AssertionSuccess();
        case JSONValue::Case::null:
            if (!theirs.is_null()) return mismatch("null vs other");
            return ::testing::AssertionSuccess();
        case JSONValue::Case::array: {
            if (!theirs.is_array()) return mismatch("array vs other");
            const auto& a = ours.asArray();
            const auto& b = theirs.as_array();
            if (a.size() != b.size()) return mismatch("array sizes differ");
            for (std::size_t i = 0; i < a.size(); ++i) {
                auto r = sameAs(a[i], b[i], path + "[" + std::to_string(i) + "]");
                if (!r) return r;
            }
            return ::testing::AssertionSuccess();
        }
        case JSONValue::Case::object: {
            if (!theirs.is_object()) return mismatch("object vs other");
            const auto& o = ours.asObject();
            const auto& b = theirs.as_object();
            if (o.size() != b.size()) return mismatch("object sizes differ");
            for (const auto& [key, value] : b) {
                const JSONValue* mine = o.find(JSONObjectKey(std::string_view(key)));
                if (mine == nullptr) return mismatch("missing key " + std::string(key));
                auto r = sameAs(*mine, value, path + "." + std::string(key));
                if (!r) return r;
            }
            return ::testing::AssertionSuccess();
        }
        case JSONValue::Case::unknown:
            return mismatch("unknown: " + std::string(ours.text()));
    }
    return mismatch("unreachable");
}

TEST(JSONConformance, AcceptedDocumentsReadCompletelyAndLikeAStrictParser) {
    const auto docs = documents("y_");
    ASSERT_GE(docs.size(), 90u) << "conformance documents not found in " KESTRO_JSON_TEST_SUITE_DIR;
    for (const auto& doc : docs) {
        SCOPED_TRACE(doc.name);
        const JSONValue ours = parseJSON(doc.bytes);
        EXPECT_TRUE(isComplete(ours));
        boost::json::error_code ec;
        boost::json::parse_options options;
        options.max_depth = 1024;
        const boost::json::value theirs =
            boost::json::parse(doc.bytes, ec, boost::json::storage_ptr(), options);
        ASSERT_FALSE(ec) << "Boost.JSON rejects it: " << ec.message();
        EXPECT_TRUE(sameAs(ours, theirs, ""));
    }
}

TEST(JSONConformance, RejectedAndImplementationDefinedDocumentsComeBackAsValues) {
    auto docs = documents("n_");
    const auto implementationDefined = documents("i_");
    ASSERT_GE(docs.size(), 150u);
    ASSERT_GE(implementationDefined.size(), 20u);
    docs.insert(docs.end(), implementationDefined.begin(), implementationDefined.end());
    for (const auto& doc : docs) {
        SCOPED_TRACE(doc.name);
        const JSONValue value = parseJSON(doc.bytes);
        // Whatever the tree, it is a well-formed value: copying and comparing work on it, and
        // the unparsed part is valid UTF-8 text.
        const JSONValue copy = value;
        EXPECT_EQ(copy, value);
        if (value.isUnknown()) {
            EXPECT_FALSE(value.text().empty() && !doc.bytes.empty());
        }
    }
}

// The n_ documents the tolerant rules read as complete JSON. Any change here is a change of
// leniency and must be deliberate.
TEST(JSONConformance, LenientlyAcceptedRejectedDocumentsArePinned) {
    const std::set<std::string> expected = {
        // Trailing commas are accepted.
        "n_array_extra_comma.json",
        "n_array_number_and_comma.json",
        "n_object_trailing_comma.json",
        // The key's lone continuation byte is repaired to U+FFFD; then a trailing comma.
        "n_object_lone_continuation_byte_in_key_and_trailing_comma.json",
        // Text after a complete object or an empty array is dropped.
        "n_object_trailing_comment.json",
        "n_object_trailing_comment_open.json",
        "n_object_trailing_comment_slash_open.json",
        "n_object_trailing_comment_slash_open_incomplete.json",
        "n_object_with_trailing_garbage.json",
        "n_structure_double_array.json",
        "n_structure_object_followed_by_closing_object.json",
        "n_structure_object_with_trailing_garbage.json",
        "n_structure_trailing_#.json",
    };
    std::set<std::string> accepted;
    for (const auto& doc : documents("n_"))
        if (isComplete(parseJSON(doc.bytes))) accepted.insert(doc.name);
    EXPECT_EQ(accepted, expected);
}

}  // namespace
}  // namespace kestro
