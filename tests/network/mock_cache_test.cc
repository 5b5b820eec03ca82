#include "kestro/network/mock_cache.h"

#include <gtest/gtest.h>

#include <atomic>
#include <boost/json.hpp>
#include <chrono>
#include <random>
#include <set>
#include <thread>

#include "support/glob_regex.h"

namespace kestro {
namespace {

namespace json = boost::json;

TEST(DoesURLMatchPatternTest, GlobRules) {
    EXPECT_TRUE(doesURLMatchPattern("https://h/users/42", "https://h/users/*"));
    EXPECT_TRUE(doesURLMatchPattern("https://h/users/", "https://h/users/*"));
    EXPECT_FALSE(doesURLMatchPattern("https://h/users", "https://h/users/*"));
    EXPECT_FALSE(doesURLMatchPattern("HTTPS://h/users/42", "https://h/users/*"));
    EXPECT_TRUE(doesURLMatchPattern("https://h/a.b?c=1", "https://h/a.b?c=1"));
    EXPECT_FALSE(doesURLMatchPattern("https://h/aXb?c=1", "https://h/a.b?c=1"));
    EXPECT_FALSE(doesURLMatchPattern("https://h/a.bc=1", "https://h/a.b?c=1"));
    EXPECT_TRUE(doesURLMatchPattern("anything at all", "*"));
    EXPECT_TRUE(doesURLMatchPattern("", "*"));
    EXPECT_TRUE(doesURLMatchPattern("", ""));
    EXPECT_FALSE(doesURLMatchPattern("x", ""));
    EXPECT_TRUE(doesURLMatchPattern("https://h/v1/a/b/c.json", "https://*/v1/*/*.json"));
    // A star never runs across a line break; a literal line break matches itself.
    EXPECT_FALSE(doesURLMatchPattern("https://h/a\nb", "https://h/*"));
    EXPECT_TRUE(doesURLMatchPattern("https://h/a\nb", "https://h/*\n*"));
    EXPECT_FALSE(doesURLMatchPattern("a\u2028b", "a*b"));
    EXPECT_TRUE(doesURLMatchPattern("a\u00e9b", "a*b"));
    // The anchored expression's "$" also matches before one line break that ends the URL (CR LF
    // counting as one), so such a URL matches what it matches without that break.
    EXPECT_TRUE(doesURLMatchPattern("https://h/a\n", "https://h/*"));
    EXPECT_TRUE(doesURLMatchPattern("https://h/a\r\n", "https://h/a"));
    EXPECT_TRUE(doesURLMatchPattern("https://h/a\u2029", "https://h/a"));
    EXPECT_TRUE(doesURLMatchPattern("a\n\n", "a\n"));
    EXPECT_FALSE(doesURLMatchPattern("a\n\n", "a"));
    EXPECT_FALSE(doesURLMatchPattern("a\r\n", "a\r"));
    EXPECT_FALSE(doesURLMatchPattern("a\n", "a\n\n"));
    EXPECT_TRUE(doesURLMatchPattern("\r\n", ""));
    // Regular-expression syntax in the pattern is plain text.
    EXPECT_TRUE(doesURLMatchPattern("(a|b)+[x]\\d$^", "(a|b)+[x]\\d$^"));
    EXPECT_FALSE(doesURLMatchPattern("aaa", "(a|b)+"));
}

TEST(DoesURLMatchPatternTest, AgreesWithTheRegularExpressionItStandsFor) {
    // Small alphabets make matches likely; line breaks, stars and expression syntax included.
    const std::vector<std::string> alphabet = {"a",      "b",  "*", ".", "?", "\n", "\r",  "\u2028",
                                               "\u0085", "\\", "(", "é", "😀", "/",  "\x0b"};
    std::mt19937 rng(12345);
    auto randomText = [&](int maxLen, bool allowStar) {
        std::string s;
        const int n = static_cast<int>(rng() % (maxLen + 1));
        for (int i = 0; i < n; ++i) {
            const auto& piece = alphabet[rng() % alphabet.size()];
            if (!allowStar && piece == "*") continue;
            s += piece;
        }
        return s;
    };
    int matched = 0;
    for (int round = 0; round < 4000; ++round) {
        const std::string pattern = randomText(6, true);
        std::string url = randomText(8, false);
        // Half the time, build the URL from the pattern so that matches actually occur.
        if (round % 2 == 0) {
            url.clear();
            for (char ch : pattern) {
                if (ch == '*')
                    url += randomText(3, false);
                else
                    url += ch;
            }
        }
        const std::optional<bool> expected = test::globRegexMatches(url, pattern);
        ASSERT_TRUE(expected.has_value());
        matched += *expected;
        ASSERT_EQ(doesURLMatchPattern(url, pattern), *expected)
            << "url=" << json::serialize(json::value(url))
            << " pattern=" << json::serialize(json::value(pattern));
    }
    EXPECT_GT(matched, 500);  // the comparison covered both outcomes
}

TEST(DoesURLMatchPatternTest, HostilePatternsStayFast) {
    const std::string url(5000, 'a');
    const std::string pattern = std::string(200, '*') + std::string(50, 'a') + "b";
    EXPECT_FALSE(doesURLMatchPattern(url, pattern));
    EXPECT_TRUE(doesURLMatchPattern(url + "b", pattern));
    std::string bytes;
    for (int i = 0; i < 256; ++i) bytes.push_back(static_cast<char>(i));
    EXPECT_TRUE(doesURLMatchPattern(bytes, bytes));
    EXPECT_FALSE(doesURLMatchPattern(bytes, "*"));  // contains line breaks
}

TEST(MockCacheEntryTest, DecodingAndMediaTypes) {
    auto decode = [](const char* text) {
        return MockCacheEntry::decode(json::parse(text).as_object());
    };
    auto full = decode(R"({"url":"https://h/*","mockedUrl":"https://m/x.png","statusCode":201,
                           "headers":{"Content-Type":"IMAGE/JPEG"},"body":"hi","extra":[1]})");
    ASSERT_TRUE(full);
    EXPECT_EQ(full->statusCode, 201);
    EXPECT_TRUE(full->isMediaRequest());
    EXPECT_EQ(MockCacheEntry::decode(full->encode()), full);

