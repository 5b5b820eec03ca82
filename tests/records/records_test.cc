#include "kestro/records/records.h"

#include <gtest/gtest.h>

#include <boost/json.hpp>

namespace kestro {
namespace {

namespace json = boost::json;
using std::chrono::microseconds;

TimePoint at(std::int64_t us) { return TimePoint{} + microseconds(us); }

RequestTypeLog sampleLog() {
    return {
        "6F1C1A4E-2B7D-4C55-9A0B-1D2E3F405162",
        "log",
        "warn",
        at(1714566896123456),
        at(1714566896123456),
        {"disk \"almost\" full\n\t\\ ü", "com.app", "storage", "/src/app/disk.cc", "disk.cc", 42}};
}

RequestTypeEvent sampleEvent() {
    return {"A0000000-0000-4000-8000-000000000001",
            "event",
            at(1714566896000001),
            at(1714566896000001),
            {"Checkout", "commerce",
             json::parse(R"({"total":12.5,"items":[1,{"sku":"x"},[]],"n":null,"ok":true})")
                 .as_object()}};
}

RequestTypeRequest sampleRequest() {
    RequestTypeRequest r{"B0000000-0000-4000-8000-000000000002",
                         "network",
                         {},
                         at(1700000000000000),
                         at(1700000000000000)};
    r.details.request = RequestTypeRequestDetailsRequest{"https://example.test/a?b=1",
                                                         "POST",
                                                         {{"Content-Type", "application/json"}},
                                                         at(1699999999500000),
                                                         R"({"q":1})"};
    r.details.response =
        RequestTypeRequestDetailsResponse{201, {{"Server", "t"}}, at(1700000000250000), "created"};
    return r;
}

// A cut exchange with its phase timings (fractional and whole milliseconds).
RequestTypeRequest sampleCutRequest() {
    RequestTypeRequest r = sampleRequest();
    r.details.request->bodyTotalBytes = 3'000'000'000;
    r.details.response->bodyTotalBytes = 1'048'577;
    r.details.response->timings = RequestTypeRequestTimings{1.25, 0.5, 12.0, 40.125, 0};
    return r;
}

std::vector<RequestEventType> samples() {
    RequestTypeRequest bare{"", "network", {}, at(0), at(0)};
    return {RequestEventType(sampleLog()), RequestEventType(sampleEvent()),
            RequestEventType(sampleRequest()), RequestEventType(sampleCutRequest()),
            RequestEventType(bare)};
}

TEST(RecordsTest, EveryRecordRoundTripsThroughItsDictionaryAndItsText) {
    for (const auto& record : samples()) {
        const json::object dict = record.encode();
        EXPECT_EQ(dict.begin()->key(), "eventType");
        auto back = RequestEventType::decode(dict);
        ASSERT_TRUE(back.has_value()) << json::serialize(dict);
        EXPECT_EQ(*back, record);

        // The directly written text is one compact object equal to the dictionary.
        const std::string text = record.toJSON();
        EXPECT_EQ(text.rfind("{\"eventType\":", 0), 0u) << text;
        EXPECT_EQ(text.find('\n'), std::string::npos);
        const json::value parsed = json::parse(text);
        EXPECT_EQ(parsed, json::value(dict)) << text;
        EXPECT_EQ(*RequestEventType::decode(parsed.as_object()), record);
    }
}

TEST(RecordsTest, NumbersKeepTheirKind) {
    const json::object log = RequestEventType(sampleLog()).encode();
    EXPECT_TRUE(log.at("sentAt").is_double());
    EXPECT_TRUE(log.at("details").at("line").is_int64());
    // A time with no fraction still reads back as a fractional number from the text form.
    RequestTypeRequest whole{"x", "network", {}, at(1700000000000000), at(1700000000000000)};
    const json::value parsed = json::parse(RequestEventType(whole).toJSON());
    EXPECT_TRUE(parsed.at("sentAt").is_double());
    EXPECT_EQ(RequestEventType(whole).encode().at("details").as_object().size(), 0u);
}

TEST(RecordsTest, DecodingIsAllOrNothing) {
    const json::object good = RequestEventType(sampleLog()).encode();
    auto without = [&](std::initializer_list<const char*> path) {
        json::object d = good;
        json::object* o = &d;
        auto it = path.begin();
        for (; std::next(it) != path.end(); ++it) o = &o->at(*it).as_object();
        o->erase(*it);
        return d;
    };
    auto with = [&](std::initializer_list<const char*> path, json::value v) {
        json::object d = good;
        json::object* o = &d;
        auto it = path.begin();
        for (; std::next(it) != path.end(); ++it) o = &o->at(*it).as_object();
        (*o)[*it] = std::move(v);
        return d;
    };
    EXPECT_FALSE(RequestEventType::decode(without({"eventType"})));
    EXPECT_FALSE(RequestEventType::decode(with({"eventType"}, "Log")));
    EXPECT_FALSE(RequestEventType::decode(with({"eventType"}, "logs")));
    EXPECT_FALSE(RequestEventType::decode(with({"eventType"}, 1)));
    EXPECT_FALSE(RequestEventType::decode(without({"details", "file"})));
    EXPECT_FALSE(RequestEventType::decode(with({"details", "line"}, 12.5)));
    EXPECT_FALSE(RequestEventType::decode(with({"details", "line"}, "12")));
    EXPECT_FALSE(RequestEventType::decode(with({"sentAt"}, "now")));
    EXPECT_FALSE(RequestEventType::decode(with({"details"}, json::array{})));
    EXPECT_FALSE(RequestEventType::decode(with({"id"}, nullptr)));

    // An integral time is a whole second; an integral-valued fraction is a valid integer.
    auto whole = RequestEventType::decode(with({"sentAt"}, 1700000000));
    ASSERT_TRUE(whole);
    EXPECT_EQ(whole->asLog()->sentAt, at(1700000000000000));
    auto line = RequestEventType::decode(with({"details", "line"}, 12.0));
    ASSERT_TRUE(line);
    EXPECT_EQ(line->asLog()->details.line, 12);
    EXPECT_FALSE(RequestEventType::decode(with({"details", "line"}, 18446744073709551615ull)));

    // Keys that are not part of a type are ignored ("level" on an event, for one).
    json::object event = RequestEventType(sampleEvent()).encode();
    event["level"] = 7;
    event["extra"] = "x";
    EXPECT_TRUE(RequestEventType::decode(event));
    event["details"].as_object()["payload"] = "not an object";
    EXPECT_FALSE(RequestEventType::decode(event));
}

TEST(RecordsTest, CutBodiesAndTimingsAreWrittenOnlyWhenKnown) {
    const json::object plain = RequestEventType(sampleRequest()).encode();
    const auto& halves = plain.at("details").as_object();
    EXPECT_FALSE(halves.at("request").as_object().contains("bodyTotalBytes"));
    EXPECT_FALSE(halves.at("response").as_object().contains("bodyTotalBytes"));
    EXPECT_FALSE(halves.at("response").as_object().contains("timings"));

    json::object cut = RequestEventType(sampleCutRequest()).encode();
    auto& response = cut["details"].as_object()["response"].as_object();
    EXPECT_EQ(response.at("bodyTotalBytes"), 1048577);
    EXPECT_EQ(response.at("timings").at("firstByte"), 40.125);
    // Timings missing a phase are dropped, not the half.
    response["timings"].as_object().erase("tls");
    auto back = RequestEventType::decode(cut);
    ASSERT_TRUE(back && back->asNetworkRequest()->details.response);
    EXPECT_FALSE(back->asNetworkRequest()->details.response->timings);
    EXPECT_EQ(back->asNetworkRequest()->details.response->bodyTotalBytes, 1048577);
}

TEST(RecordsTest, MalformedNetworkHalvesAreDroppedNotTheRecord) {
    json::object d = RequestEventType(sampleRequest()).encode();
    auto& details = d["details"].as_object();
    details["response"].as_object()["headers"].as_object()["Server"] = 5;
    details["request"] = "not an object";
    auto back = RequestEventType::decode(d);
    ASSERT_TRUE(back);
    EXPECT_FALSE(back->asNetworkRequest()->details.request);
    EXPECT_FALSE(back->asNetworkRequest()->details.response);
    details.erase("response");
    details["request"] = sampleRequest().details.request->encode();
    back = RequestEventType::decode(d);
    ASSERT_TRUE(back);
    EXPECT_EQ(back->asNetworkRequest()->details.request, sampleRequest().details.request);
}

// Repair reaches every text a record carries, keys of header maps and payloads included, and
// leaves a well-formed record as it was.
TEST(RecordsTest, RepairLeavesOnlyWellFormedTexts) {
    const std::string fffd = "\xEF\xBF\xBD";
    RequestTypeLog log = sampleLog();
    RequestTypeEvent unchanged = sampleEvent();
    RequestTypeRequest plain = sampleRequest();
    repairUTF8(log), repairUTF8(unchanged), repairUTF8(plain);
    EXPECT_EQ(log, sampleLog());
    EXPECT_EQ(unchanged, sampleEvent());
    EXPECT_EQ(plain, sampleRequest());
    RequestTypeRequest request = sampleRequest();
    request.details.request->headers["X-\xFF"] = "v\xC0";
    request.details.request->url = "https://example.test/\xE9";
    request.details.response->headers["Set"] = "\xF8";
    repairUTF8(request);
    EXPECT_EQ(request.details.request->headers.at("X-" + fffd), "v" + fffd);
    EXPECT_EQ(request.details.request->url, "https://example.test/" + fffd);
    EXPECT_EQ(request.details.response->headers.at("Set"), fffd);

    RequestTypeEvent event = sampleEvent();
    event.details.payload["\xC1z"] = json::array{json::object{{"\xFE", "\xED\xA0"}}, 2};
    event.details.payload["\xC2z"] = "same key once repaired";
    repairUTF8(event);
    const auto& repaired = event.details.payload.at(fffd + "z").as_array();
    EXPECT_EQ(repaired.at(0).as_object().at(fffd), json::value(fffd + fffd));
    EXPECT_EQ(repaired.at(1), json::value(2));
    EXPECT_EQ(event.details.payload.size(), sampleEvent().details.payload.size() + 1);
    const std::string text = RequestEventType(event).toJSON();
    EXPECT_EQ(json::parse(text), json::value(RequestEventType(event).encode()));
}

TEST(RecordsTest, EveryAsciiCharacterAtEveryWordOffsetSurvivesTheText) {
    for (int c = 0; c < 128; ++c) {
        for (std::size_t offset = 0; offset < 17; ++offset) {
            RequestTypeLog log = sampleLog();
            log.details.message =
                std::string(offset, 'a') + static_cast<char>(c) + std::string(20, 'b') + "ü";
            const std::string text = RequestEventType(log).toJSON();
            const auto back = RequestEventType::decode(json::parse(text).as_object());
            ASSERT_TRUE(back) << c << " at " << offset;
            ASSERT_EQ(back->asLog()->details.message, log.details.message) << c << " at " << offset;
        }
    }
}

TEST(RecordsTest, IdentityAndLastPathComponent) {
    const auto all = samples();
    EXPECT_EQ(all[0].id(), sampleLog().id);
    EXPECT_EQ(all[2].timestamp(), sampleRequest().createdAt);
    EXPECT_STREQ(all[1].eventTypeText(), "customEvent");
    EXPECT_EQ(lastPathComponent("/a/b/c.swift"), "c.swift");
    EXPECT_EQ(lastPathComponent("c.cc"), "c.cc");
    EXPECT_EQ(lastPathComponent("/a/dir/"), "dir");
    EXPECT_EQ(lastPathComponent("/"), "/");
    EXPECT_EQ(lastPathComponent(""), "");
}

}  // namespace
}  // namespace kestro
