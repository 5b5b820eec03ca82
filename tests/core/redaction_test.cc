#include "kestro/core/redaction.h"

#include <gtest/gtest.h>

namespace kestro {
namespace {

const std::vector<std::string> kPassword{"password"};

std::optional<std::string> redact(std::string_view json) { return redactJSONKeys(json, kPassword); }

TEST(RedactJSONKeysTest, NamedValuesAreReplacedAtAnyDepthAndEverythingElseIsKept) {
    // Inside arrays, every duplicate, a container value, whitespace and number forms kept.
    EXPECT_EQ(redact(R"( [ {"password" : "a"}, [{"x":{"password":[1,{"password":2}]}}] ] )"),
              R"( [ {"password" : "<redacted>"}, [{"x":{"password":"<redacted>"}}] ] )");
    EXPECT_EQ(redact(R"({"password":1,"password":{"k":[]},"n":1.0E+2,"z":-0.5e-1})"),
              R"({"password":"<redacted>","password":"<redacted>","n":1.0E+2,"z":-0.5e-1})");
    // A key written with escapes is the same key; a key's text inside a string is no key.
    EXPECT_EQ(redact(R"({"pass\u0077ord":"a","s":"{\"password\":\"b\"}"})"),
              R"({"pass\u0077ord":"<redacted>","s":"{\"password\":\"b\"}"})");
    // Values named "password" and keys of another case are not the key.
    EXPECT_EQ(redact(R"({"Password":"a","k":"password"})"), R"({"Password":"a","k":"password"})");
    EXPECT_EQ(redact(R"("password")"), R"("password")");
    EXPECT_EQ(redact(R"({"password":null})"), R"({"password":"<redacted>"})");
}

TEST(RedactJSONKeysTest, TextThatIsNotOneJSONDocumentGivesNothing) {
    for (std::string_view bad :
         {"", "   ", "{", R"({"password":"a")", R"({"password":"a",})", "[1,]", "[1 2]",
          R"({"a" 1})", R"({a:1})", "01", "1.", "-", "tru", "nul", R"("\x")", "\"a\nb\"",
          R"({"password":"a"} {})", R"({"password":"cut in the midd)", "[\"\\u12\"]"}) {
        EXPECT_FALSE(redact(bad)) << bad;
    }
    // Nesting far deeper than any stack would allow is scanned, not recursed.
    const std::string deep = std::string(200'000, '[') + std::string(200'000, ']');
    EXPECT_EQ(redact(deep), deep);
    EXPECT_FALSE(redact(std::string(200'000, '[')));
}

TEST(RedactQueryItemsTest, EveryOccurrenceOfANamedItemIsHiddenAndTheRestKeptByteForByte) {
    const std::vector<std::string> names{"token", "api key"};
    EXPECT_EQ(redactQueryItems("https://h/p?token=a&x=1&token=b&TOKEN=c#token=d", names),
              "https://h/p?token=<redacted>&x=1&token=<redacted>&TOKEN=c#token=d");
    // Names as the server decodes them; an item without value, empty items kept.
    EXPECT_EQ(redactQueryItems("http://h/?%74oken=a&api+key=b&api%20key=c&token&&z=%41", names),
              "http://h/?%74oken=<redacted>&api+key=<redacted>&api%20key=<redacted>&token&&z=%41");
    EXPECT_EQ(redactQueryItems("http://h/p#?token=a", names), "http://h/p#?token=a");
    EXPECT_EQ(redactQueryItems("http://h/p?token=", names), "http://h/p?token=<redacted>");
}

TEST(GlobTest, HostsAndPathsMatchAsWholes) {
    EXPECT_TRUE(globMatches("*.example.com", "api.example.com"));
    EXPECT_FALSE(globMatches("*.example.com", "example.com"));
    EXPECT_TRUE(globMatches("api.EXAMPLE.com", "api.example.com"));
    EXPECT_TRUE(globMatches("a?c*", "abc"));
    EXPECT_FALSE(globMatches("a?c", "ac"));
    EXPECT_TRUE(globMatches("*a*a*a*a*a*b", std::string(60, 'a') + "b"));
    EXPECT_FALSE(globMatches("*a*a*a*a*a*b", std::string(5000, 'a')));

    const std::vector<std::string> globs{"*.internal", "api.example.com/auth/*"};
    EXPECT_TRUE(urlMatchesAnyGlob(globs, "https://user:pw@DB.internal:8443/x?y"));
    EXPECT_TRUE(urlMatchesAnyGlob(globs, "https://api.example.com/auth/token?x=1"));
    EXPECT_FALSE(urlMatchesAnyGlob(globs, "https://api.example.com/authx"));
    EXPECT_FALSE(urlMatchesAnyGlob(globs, "https://api.example.com/users?next=/auth/x"));
    EXPECT_TRUE(urlMatchesAnyGlob({"[::1]/*"}, "http://[::1]:80"));
}

TEST(RedactorTest, HeadersInAnyCaseAndBodiesByTheirURL) {
    RedactionPolicy policy;
    policy.jsonKeys = {"password"};
    policy.dropBodiesNotJSON = {"uploads.example.com"};
    const Redactor redactor(policy);
    std::map<std::string, std::string> headers{{"AuThOrIzAtIoN", "Bearer a"},
                                               {"Set-Cookie", "a=1, b=2"},
                                               {"X-API-KEY", "k"},
                                               {"Accept", "text/plain"}};
    redactor.redactHeaders(headers);
    EXPECT_EQ(headers, (std::map<std::string, std::string>{{"AuThOrIzAtIoN", "<redacted>"},
                                                           {"Set-Cookie", "<redacted>"},
                                                           {"X-API-KEY", "<redacted>"},
                                                           {"Accept", "text/plain"}}));
    EXPECT_EQ(redactor.redactBody("not json", "https://api.example.com/"), "not json");
    EXPECT_EQ(redactor.redactBody("not json", "https://uploads.example.com/f"), "<redacted>");
    EXPECT_EQ(redactor.redactBody(R"({"password":1})", "https://uploads.example.com/f"),
              R"({"password":"<redacted>"})");
    EXPECT_EQ(redactor.redactBody("", "https://uploads.example.com/f"), "");

    const Redactor off(RedactionPolicy::off());
    std::map<std::string, std::string> kept{{"Cookie", "c"}};
    off.redactHeaders(kept);
    EXPECT_EQ(kept.at("Cookie"), "c");
    EXPECT_EQ(off.redactBody(R"({"password":1})", "x"), R"({"password":1})");
}

}  // namespace
}  // namespace kestro