    // A status must be an integer within range; a huge or fractional number refuses the rule.
    EXPECT_EQ(decode(R"({"url":"u","statusCode":201.0})")->statusCode, 201);
    EXPECT_FALSE(decode(R"({"url":"u","statusCode":4.8e55})"));
    EXPECT_FALSE(decode(R"({"url":"u","statusCode":-4.8e55})"));
    EXPECT_FALSE(decode(R"({"url":"u","statusCode":200.5})"));

    auto minimal =
        decode(R"({"url":"u","mockedUrl":null,"statusCode":null,"headers":null,"body":null})");
    ASSERT_TRUE(minimal);
    EXPECT_FALSE(minimal->statusCode);
    EXPECT_FALSE(minimal->isMediaRequest());
    EXPECT_EQ(minimal->encode(), json::parse(R"({"url":"u"})").as_object());

    EXPECT_FALSE(decode(R"({"mockedUrl":"x"})"));
    EXPECT_FALSE(decode(R"({"url":5})"));
    EXPECT_FALSE(decode(R"({"url":"u","statusCode":"200"})"));
    EXPECT_FALSE(decode(R"({"url":"u","statusCode":200.5})"));
    EXPECT_FALSE(decode(R"({"url":"u","headers":{"a":1}})"));
    EXPECT_FALSE(decode(R"({"url":"u","body":{}})"));

