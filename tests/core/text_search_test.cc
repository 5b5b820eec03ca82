// Local-time texts and the case-insensitive search the inspector's list uses.

#include "kestro/core/text_search.h"

#include <gtest/gtest.h>
#include <unicode/locid.h>
#include <unicode/timezone.h>

#include <string>
#include <vector>

#include "kestro/core/local_time.h"

namespace kestro {
namespace {

// Sets ICU's default time zone for one test and puts the previous one back.
class ZoneScope {
  public:
    explicit ZoneScope(const char* id) : saved_(icu::TimeZone::createDefault()) {
        icu::TimeZone::adoptDefault(icu::TimeZone::createTimeZone(id));
        resetLocalTimeFormatters();
    }
    ~ZoneScope() {
        icu::TimeZone::adoptDefault(saved_);
        resetLocalTimeFormatters();
    }

  private:
    icu::TimeZone* saved_;
};

TEST(LocalTimeTest, PatternsFormatInTheDefaultZoneWithMillisecondsRoundedDown) {
    // 2024-05-01T12:34:56.789912Z
    const TimePoint t = fromSecondsSince1970(1714566896.789912);
    struct Case {
        const char* zone;
        const char* list;
        const char* detail;
    };
    for (const Case& c : {Case{"Europe/Berlin", "14:34:56.789", "2024-05-01T14:34:56.789+0200"},
                          Case{"Asia/Kolkata", "18:04:56.789", "2024-05-01T18:04:56.789+0530"},
                          Case{"America/New_York", "08:34:56.789", "2024-05-01T08:34:56.789-0400"},
                          Case{"UTC", "12:34:56.789", "2024-05-01T12:34:56.789+0000"}}) {
        ZoneScope zone(c.zone);
        EXPECT_EQ(formatLocalTime(t, "HH:mm:ss.SSS"), c.list) << c.zone;
        EXPECT_EQ(formatLocalTime(t, "yyyy-MM-dd'T'HH:mm:ss.SSSZ"), c.detail) << c.zone;
    }
    ZoneScope utc("UTC");
    // Before 1970 the fraction still counts forward from the second.
    EXPECT_EQ(formatLocalTime(fromSecondsSince1970(-0.25), "HH:mm:ss.SSS"), "23:59:59.750");
    EXPECT_EQ(formatLocalTime(t, "yyyy-MM-dd'T'HH:mm:ss.SSSZ"), "2024-05-01T12:34:56.789+0000");
}

TEST(TextSearchTest, ContainsIgnoresCaseAndKeepsAccentsApart) {
    struct Case {
        const char* text;
        const char* needle;
        bool contained;
    };
    const std::vector<Case> cases = {
        {"GET", "get", true},
        {"https://example.test/Users", "USERS", true},
        {"Straße", "STRASSE", true},  // full folding
        {"STRASSE", "straße", true},
        {"Ärger", "ärg", true},
        {"A\u0308rger", "ärg", true},  // decomposed text, composed search
        {"café", "cafe", false},       // an accent is not ignored
        {"cafe\u0301", "café", true},  // canonically equal
        {"résumé", "E", false},
        {"ΣΊΣΥΦΟΣ", "σίσυφος", true},
        {"temperature 300 \u212A", "k", true},  // Kelvin sign folds to k
        {"anything", "", true},
        {"", "a", false},
        {"a b", " ", true},  // the search text is not trimmed
        {"ab", "a ", false},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(localizedCaseInsensitiveContains(c.text, c.needle), c.contained)
            << "'" << c.text << "' / '" << c.needle << "'";
    }
}

TEST(TextSearchTest, InvalidUTF8IsFoldedWithoutFailing) {
    const std::string bad = "ok\xff\xfeOK";
    EXPECT_TRUE(localizedCaseInsensitiveContains(bad, "ok"));
    EXPECT_FALSE(foldForSearch(bad).empty());
}

}  // namespace
}  // namespace kestro
