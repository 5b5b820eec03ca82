// The SDK-facing endpoints: device registration, item uploads, their checks and limits, and
// what the control API shows of them.
#include <gtest/gtest.h>

#include <boost/json.hpp>
#include <thread>

#include "service_fixture.h"
#include "support/console_capture.h"
#include "support/wait.h"

namespace kestro::test {
namespace {
namespace json = boost::json;

using json::serialize;

using UploadsTest = ServiceFixture;

TEST_F(UploadsTest, DeviceRegistrationIsAnUpsertById) {
    auto first = put("/v1/devices", deviceDictionary("DEV-1", "first"));
    ASSERT_EQ(first.status, 200u) << first.body;
    EXPECT_EQ(first.json().at("created"), true);
    EXPECT_EQ(first.header("content-type"), "application/json; charset=utf-8");

    auto again = put("/v1/devices", deviceDictionary("DEV-1", "renamed"));
    ASSERT_EQ(again.status, 200u) << again.body;
    EXPECT_EQ(again.json().at("created"), false);

    auto list = get("/api/devices").json().at("devices").as_array();
    ASSERT_EQ(list.size(), 1u);
    EXPECT_EQ(list[0].at("id"), "DEV-1");
    EXPECT_EQ(list[0].at("name"), "renamed");
    EXPECT_EQ(list[0].at("platform"), "linux");
    EXPECT_EQ(list[0].at("keyKind"), "dev");
    EXPECT_EQ(list[0].at("connected"), false);
    EXPECT_LE(list[0].at("firstSeen").as_double(), list[0].at("lastSeen").as_double());

    auto one = get("/api/devices/DEV-1");
    ASSERT_EQ(one.status, 200u);
    EXPECT_EQ(one.json().at("info").at("osVersion"), "12");
    auto missing = get("/api/devices/NOPE");
    EXPECT_EQ(missing.status, 404u);
    EXPECT_TRUE(missing.json().at("error").is_string());
}

TEST_F(UploadsTest, ExchangeHalvesAreJoinedByIdAndListedNewestFirst) {
    ASSERT_EQ(put("/v1/requests", requestHalf("R-1", "DEV-1")).status, 200u);
    ASSERT_EQ(put("/v1/requests", logRecord("L-1", "DEV-1")).status, 200u);
    auto second = put("/v1/requests", responseHalf("R-1", "DEV-1", 201));
    ASSERT_EQ(second.status, 200u) << second.body;
    EXPECT_EQ(second.json().at("created"), false);
    ASSERT_EQ(put("/v1/requests", eventRecord("E-1", "DEV-2")).status, 200u);

    auto item = get("/api/items/R-1?uploads=1").json();
    EXPECT_EQ(item.at("kind"), "networkRequest");
    EXPECT_EQ(item.at("deviceId"), "DEV-1");
    const auto& details = item.at("record").at("details");
    EXPECT_EQ(details.at("request").at("method"), "GET");
    EXPECT_EQ(details.at("response").at("statusCode"), 201);
    EXPECT_FALSE(item.at("record").as_object().contains("device"));
    // Both uploads are kept as they arrived, in order.
    const auto& uploads = item.at("uploads").as_array();
    ASSERT_EQ(uploads.size(), 2u);
    EXPECT_TRUE(uploads[0].at("body").at("details").as_object().contains("request"));
    EXPECT_TRUE(uploads[1].at("body").at("details").as_object().contains("response"));
    EXPECT_EQ(uploads[1].at("body").at("device").at("id"), "DEV-1");

    auto page = get("/api/items").json();
    const auto& items = page.at("items").as_array();
    ASSERT_EQ(items.size(), 3u);
    EXPECT_EQ(items[0].at("id"), "E-1");
    EXPECT_EQ(items[1].at("id"), "L-1");
    EXPECT_EQ(items[2].at("id"), "R-1");
    EXPECT_EQ(items[2].at("status"), 201);
    EXPECT_EQ(items[2].at("waiting"), false);
    EXPECT_EQ(items[2].at("url"), "http://127.0.0.1/sample/users");
    EXPECT_EQ(items[2].at("method"), "GET");
    EXPECT_EQ(items[2].at("uploadCount"), 2);
    EXPECT_EQ(items[1].at("message"), "hello");
    EXPECT_EQ(items[1].at("level"), "info");
    EXPECT_EQ(items[0].at("name"), "Ping");
    EXPECT_EQ(items[0].at("category"), "GENERAL");
    EXPECT_TRUE(page.at("nextCursor").is_null());
    EXPECT_EQ(page.at("revision"), 4);

    auto mine = get("/api/items?device=DEV-1").json().at("items").as_array();
    ASSERT_EQ(mine.size(), 2u);
    // A device that only uploaded items is known too.
    EXPECT_EQ(get("/api/devices/DEV-2").status, 200u);
    EXPECT_EQ(get("/api/items/NOPE").status, 404u);
}

TEST_F(UploadsTest, PagesFollowTheCursorAndSinceShowsChangedItems) {
    for (int i = 0; i < 5; ++i) {
        ASSERT_EQ(put("/v1/requests", requestHalf("R-" + std::to_string(i), "DEV-1")).status, 200u);
    }
    std::vector<std::string> seen;
    std::string target = "/api/items?limit=2";
    for (int page = 0; page < 5; ++page) {
        auto body = get(target).json();
        for (const auto& item : body.at("items").as_array()) {
            seen.emplace_back(item.at("id").as_string());
        }
        if (body.at("nextCursor").is_null()) break;
        target = "/api/items?limit=2&before=" + std::to_string(body.at("nextCursor").as_int64());
    }
    EXPECT_EQ(seen, (std::vector<std::string>{"R-4", "R-3", "R-2", "R-1", "R-0"}));

    const auto revision = get("/api/items").json().at("revision").as_int64();
    ASSERT_EQ(put("/v1/requests", responseHalf("R-1", "DEV-1")).status, 200u);
    auto changed = get("/api/items?since=" + std::to_string(revision)).json();
    ASSERT_EQ(changed.at("items").as_array().size(), 1u);
    EXPECT_EQ(changed.at("items").as_array()[0].at("id"), "R-1");
    EXPECT_EQ(changed.at("revision"), revision + 1);

    for (const char* bad : {"limit=0", "limit=501", "limit=x", "since=-1", "before=1.5"}) {
        auto r = get(std::string("/api/items?") + bad);
        EXPECT_EQ(r.status, 400u) << bad;
        EXPECT_TRUE(r.json().at("error").is_string()) << bad;
    }
}

struct BadUpload {
    const char* name;
    std::string path;
    std::string body;
    std::map<std::string, std::string> headers;
    unsigned status;
    const char* errorPart;
};

TEST_F(UploadsTest, MalformedUploadsGetAClientErrorWithAJSONBodyAndStoreNothing) {
    const std::map<std::string, std::string> ok = {{"Api-Key", key_},
                                                   {"Content-Type", "application/json"}};
    auto with = [&](json::object o, const char* key, json::value v) {
        o[key] = std::move(v);
        return serialize(o);
    };
    auto without = [&](json::object o, const char* key) {
        o.erase(key);
        return serialize(o);
    };
    auto log = logRecord("L-1", "DEV-1");
    auto badLine = log;
    badLine["details"].as_object()["line"] = 12.5;
    auto badHeaders = responseHalf("R-1", "DEV-1");
    badHeaders["details"].as_object()["response"].as_object()["headers"] = json::object{{"a", 1}};
    const std::string good = serialize(log);

    const std::vector<BadUpload> cases = {
        {"no key", "/v1/requests", good, {{"Content-Type", "application/json"}}, 401, "Api-Key"},
        {"upper-case prefix", "/v1/requests", good, {{"Api-Key", "KT-dev-k"}}, 401, "kt-dev-"},
        {"unknown middle word", "/v1/requests", good, {{"Api-Key", "kt-test-k"}}, 401, "kt-prod-"},
        {"prefix without hyphen", "/v1/devices", good, {{"Api-Key", "kt-prod"}}, 401, "kt-prod-"},
        {"unknown key", "/v1/requests", good, {{"Api-Key", key_ + "0"}}, 401, "not known"},
        {"not JSON", "/v1/requests", "{\"eventType\":", ok, 400, "not valid JSON"},
        {"array", "/v1/requests", "[1,2]", ok, 400, "JSON object"},
        {"no eventType", "/v1/requests", without(log, "eventType"), ok, 400, "eventType"},
        {"numeric eventType", "/v1/requests", with(log, "eventType", 3), ok, 400, "eventType"},
        {"other-case eventType", "/v1/requests", with(log, "eventType", "Log"), ok, 400, "Log"},
        {"no id", "/v1/requests", without(log, "id"), ok, 400, "\"id\" is missing"},
        {"numeric id", "/v1/requests", with(log, "id", 7), ok, 400, "\"id\" must be a string"},
        {"empty id", "/v1/requests", with(log, "id", ""), ok, 400, "must not be empty"},
        {"fractional line", "/v1/requests", serialize(badLine), ok, 400, "details.line"},
        {"numeric header", "/v1/requests", serialize(badHeaders), ok, 400,
         "details.response.headers"},
        {"no device", "/v1/requests", without(log, "device"), ok, 400, "\"device\" is missing"},
        {"device not an object", "/v1/requests", with(log, "device", "DEV-1"), ok, 400,
         "\"device\" must be an object"},
        {"form body",
         "/v1/requests",
         good,
         {{"Api-Key", key_}, {"Content-Type", "text/plain"}},
         415,
         "application/json"},
        {"device without id", "/v1/devices", "{\"name\":\"x\"}", ok, 400, "\"id\" is missing"},
        {"device with numeric id", "/v1/devices", "{\"id\":5}", ok, 400, "\"id\" must be"},
        {"device with numeric value", "/v1/devices", "{\"id\":\"D\",\"osVersion\":12}", ok, 400,
         "osVersion"},
    };
    for (const auto& c : cases) {
        auto r = httpRequest(port_, "POST", c.path, c.body, c.headers);
        EXPECT_EQ(r.status, c.status) << c.name << ": " << r.body;
        const auto body = r.json();
        ASSERT_TRUE(body.is_object()) << c.name << ": " << r.body;
        const auto* error = body.as_object().if_contains("error");
        ASSERT_TRUE(error && error->is_string()) << c.name;
        EXPECT_NE(std::string(error->as_string()).find(c.errorPart), std::string::npos)
            << c.name << ": " << *error;
    }
    auto wrongMethod = get("/v1/requests");
    EXPECT_EQ(wrongMethod.status, 405u);
    EXPECT_EQ(wrongMethod.header("allow"), "POST");
    EXPECT_EQ(get("/nowhere").status, 404u);

    auto health = get("/api/health").json();
    EXPECT_EQ(health.at("items"), 0);
    EXPECT_EQ(health.at("devices"), 0);
}

TEST_F(UploadsTest, BodiesAboveTheLimitGet413AndTheServiceKeepsServing) {
    service_.reset();
    startService(4096);
    // Padding inside a valid record, so that only the size decides.
    auto record = logRecord("L-1", "DEV-1", std::string(3000, 'a'));
    ASSERT_EQ(put("/v1/requests", record).status, 200u);

    record["details"].as_object()["message"] = std::string(5000, 'b');
    auto big = put("/v1/requests", record);
    EXPECT_EQ(big.status, 413u);
    EXPECT_NE(std::string(big.json().at("error").as_string()).find("4096"), std::string::npos);
    EXPECT_EQ(big.header("connection"), "close");

    // A chunked body is measured as it arrives.
    std::string chunked =
        "POST /v1/requests HTTP/1.1\r\nHost: x\r\nApi-Key: kt-dev-k\r\n"
        "Transfer-Encoding: chunked\r\n\r\n";
    for (int i = 0; i < 5; ++i) chunked += "400\r\n" + std::string(1024, ' ') + "\r\n";
    chunked += "0\r\n\r\n";
    EXPECT_NE(rawExchange(port_, chunked).find("HTTP/1.1 413"), std::string::npos);

    EXPECT_EQ(get("/api/health").status, 200u);
    EXPECT_EQ(get("/api/items").json().at("items").as_array().size(), 1u);
}

TEST_F(UploadsTest, AFiftyMegabyteItemIsRefusedAndNothingStoredIsLost) {
    ASSERT_EQ(put("/v1/requests", requestHalf("R-1", "DEV-1")).status, 200u);
    auto huge = responseHalf("R-1", "DEV-1");
    huge["details"].as_object()["response"].as_object()["body"] = std::string(50 << 20, 'z');
    const auto refused = put("/v1/requests", huge);
    EXPECT_EQ(refused.status, 413u);
    // Nesting deeper than the parser takes is a clear error too.
    const auto deep =
        upload(port_, "/v1/requests", std::string(100000, '[') + std::string(100000, ']'), key_);
    EXPECT_EQ(deep.status, 400u);
    EXPECT_TRUE(deep.json().at("error").is_string());

    const auto item = get("/api/devices/DEV-1/items/R-1").json();
    EXPECT_EQ(item.at("waiting"), true);
    EXPECT_EQ(item.at("uploadCount"), 1);
    EXPECT_EQ(get("/api/health").json().at("items"), 1);
}

TEST_F(UploadsTest, BrokenAndAbandonedRequestsLeaveTheServiceServing) {
    // A client that promises a body and leaves half-way through it.
    rawExchange(port_,
                "POST /v1/requests HTTP/1.1\r\nHost: x\r\nApi-Key: kt-dev-k\r\n"
                "Content-Length: 1000\r\n\r\n{\"eventType\":",
                true);
    // A client that leaves in the middle of its header.
    rawExchange(port_, "GET /api/heal", true);
    // Bytes that are not HTTP at all.
    const auto garbage =
        rawExchange(port_, std::string("\x16\x03\x01\x00\xff garbage\r\n\r\n", 18));
    EXPECT_NE(garbage.find("400"), std::string::npos);
    EXPECT_NE(garbage.find("\"error\""), std::string::npos);
    // An oversized header.
    const auto huge =
        rawExchange(port_, "GET / HTTP/1.1\r\nX-Big: " + std::string(32 * 1024, 'x') + "\r\n\r\n");
    EXPECT_NE(huge.find("431"), std::string::npos);

    EXPECT_EQ(get("/api/health").json().at("status"), "ok");
}

TEST_F(UploadsTest, HealthChecksTheDatabase) {
    ASSERT_EQ(put("/v1/requests", logRecord("L-1", "DEV-1")).status, 200u);
    auto ok = get("/api/health");
    ASSERT_EQ(ok.status, 200u);
    EXPECT_EQ(ok.json().at("status"), "ok");
    EXPECT_EQ(ok.json().at("items"), 1);

    // The data directory is cleaned away under the running service (a temporary directory
    // swept, a volume unmounted): what it writes from now on is lost at its next start.
    for (const char* suffix : {"", "-wal", "-shm"}) {
        std::filesystem::remove(dir_.path() / (std::string("devservice.sqlite") + suffix));
    }
    auto gone = get("/api/health");
    EXPECT_EQ(gone.status, 503u) << gone.body;
    EXPECT_EQ(gone.json().at("status"), "unavailable");
    EXPECT_NE(std::string(gone.json().at("error").as_string()).find("devservice.sqlite"),
              std::string::npos)
        << gone.body;
}

TEST_F(UploadsTest, KeepAliveConnectionsServeSeveralRequests) {
    const std::string one = "GET /sample/users/2 HTTP/1.1\r\nHost: x\r\n\r\n";
    const std::string last = "GET /sample/users/1 HTTP/1.1\r\nHost: x\r\nConnection: close\r\n\r\n";
    const auto answers = rawExchange(port_, one + one + last);
    std::size_t count = 0;
    for (auto at = answers.find("HTTP/1.1 200"); at != std::string::npos;
         at = answers.find("HTTP/1.1 200", at + 1)) {
        ++count;
    }
    EXPECT_EQ(count, 3u);
    EXPECT_NE(answers.find("Ada Lovelace"), std::string::npos);
}

TEST_F(UploadsTest, HistorySurvivesARestartOnTheSameDataDirectory) {
    ASSERT_EQ(put("/v1/devices", deviceDictionary("DEV-1")).status, 200u);
    ASSERT_EQ(put("/v1/requests", requestHalf("R-1", "DEV-1")).status, 200u);
    service_->stop();
    startService();

    // The response half arriving after the restart still joins the stored request half.
    ASSERT_EQ(put("/v1/requests", responseHalf("R-1", "DEV-1")).status, 200u);
    auto item = get("/api/items/R-1").json();
    EXPECT_TRUE(item.at("record").at("details").as_object().contains("request"));
    EXPECT_TRUE(item.at("record").at("details").as_object().contains("response"));
    auto devices = get("/api/devices").json().at("devices").as_array();
    ASSERT_EQ(devices.size(), 1u);
    EXPECT_EQ(devices[0].at("itemCount"), 1);

    // The history is the data directory's: a copy of the directory holds it, an empty
    // directory holds none of it.
    service_->stop();
    TempDir copy;
    std::filesystem::copy(dir_.path(), copy.path(),
                          std::filesystem::copy_options::recursive |
                              std::filesystem::copy_options::overwrite_existing);
    TempDir empty;
    for (const auto* dir : {&copy, &empty}) {
        devservice::DevServiceOptions options;
        options.port = 0;
        options.dataDirectory = dir->path();
        options.logRequests = false;
        devservice::DevService other(options);
        std::string error;
        ASSERT_TRUE(other.start(&error)) << error;
        const std::map<std::string, std::string> token = {
            {"Authorization", "Bearer " + other.dashboardToken()}};
        auto item = httpRequest(other.port(), "GET", "/api/items/R-1", {}, token);
        EXPECT_EQ(item.status, dir == &copy ? 200u : 404u) << dir->path();
        const auto devices = httpRequest(other.port(), "GET", "/api/devices", {}, token).json();
        EXPECT_EQ(devices.at("devices").as_array().size(), dir == &copy ? 1u : 0u) << dir->path();
    }
}

TEST_F(UploadsTest, ConcurrentUploadsAreAllKept) {
    constexpr int kThreads = 4;
    constexpr int kEach = 25;
    std::vector<std::thread> threads;
    std::atomic<int> accepted{0};
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < kEach; ++i) {
                const std::string id = "L-" + std::to_string(t) + "-" + std::to_string(i);
                if (put("/v1/requests", logRecord(id, "DEV-1")).status == 200u) {
                    ++accepted;
                }
            }
        });
    }
    for (auto& t : threads) t.join();
    EXPECT_EQ(accepted.load(), kThreads * kEach);
    EXPECT_EQ(get("/api/health").json().at("items"), kThreads * kEach);
}

TEST_F(UploadsTest, EveryRequestIsOneConsoleLine) {
    service_.reset();
    ConsoleCapture console;
    startService(10 * 1024 * 1024, true);
    ASSERT_EQ(get("/api/health").status, 200u);
    ASSERT_EQ(upload(port_, "/v1/requests", "{}", "bad").status, 401u);
    // A line is printed once its answer has been written, on whichever service thread wrote
    // it, so the two lines may appear in either order: wait for both.
    ASSERT_TRUE(waitUntil([&] {
        const auto text = console.text();
        return text.find("GET /api/health → 200") != std::string::npos &&
               text.find("POST /v1/requests → 401") != std::string::npos;
    }));
    const auto text = console.text();
    EXPECT_NE(text.find("✅ GET /api/health → 200"), std::string::npos) << text;
    EXPECT_NE(text.find("⚠️ POST /v1/requests → 401"), std::string::npos) << text;
    EXPECT_NE(text.find("must begin with"), std::string::npos) << text;
    service_.reset();
}

}  // namespace
}  // namespace kestro::test