    MockCacheEntry svg{"u", {}, {}, std::map<std::string, std::string>{{"X", "image/svg+xml"}}, {}};
    EXPECT_TRUE(svg.isMediaRequest());
    svg.headers = std::map<std::string, std::string>{{"Content-Type", "application/json"}};
    EXPECT_FALSE(svg.isMediaRequest());
    EXPECT_TRUE(svg.isRequestOfType("json"));
}

TEST(MockCacheTest, RulesAreKeyedLookedUpInOrderAndReplacedInPlace) {
    MockCache cache;
    cache.addToMockCache("https://h/*", {"https://h/*", {}, 500, {}, "first"});
    cache.addToMockCache("https://h/users/*", {"https://h/users/*", {}, 201, {}, "second"});
    EXPECT_EQ(cache.getSize(), 2u);
    EXPECT_EQ(cache.getEntry("https://h/users/1")->body, "first");  // insertion order
    cache.addToMockCache("https://h/*", {"https://h/*", {}, 404, {}, "replaced"});
    EXPECT_EQ(cache.getSize(), 2u);
    EXPECT_EQ(cache.getEntry("https://h/users/1")->statusCode, 404);
    cache.removeFromMockCache("https://h/users/1");  // matched, but not the key: nothing happens
    EXPECT_EQ(cache.getSize(), 2u);
    cache.removeFromMockCache("https://h/*");
    EXPECT_EQ(cache.getEntry("https://h/users/1")->body, "second");
    EXPECT_FALSE(cache.getEntry("https://other/"));
    cache.setMockCache({{"a", {"a", {}, {}, {}, {}}}, {"a", {"a", {}, 1, {}, {}}}});
    EXPECT_EQ(cache.getSize(), 1u);
    EXPECT_EQ(cache.getEntry("a")->statusCode, 1);
}

// The writer replaces the rules as a whole, version after version: every rule of version v
// answers v with the body "v", and a rule removed and added again comes back at the same
// version. A reader must see each snapshot whole (all its rules of one version, each rule's
// status and body from the same write) and never an older one after a newer; and it must have
// read while the rules changed, or the test has shown nothing.
TEST(MockCacheTest, ReadersSeeWholeSnapshotsWhileWritersChangeRules) {
    constexpr int kRules = 7;
    constexpr std::size_t kVersionsToSee = 1000;
    MockCache cache;
    auto ruleOf = [](int k, std::int64_t version) {
        const std::string key = "https://h/" + std::to_string(k) + "/*";
        return std::pair<std::string, MockCacheEntry>{
            key, MockCacheEntry{key, {}, version, {}, std::to_string(version)}};
    };
    std::atomic<bool> readerDone{false};
    std::thread writer([&] {
        for (std::int64_t v = 1; !readerDone && v < 10'000'000; ++v) {
            MockCache::Rules rules;
            for (int k = 0; k < kRules; ++k) rules.push_back(ruleOf(k, v));
            cache.setMockCache(std::move(rules));
            auto [key, entry] = ruleOf(static_cast<int>(v % kRules), v);
            cache.removeFromMockCache(key);
            cache.addToMockCache(key, entry);
        }
    });

    std::set<std::int64_t> versions;
    std::int64_t newest = 0;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (versions.size() < kVersionsToSee && std::chrono::steady_clock::now() < deadline) {
        const auto rules = cache.mockCache();
        if (rules->empty()) continue;
        const std::int64_t version = rules->front().second.statusCode.value_or(-1);
        EXPECT_GE(version, newest) << "an older snapshot after a newer one";
        newest = std::max(newest, version);
        versions.insert(version);
        for (const auto& [key, entry] : *rules) {
            EXPECT_EQ(entry.url, key);
            EXPECT_EQ(entry.statusCode, version) << "rules of two versions in one snapshot";
            EXPECT_EQ(entry.body, std::to_string(version));
        }
        if (auto found = cache.getEntry("https://h/3/x")) {
            EXPECT_EQ(found->url, "https://h/3/*");
            EXPECT_EQ(found->body, std::to_string(found->statusCode.value_or(-1)));
        }
        if (::testing::Test::HasFailure()) break;
    }
    readerDone = true;
    writer.join();
    EXPECT_GE(versions.size(), kVersionsToSee) << "the reader did not read while rules changed";
}

}  // namespace
}  // namespace kestro
