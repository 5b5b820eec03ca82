#include "kestro/export/har.h"

#include <gtest/gtest.h>

#include <boost/json/parse.hpp>
#include <fstream>
#include <sstream>

#include "export/export_fixtures.h"
#include "kestro/core/config.h"
#include "kestro/network/body_text.h"
#include "support/console_capture.h"

namespace kestro {
namespace {

using boost::json::object;
using boost::json::value;
using test::exchange;

std::string readFile(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}

RequestTypeRequestDetailsResponse answer(std::int64_t status, TextMap headers, std::string body,
                                         std::int64_t receivedMs) {
    return RequestTypeRequestDetailsResponse{
        status,          std::move(headers), test::atMs(receivedMs),
        std::move(body), std::nullopt,       std::nullopt};
}

// Exchanges of every shape the store holds.
std::vector<RequestTypeRequest> exchanges() {
    std::vector<RequestTypeRequest> all;

    // Measured over TLS: a new connection with every phase.
    auto tls = exchange("tls", "GET", "https://127.0.0.1:8443/users?a=1&a=2&q=two+words&flag",
                        {{"Accept", "application/json"}}, "");
    tls.details.response =
        answer(200, {{"Content-Type", "application/json"}}, R"({"x":[1,2]})", 1'700'000'000'250);
    tls.details.response->timings = RequestTypeRequestTimings{1.5, 2.25, 10.125, 30.0, 4.0};
    all.push_back(tls);

    // Measured on a reused plain connection: no lookup, connect or TLS.
    auto reused = exchange("reused", "POST", "http://127.0.0.1:8080/echo",
                           {{"Content-Type", "application/x-www-form-urlencoded"}}, "name=it's");
    reused.details.response =
        answer(201, {{"Content-Type", "application/octet-stream"}},
               base64Encode(std::string("\0\1\2\3\4\5", 6)), 1'700'000'000'040);
    reused.details.response->timings = RequestTypeRequestTimings{0, 0, 0, 12.5, 0.5};
    all.push_back(reused);

    // Mocked: no timings; the span counts as waiting; its body is the rule's text.
    auto mocked = exchange("mocked", "GET", "http://127.0.0.1:8080/image.png", {}, "");
    mocked.details.response =
        answer(200, {{"Content-Type", "image/png"}, {"Kestro-Intercepted", "true"}}, "not base64!",
               1'700'000'000'075);
    all.push_back(mocked);

    // Still waiting for its answer.
    all.push_back(exchange("waiting", "DELETE", "http://127.0.0.1:8080/items/3", {}, ""));

    // Both bodies cut, a redirect, and a clock that jumped back between start and answer.
    auto cut = exchange("cut", "PUT", "http://127.0.0.1:8080/upload",
                        {{"Content-Type", "application/octet-stream"}},
                        base64Encode(std::string(12, '\x7f')));
    cut.details.request->bodyTotalBytes = 1'000'000;
    cut.details.response =
        answer(302, {{"Content-Type", "text/plain; charset=utf-8"}, {"location", "/elsewhere"}},
               "caf\xc3\xa9", 1'699'999'999'000);
    cut.details.response->bodyTotalBytes = 5'000'000;
    all.push_back(cut);
    return all;
}

TEST(HarTest, DocumentIsValidHAR12AndItsTimingsAddUp) {
    const auto all = exchanges();
    test::ExportDir dir;
    const std::optional<std::filesystem::path> file = writeHARFile(all, dir.path());
    ASSERT_TRUE(file);
    EXPECT_EQ(file->parent_path(), dir.path());
    EXPECT_TRUE(file->filename().string().starts_with("kestro-"));
    EXPECT_EQ(file->extension(), ".har");
    EXPECT_EQ(readFile(*file), harDocument(all));

#if defined(KESTRO_NODE) && defined(KESTRO_HAR_VALIDATOR) && defined(KESTRO_NODE_MODULES)
    const std::string report = (dir.path() / "validator.txt").string();
    const int status = test::runProgram(
        {KESTRO_NODE, KESTRO_HAR_VALIDATOR, KESTRO_NODE_MODULES, file->string()}, report);
    EXPECT_EQ(status, 0) << readFile(report);
#else
    GTEST_SKIP() << "node or the HAR schema is not installed (scripts/setup.sh installs them)";
#endif
}

TEST(HarTest, EntriesFollowTheExportRules) {
    const value doc = boost::json::parse(harDocument(exchanges()));
    const object& log = doc.at("log").as_object();
    EXPECT_EQ(log.at("version"), "1.2");
    EXPECT_EQ(log.at("creator"), (object{{"name", "Kestro"}, {"version", SDK_VERSION}}));
    const auto& entries = log.at("entries").as_array();
    ASSERT_EQ(entries.size(), 5u);
    const auto entry = [&](std::size_t i) -> const object& { return entries[i].as_object(); };
    const auto timings = [&](std::size_t i) -> const object& {
        return entry(i).at("timings").as_object();
    };

    // TLS: ssl is its own figure and lies within connect; time is the sum but for ssl.
    EXPECT_EQ(entry(0).at("startedDateTime"), "2023-11-14T22:13:20.000Z");
    EXPECT_EQ(timings(0).at("dns").as_double(), 1.5);
    EXPECT_EQ(timings(0).at("connect").as_double(), 12.375);
    EXPECT_EQ(timings(0).at("ssl").as_double(), 10.125);
    EXPECT_EQ(timings(0).at("wait").as_double(), 30.0);
    EXPECT_EQ(timings(0).at("receive").as_double(), 4.0);
    EXPECT_DOUBLE_EQ(entry(0).at("time").as_double(), 1.5 + 12.375 + 30.0 + 4.0);
    // Repeated items stay, '+' is a space, an item without '=' has an empty value.
    EXPECT_EQ(entry(0).at("request").at("queryString"),
              boost::json::parse(R"([{"name":"a","value":"1"},{"name":"a","value":"2"},
                  {"name":"q","value":"two words"},{"name":"flag","value":""}])"));
    EXPECT_EQ(
        entry(0).at("response").at("content"),
        boost::json::parse(R"({"size":11,"mimeType":"application/json","text":"{\"x\":[1,2]}"})"));
    EXPECT_FALSE(entry(0).at("request").as_object().contains("postData"));

    // Reused connection: the phases that did not happen are -1, not 0.
    EXPECT_EQ(timings(1).at("dns").as_int64(), -1);
    EXPECT_EQ(timings(1).at("connect").as_int64(), -1);
    EXPECT_EQ(timings(1).at("ssl").as_int64(), -1);
    EXPECT_DOUBLE_EQ(entry(1).at("time").as_double(), 13.0);
    EXPECT_EQ(entry(1).at("request").at("postData"),
              boost::json::parse(
                  R"({"mimeType":"application/x-www-form-urlencoded","text":"name=it's"})"));
    EXPECT_EQ(entry(1).at("request").at("bodySize"), 9);
    const object& binary = entry(1).at("response").at("content").as_object();
    EXPECT_EQ(binary.at("encoding"), "base64");
    EXPECT_EQ(binary.at("size"), 6);
    EXPECT_EQ(entry(1).at("response").at("bodySize"), 6);

    // Mocked: text whatever its type, 75 ms of waiting.
    EXPECT_EQ(entry(2).at("_mocked"), true);
    EXPECT_FALSE(entry(2).at("response").at("content").as_object().contains("encoding"));
    EXPECT_EQ(entry(2).at("response").at("content").at("text"), "not base64!");
    EXPECT_DOUBLE_EQ(entry(2).at("time").as_double(), 75.0);
    EXPECT_DOUBLE_EQ(timings(2).at("wait").as_double(), 75.0);
    EXPECT_EQ(timings(2).at("dns").as_int64(), -1);

    // Waiting: status 0, no time.
    EXPECT_EQ(entry(3).at("_waiting"), true);
    EXPECT_EQ(entry(3).at("response").at("status"), 0);
    EXPECT_EQ(entry(3).at("time").to_number<double>(), 0);

    // Cut bodies give the whole size and say so; the clock's jump back gives no negative time.
    const object& put = entry(4).at("request").as_object();
    EXPECT_EQ(put.at("bodySize"), 1'000'000);
    EXPECT_EQ(put.at("postData").at("comment"),
              "base64 of the body's bytes; truncated: 1000000 bytes in all");
    const object& redirect = entry(4).at("response").as_object();
    EXPECT_EQ(redirect.at("redirectURL"), "/elsewhere");
    EXPECT_EQ(redirect.at("content").at("size"), 5'000'000);
    EXPECT_EQ(redirect.at("content").at("comment"), "truncated: 5000000 bytes in all");
    EXPECT_EQ(redirect.at("content").at("text"), "caf\xc3\xa9");
    EXPECT_EQ(entry(4).at("time").to_number<double>(), 0);
}

TEST(HarTest, FilesNeverOverwriteAndFailuresAreReported) {
    test::ExportDir dir;
    const auto all = exchanges();
    const auto first = writeHARFile(all, dir.path());
    const auto second = writeHARFile(all, dir.path());
    ASSERT_TRUE(first && second);
    EXPECT_NE(*first, *second);
    EXPECT_TRUE(std::filesystem::exists(*first));

    test::ConsoleCapture console;
    EXPECT_FALSE(writeHARFile(all, dir.path() / "missing"));
    EXPECT_NE(console.text().find("The HAR file could not be written"), std::string::npos);

    // An empty set is still a valid document.
    EXPECT_EQ(boost::json::parse(harDocument({})).at("log").at("entries").as_array().size(), 0u);
}

}  // namespace
}  // namespace kestro
