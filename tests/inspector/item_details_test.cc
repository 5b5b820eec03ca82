#include "kestro/inspector/item_details.h"

#include <gtest/gtest.h>
#include <unicode/timezone.h>

#include <boost/json.hpp>
#include <cmath>
#include <limits>

#include "inspector/inspector_fixture.h"
#include "inspector/records.h"
#include "kestro/core/local_time.h"
#include "kestro/inspector/json_text.h"
#include "kestro/network/body_text.h"

namespace kestro {
namespace {

using Kind = DetailElement::Kind;

class UTCZone {
  public:
    UTCZone() : saved_(icu::TimeZone::createDefault()) {
        icu::TimeZone::adoptDefault(icu::TimeZone::createTimeZone("UTC"));
        resetLocalTimeFormatters();
    }
    ~UTCZone() {
        icu::TimeZone::adoptDefault(saved_);
        resetLocalTimeFormatters();
    }

  private:
    icu::TimeZone* saved_;
};

TEST(IsJSONTest, ContentTypeFirstThenTheBodyMustParseAsAContainer) {
    struct Case {
        std::string body;
        std::optional<TextMap> headers;
        bool json;
    };
    const std::vector<Case> cases = {
        {"[1,2]", std::nullopt, true},
        {R"({"a":{"b":[]}})", std::nullopt, true},
        {"12", std::nullopt, false},  // fragments are rejected
        {R"("text")", std::nullopt, false},
        {"null", std::nullopt, false},
        {"", std::nullopt, false},
        {"{", std::nullopt, false},
        {"{} x", std::nullopt, false},
        {"{\"a\":\"\xff\"}", std::nullopt, false},  // not UTF-8
        {"not json", TextMap{{"Content-Type", "application/vnd.api+json; charset=utf-8"}}, true},
        {"", TextMap{{"content-type", "Application/JSON"}}, true},
        {"x", TextMap{{"Content-Type", "application/ld+json"}}, true},
        {"{}", TextMap{{"Content-Type", "text/plain"}}, true},        // the parse succeeds
        {"x", TextMap{{"CONTENT-TYPE", "application/json"}}, false},  // that key is not read
        {"[]", TextMap{{"CONTENT-TYPE", "text/plain"}}, true},
        {"x", TextMap{{"Content-Type", "text/plain"}, {"content-type", "application/json"}}, false},
        {"x", TextMap{}, false},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(isJSON(c.body, c.headers ? &*c.headers : nullptr), c.json) << c.body;
    }
    // Any depth.
    const std::string deep = std::string(10000, '[') + std::string(10000, ']');
    EXPECT_TRUE(isJSON(deep));
}

TEST(DetailTextsTest, SizesDurationsAndDates) {
    struct SizeCase {
        std::size_t bytes;
        const char* text;
    };
    for (const SizeCase& c : {SizeCase{0, "0.00 KB"}, SizeCase{1536, "1.50 KB"},
                              SizeCase{1, "0.00 KB"}, SizeCase{1024 * 1024, "1024.00 KB"},
                              SizeCase{1029, "1.00 KB"}, SizeCase{1030, "1.01 KB"}}) {
        EXPECT_EQ(sizeText(std::string(c.bytes, 'x')), c.text) << c.bytes;
    }
    EXPECT_EQ(sizeText("é"), "0.00 KB");
    EXPECT_DOUBLE_EQ(calculateSize(std::string(2048, 'x')), 2.0);

    const TimePoint start = test::at(1000);
    struct DurationCase {
        double seconds;
        const char* text;
    };
    for (const DurationCase& c :
         {DurationCase{0.123456, "123.46 ms"}, DurationCase{0, "0.00 ms"},
          DurationCase{-0.5, "-500.00 ms"}, DurationCase{2, "2000.00 ms"}}) {
        EXPECT_EQ(durationText(start, test::at(1000 + c.seconds)), c.text) << c.seconds;
    }
    UTCZone utc;
    EXPECT_EQ(detailDateText(test::at(1714566896.789)), "2024-05-01T12:34:56.789+0000");
}

// The detail screen of each kind, as (kind, label, value) lines.
std::vector<std::string> lines(const RequestEventType& item) {
    std::vector<std::string> out;
    for (const auto& section : detailSections(item)) {
        out.push_back(section.framed ? "[framed]" : "[section]");
        for (const auto& e : section.elements) {
            static const char* names[] = {"headline", "subheadline", "row",    "copyable",
                                          "json",     "image",       "notice", "timings"};
            std::string line = std::string(names[static_cast<int>(e.kind)]) + " " + e.label;
            if (e.kind == Kind::image) {
                line += " (" + std::to_string(e.text().size()) + " bytes)";
            } else if (e.waterfall) {
                line += " = " + e.waterfall->totalText;
            } else if (e.kind != Kind::headline && e.kind != Kind::subheadline) {
                line += " = " + e.text();
            }
            if (e.indented) line = "  " + line;
            if (e.statusCode) {
                line += " " + std::to_string(*e.statusCode) +
                        (e.statusColor == colors::green ? " green" : " red");
            }
            out.push_back(line);
        }
    }
    return out;
}

TEST(DetailSectionsTest, EachKindListsItsRowsInOrder) {
    UTCZone utc;
    using Lines = std::vector<std::string>;

    RequestTypeRequest full{"n", "network", {}, test::at(5), test::at(5)};
    full.details.request = RequestTypeRequestDetailsRequest{"https://a.test/u",
                                                            "POST",
                                                            {{"b", "2"}, {"A", "1"}, {"a", "3"}},
                                                            test::at(1714566896.5),
                                                            std::string(1536, 'x')};
    full.details.response = RequestTypeRequestDetailsResponse{
        399, {{"Content-Type", "application/json"}}, test::at(1714566896.623456), "[1]"};
    EXPECT_EQ(lines(full),
              (Lines{"[framed]", "headline Request", "copyable URL = https://a.test/u",
                     "copyable Method = POST", "copyable Size = 1.50 KB",
                     "copyable Started At = 2024-05-01T12:34:56.500+0000", "subheadline Headers",
                     "  copyable A = 1", "  copyable a = 3", "  copyable b = 2",
                     "copyable Body = " + std::string(1536, 'x'), "[framed]",
                     "headline Response 399 green", "copyable Duration = 123.46 ms",
                     "copyable Received At = 2024-05-01T12:34:56.623+0000",
                     "timings Timings = no timings", "subheadline Headers",
                     "  copyable Content-Type = application/json", "json Body = [1]"}));

    // No headers, no body: neither "Headers" nor "Body"; status 400 is red.
    RequestTypeRequest bare{"n", "network", {}, test::at(5), test::at(5)};
    bare.details.request = RequestTypeRequestDetailsRequest{"u", "GET", {}, test::at(0), ""};
    bare.details.response = RequestTypeRequestDetailsResponse{400, {}, test::at(0.001), ""};
    EXPECT_EQ(lines(bare), (Lines{"[framed]", "headline Request", "copyable URL = u",
                                  "copyable Method = GET", "copyable Size = 0.00 KB",
                                  "copyable Started At = 1970-01-01T00:00:00.000+0000", "[framed]",
                                  "headline Response 400 red", "copyable Duration = 1.00 ms",
                                  "copyable Received At = 1970-01-01T00:00:00.001+0000",
                                  "timings Timings = no timings"}));

    // A response without its request half shows nothing.
    RequestTypeRequest orphan{"n", "network", {}, test::at(5), test::at(5)};
    orphan.details.response = RequestTypeRequestDetailsResponse{200, {}, test::at(0), "x"};
    EXPECT_EQ(lines(orphan), Lines{});

    EXPECT_EQ(
        lines(test::log("l", "hello", "error", "main.cc", "", "db", 42)),
        (Lines{"[section]", "row Message = hello", "row Timestamp = 2024-05-01T12:34:56.500+0000",
               "row File = main.cc", "row Line = 42", "row Category = db"}));
    EXPECT_EQ(lines(test::log("l", "m", "info", "", "sub")),
              (Lines{"[section]", "row Message = m", "row Timestamp = 2024-05-01T12:34:56.500+0000",
                     "row File = ", "row Line = 0", "row Subsystem = sub"}));

    EXPECT_EQ(lines(test::event("e", "Signed In", "",
                                {{"plan", "pro"}, {"seats", 3}, {"tags", boost::json::array{}}})),
              (Lines{"[section]", "row Name = Signed In",
                     "row Category = ", "row Timestamp = 2024-05-01T12:34:56.500+0000",
                     R"(json Payload = {"plan":"pro","seats":3,"tags":[]})"}));
    // Copying the payload gives it indented.
    const auto payload = detailSections(test::event("e", "n", "", {{"plan", "pro"}, {"seats", 3}}));
    EXPECT_EQ(payload[0].elements[3].jsonText(), "{\n  \"plan\" : \"pro\",\n  \"seats\" : 3\n}");
    // A payload that cannot be written as JSON leaves the section out.
    EXPECT_EQ(lines(test::event("e", "n", "c", {{"x", std::nan("")}})).size(), 4u);
    EXPECT_EQ(lines(test::event("e", "n", "c", {{"x", "\xff"}})).size(), 4u);
    // Numbers in their shortest form, as the indented text has them.
    EXPECT_EQ(lines(test::event("e", "n", "c", {{"total", 42.5}, {"big", 1e300}})).back(),
              R"(json Payload = {"total":42.5,"big":1e+300})");
}

TEST(DetailSectionsTest, CutBodiesAreMarkedAndRealExchangesShowTheirPhases) {
    UTCZone utc;
    using Lines = std::vector<std::string>;
    RequestTypeRequest r{"n", "network", {}, test::at(5), test::at(5)};
    r.details.request = RequestTypeRequestDetailsRequest{"u", "POST", {}, test::at(0), "abc"};
    r.details.request->bodyTotalBytes = 1234567;
    r.details.response = RequestTypeRequestDetailsResponse{200, {}, test::at(0.5), ""};
    // Nothing of the body was kept (a limit of 0): the notice still says what there was.
    r.details.response->bodyTotalBytes = 1073741824;
    r.details.response->timings = RequestTypeRequestTimings{1, 2, 3, 4, 5.5};
    EXPECT_EQ(
        lines(r),
        (Lines{"[framed]", "headline Request", "copyable URL = u", "copyable Method = POST",
               "copyable Size = 0.00 KB", "copyable Started At = 1970-01-01T00:00:00.000+0000",
               "notice Body = truncated: 1,234,567 bytes in all", "copyable Body = abc", "[framed]",
               "headline Response 200 green", "copyable Duration = 500.00 ms",
               "copyable Received At = 1970-01-01T00:00:00.500+0000",
               "timings Timings = Total 15.50 ms",
               "notice Body = truncated: 1,073,741,824 bytes in all"}));
}

TEST(TimingWaterfallTest, PhasesFollowOneAnotherOnOneAxis) {
    struct Segment {
        double offset, duration, offsetFraction, widthFraction;
        std::string text;
    };
    struct Case {
        const char* what;
        RequestTypeRequestTimings timings;
        std::vector<Segment> segments;
        std::string total;
    };
    const double nan = std::nan(""), inf = std::numeric_limits<double>::infinity();
    const std::vector<Case> cases = {
        {"a new TLS connection",
         {10, 20, 30, 25, 15},
         {{0, 10, 0, 0.1, "10.00 ms"},
          {10, 20, 0.1, 0.2, "20.00 ms"},
          {30, 30, 0.3, 0.3, "30.00 ms"},
          {60, 25, 0.6, 0.25, "25.00 ms"},
          {85, 15, 0.85, 0.15, "15.00 ms"}},
         "Total 100.00 ms"},
        {"a reused plain connection: no lookup, connect or TLS",
         {0, 0, 0, 3, 1},
         {{0, 0, 0, 0, "0.00 ms"},
          {0, 0, 0, 0, "0.00 ms"},
          {0, 0, 0, 0, "0.00 ms"},
          {0, 3, 0, 0.75, "3.00 ms"},
          {3, 1, 0.75, 0.25, "1.00 ms"}},
         "Total 4.00 ms"},
        {"nothing measurable",
         {0, 0, 0, 0, 0},
         {{0, 0, 0, 0, "0.00 ms"},
          {0, 0, 0, 0, "0.00 ms"},
          {0, 0, 0, 0, "0.00 ms"},
          {0, 0, 0, 0, "0.00 ms"},
          {0, 0, 0, 0, "0.00 ms"}},
         "Total 0.00 ms"},
        {"values that are no durations count as none",
         {-5, nan, inf, 2, -inf},
         {{0, 0, 0, 0, "0.00 ms"},
          {0, 0, 0, 0, "0.00 ms"},
          {0, 0, 0, 0, "0.00 ms"},
          {0, 2, 0, 1, "2.00 ms"},
          {2, 0, 1, 0, "0.00 ms"}},
         "Total 2.00 ms"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        const TimingWaterfall w = timingWaterfall(c.timings);
        ASSERT_EQ(w.segments.size(), 5u);
        EXPECT_EQ(w.totalText, c.total);
        const char* labels[] = {"Name lookup", "Connect", "TLS", "First byte", "Transfer"};
        for (std::size_t i = 0; i < 5; ++i) {
            const auto& s = w.segments[i];
            EXPECT_EQ(s.label, labels[i]);
            EXPECT_DOUBLE_EQ(s.offsetMs, c.segments[i].offset) << i;
            EXPECT_DOUBLE_EQ(s.durationMs, c.segments[i].duration) << i;
            EXPECT_NEAR(s.offsetFraction, c.segments[i].offsetFraction, 1e-12) << i;
            EXPECT_NEAR(s.widthFraction, c.segments[i].widthFraction, 1e-12) << i;
            EXPECT_LE(s.offsetFraction + s.widthFraction, 1 + 1e-12) << i;
            EXPECT_EQ(s.durationText, c.segments[i].text) << i;
        }
    }
    for (auto [bytes, text] : std::vector<std::pair<std::int64_t, std::string>>{
             {0, "truncated: 0 bytes in all"},
             {999, "truncated: 999 bytes in all"},
             {1000, "truncated: 1,000 bytes in all"},
             {1048577, "truncated: 1,048,577 bytes in all"},
             {std::numeric_limits<std::int64_t>::min(),
              "truncated: -9,223,372,036,854,775,808 bytes in all"}}) {
        EXPECT_EQ(truncatedBodyText(bytes), text);
    }
}

TEST(DetailSectionsTest, ImageBodiesGetAPreviewWhenTheyAreBase64) {
    auto response = [](std::string contentTypeKey, std::string type, std::string body) {
        RequestTypeRequest r{"n", "network", {}, test::at(5), test::at(5)};
        r.details.request = RequestTypeRequestDetailsRequest{"u", "GET", {}, test::at(0), ""};
        r.details.response = RequestTypeRequestDetailsResponse{
            200, {{contentTypeKey, type}}, test::at(0), std::move(body)};
        return RequestEventType(r);
    };
    auto tail = [](const RequestEventType& item) {
        const auto sections = detailSections(item);
        const auto& e = sections.back().elements;
        // After the headline, duration, date, timings and the header.
        std::vector<std::string> out;
        for (std::size_t i = 6; i < e.size(); ++i) out.push_back(e[i].label);
        return out;
    };
    using Labels = std::vector<std::string>;
    const std::string png = base64Encode("\x89PNG\r\n\x1a\n");
    EXPECT_EQ(tail(response("Content-Type", "image/png", png)),
              (Labels{"Preview", "Preview", "Body"}));
    EXPECT_EQ(tail(response("Content-Type", "IMAGE/GIF", png)),
              (Labels{"Preview", "Preview", "Body"}));
    // Not base64: the text only. Another spelling of the key is not consulted for images.
    EXPECT_EQ(tail(response("Content-Type", "image/png", "not base64!")), (Labels{"Body"}));
    EXPECT_EQ(tail(response("content-type", "image/png", png)), (Labels{"Body"}));
    const auto sections = detailSections(response("Content-Type", "image/png", png));
    EXPECT_EQ(sections.back().elements[7].text(), "\x89PNG\r\n\x1a\n");
}

TEST(DetailSectionsTest, HugeAndBrokenValuesAreShownInPart) {
    const std::string big(50 * 1024 * 1024, 'a');
    const ShownText shown = shownText(big);
    EXPECT_EQ(shown.text.size(), 64u * 1024);
    EXPECT_EQ(shown.note, "Showing the first 64.00 KB of 51200.00 KB. Copy takes the whole text.");
    const std::string accents = std::string(65535, 'a') + "é";
    EXPECT_EQ(shownText(accents).text.size(), 65535u) << "cut before the character";
    EXPECT_NE(shownText("ok\xff").note.find("not valid UTF-8"), std::string::npos);
    EXPECT_EQ(shownText("fine").note, "");
}

TEST(JSONTextTest, PrettyPrintingAnyDepthAndWhatCannotBeWritten) {
    EXPECT_EQ(prettyPrintedJSON(boost::json::parse(R"({"a":[1,2.5,{"b":null}],"c":true,"d":{}})")),
              "{\n  \"a\" : [\n    1,\n    2.5,\n    {\n      \"b\" : null\n    }\n  ],\n"
              "  \"c\" : true,\n  \"d\" : {}\n}");
    EXPECT_EQ(prettyPrintedJSON(boost::json::value("q\"\n")), "\"q\\\"\\n\"");
    EXPECT_EQ(prettyPrintedJSON(boost::json::value(std::numeric_limits<double>::infinity())),
              std::nullopt);
    EXPECT_EQ(prettyPrintedJSON(boost::json::object{{"k", "\xff"}}), std::nullopt);

    boost::json::value deep = boost::json::array{};
    for (int i = 0; i < 10000; ++i) {
        boost::json::array outer;
        outer.push_back(std::move(deep));
        deep = std::move(outer);
    }
    const auto text = prettyPrintedJSON(deep);
    ASSERT_TRUE(text);
    EXPECT_EQ(std::count(text->begin(), text->end(), '\n'), 20000);
    EXPECT_TRUE(isJSON(*text));
    // Release the nest from the inside out, so that no destructor recursion gets deep.
    while (deep.is_array() && !deep.get_array().empty()) {
        boost::json::value inner = std::move(deep.get_array()[0]);
        deep = std::move(inner);
    }

    EXPECT_EQ(formattedCodeText("[1]", "json"), "[\n  1\n]");
    EXPECT_EQ(formattedCodeText("[1]", "JSON"), "[1]");
    EXPECT_EQ(formattedCodeText("{broken", "json"), "{broken");
}

using ItemDetailsTest = test::InspectorFixture;

TEST_F(ItemDetailsTest, TapsCopyTheValueAndConfirmWithAToast) {
    ItemDetailsModel details(test::event("e", "Signed In", "account", {{"plan", "pro"}}),
                             clipboard_, toasts_);
    const auto& elements = details.sections()[0].elements;
    details.copyValue(elements[0]);
    EXPECT_EQ(clipboard_.string(), "Signed In");
    EXPECT_EQ(toasts_.currentToast(), "Copied to clipboard");
    clock_.advance(std::chrono::milliseconds(500));
    details.copyJSON(elements[3]);
    EXPECT_EQ(clipboard_.string(), "{\n  \"plan\" : \"pro\"\n}");
    EXPECT_EQ(toasts_.currentToast(), "JSON copied to clipboard");
    clock_.advance(std::chrono::milliseconds(1500));
    EXPECT_EQ(toasts_.currentToast(), std::nullopt);
    EXPECT_EQ(clipboard_.copies.size(), 2u);
}

}  // namespace
}  // namespace kestro
