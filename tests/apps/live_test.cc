// The push channel: what pages are told, in what order, and that no page can hold up the
// service.
#include <gtest/gtest.h>

#include <atomic>
#include <boost/json.hpp>
#include <thread>

#include "service_fixture.h"
#include "support/wait.h"

namespace kestro::test {
namespace {
namespace json = boost::json;
using namespace std::chrono_literals;

class LiveTest : public ServiceFixture {
  protected:
    // A page that has read its snapshot.
    std::unique_ptr<LivePage> follow() {
        auto page = std::make_unique<LivePage>();
        EXPECT_TRUE(page->open(port_, token_));
        auto first = page->next();
        EXPECT_TRUE(first && messageType(*first) == "snapshot");
        return page;
    }
    std::string link(const std::string& device) const {
        return "/?api-key=" + key_ + "&device-id=" + device;
    }
};

auto ofType(const std::string& type) {
    return [type](const json::object& m) { return messageType(m) == type; };
}

TEST_F(LiveTest, UploadsLinksAndDeletionsReachEveryPageInOrder) {
    std::vector<std::unique_ptr<LivePage>> pages;
    for (int i = 0; i < 3; ++i) pages.push_back(follow());

    ASSERT_EQ(put("/v1/requests", requestHalf("R-1", "DEV-1")).status, 200u);
    ASSERT_EQ(put("/v1/requests", responseHalf("R-1", "DEV-1", 404)).status, 200u);
    WsClient device;
    ASSERT_TRUE(device.connect(port_, link("DEV-1")));
    ASSERT_TRUE(
        waitUntil([&] { return get("/api/devices/DEV-1").json().at("connected") == true; }));
    device.socket().close();
    ASSERT_TRUE(
        waitUntil([&] { return get("/api/devices/DEV-1").json().at("connected") == false; }));
    const auto deleted = api("DELETE", "/api/devices/DEV-1/items");
    ASSERT_EQ(deleted.status, 200u) << deleted.body;

    for (auto& page : pages) {
        std::vector<json::object> seen;
        for (int i = 0; i < 6; ++i) {
            auto m = page->next();
            ASSERT_TRUE(m) << "message " << i;
            seen.push_back(*m);
        }
        std::vector<std::string> types;
        for (const auto& m : seen) types.push_back(messageType(m));
        EXPECT_EQ(types,
                  (std::vector<std::string>{"device.added", "item.added", "item.changed",
                                            "device.online", "device.offline", "itemsDeleted"}));
        EXPECT_EQ(seen[0].at("device").at("name"), "build-box");
        EXPECT_EQ(seen[0].at("device").at("keyKind"), "dev");
        const auto& added = seen[1].at("item");
        EXPECT_EQ(added.at("deviceId"), "DEV-1");
        EXPECT_EQ(added.at("id"), "R-1");
        EXPECT_EQ(added.at("kind"), "networkRequest");
        EXPECT_EQ(added.at("method"), "GET");
        EXPECT_EQ(added.at("waiting"), true);
        EXPECT_EQ(added.at("status"), nullptr);
        const auto& changed = seen[2].at("item");
        EXPECT_EQ(changed.at("seq"), added.at("seq"));
        EXPECT_GT(changed.at("revision").as_int64(), added.at("revision").as_int64());
        EXPECT_EQ(changed.at("waiting"), false);
        EXPECT_EQ(changed.at("status"), 404);
        EXPECT_EQ(changed.at("uploadCount"), 2);
        EXPECT_EQ(seen[3].at("deviceId"), "DEV-1");
        EXPECT_TRUE(seen[3].at("connectedSince").is_number());
        EXPECT_EQ(seen[5].at("throughSeq"), deleted.json().at("throughSeq"));
        EXPECT_EQ(seen[5].at("itemCount"), 0);
        EXPECT_EQ(seen[5].at("reason"), "dashboard");
    }
}

TEST_F(LiveTest, ASnapshotDescribesDevicesAndTheRevisionToResumeFrom) {
    ASSERT_EQ(put("/v1/devices", deviceDictionary("DEV-1", "phone")).status, 200u);
    ASSERT_EQ(put("/v1/requests", logRecord("L-1", "DEV-1")).status, 200u);
    ASSERT_EQ(post("/api/devices/DEV-1/rules", {{"url", "http://h/*"}, {"statusCode", 503}}).status,
              201u);
    ASSERT_EQ(api("PUT", "/api/devices/DEV-1/breakpoints", R"({"enabled":true})").status, 200u);

    LivePage page;
    ASSERT_TRUE(page.open(port_, token_));
    const auto snapshot = page.next();
    ASSERT_TRUE(snapshot);
    EXPECT_EQ(messageType(*snapshot), "snapshot");
    const auto revision = snapshot->at("revision").as_int64();
    EXPECT_EQ(revision, get("/api/health").json().at("revision").as_int64());
    const auto& devices = snapshot->at("devices").as_array();
    ASSERT_EQ(devices.size(), 1u);
    EXPECT_EQ(devices[0].at("name"), "phone");
    EXPECT_EQ(devices[0].at("itemCount"), 1);
    EXPECT_EQ(devices[0].at("connected"), false);
    EXPECT_EQ(devices[0].at("steering").at("breakpoints").at("enabled"), true);
    ASSERT_EQ(devices[0].at("steering").at("mockRules").as_array().size(), 1u);
    EXPECT_EQ(devices[0].at("steering").at("mockRules").at(0).at("statusCode"), 503);
    EXPECT_EQ(devices[0].at("steering").at("mockRules").at(0).at("enabled"), false);

    // What changed after the snapshot's revision, asked by a page that comes back.
    ASSERT_EQ(put("/v1/requests", logRecord("L-2", "DEV-1")).status, 200u);
    const auto since = get("/api/items?device=DEV-1&since=" + std::to_string(revision)).json();
    ASSERT_EQ(since.at("items").as_array().size(), 1u);
    EXPECT_EQ(since.at("items").at(0).at("id"), "L-2");
    EXPECT_EQ(page.waitFor(ofType("item.added"))->at("item").at("id"), "L-2");
}

TEST_F(LiveTest, CommandsReportWhetherTheDeviceReceivedThem) {
    WsClient device;
    ASSERT_TRUE(device.connect(port_, link("DEV-1")));
    ASSERT_TRUE(
        waitUntil([&] { return get("/api/devices/DEV-1").json().at("connected") == true; }));
    auto page = follow();

    // A rule made, switched on and then off; breakpoints on.
    const auto rule = post("/api/devices/DEV-1/rules",
                           {{"url", "http://h/users/*"}, {"statusCode", 418}, {"body", "{}"}});
    ASSERT_EQ(rule.status, 201u) << rule.body;
    const auto ruleId = rule.json().at("rule").at("id").as_int64();
    const auto on = api("POST", "/api/devices/DEV-1/rules/" + std::to_string(ruleId) + "/enable");
    ASSERT_EQ(on.status, 200u) << on.body;
    const std::string commandId(on.json().at("command").at("id").as_string());
    auto frame = device.read();
    ASSERT_TRUE(frame);
    const auto sent = json::parse(*frame);
    EXPECT_EQ(sent.at("action"), "enable_mock_request");
    EXPECT_EQ(json::parse(sent.at("payload").as_string()),
              json::parse(R"({"url":"http://h/users/*","statusCode":418,"body":"{}"})"));

    EXPECT_EQ(page->waitFor(ofType("steering"))->at("mockRules").at(0).at("enabled"), false);
    const auto enabled = page->waitFor(ofType("steering"));
    ASSERT_TRUE(enabled);
    EXPECT_EQ(enabled->at("mockRules").at(0).at("enabled"), true);
    const auto delivered = page->waitFor([&](const json::object& m) {
        return messageType(m) == "command" && m.at("command").at("id") == json::value(commandId) &&
               m.at("command").at("status") == "delivered";
    });
    ASSERT_TRUE(delivered);
    EXPECT_EQ(get("/api/commands/" + commandId).json().at("status"), "delivered");

    ASSERT_EQ(api("PUT", "/api/devices/DEV-1/breakpoints", R"({"enabled":true})").status, 200u);
    EXPECT_EQ(device.read(), R"({"action":"enable_break_point","payload":null})");
    EXPECT_EQ(page->waitFor(ofType("steering"))->at("breakpoints").at("enabled"), true);

    // A device that connects again is sent what is switched on.
    device.socket().close();
    ASSERT_TRUE(
        waitUntil([&] { return get("/api/devices/DEV-1").json().at("connected") == false; }));
    WsClient back;
    ASSERT_TRUE(back.connect(port_, link("DEV-1")));
    std::vector<std::string> actions;
    for (int i = 0; i < 2; ++i) {
        auto f = back.read();
        ASSERT_TRUE(f);
        actions.emplace_back(json::parse(*f).at("action").as_string());
    }
    EXPECT_EQ(actions, (std::vector<std::string>{"enable_mock_request", "enable_break_point"}));
}

TEST_F(LiveTest, ADeviceThatGoesAwayFailsTheCommandsStillWaitingForIt) {
    WsClient device;
    device.setReceiveBuffer(4096);
    ASSERT_TRUE(device.connect(port_, link("DEV-1")));
    ASSERT_TRUE(
        waitUntil([&] { return get("/api/devices/DEV-1").json().at("connected") == true; }));
    // Large commands to a device that does not read, until some wait in the service's queue.
    const json::object rule{{"url", "http://h/big"}, {"body", std::string(512 * 1024, 'x')}};
    std::vector<std::string> ids;
    for (int i = 0; i < 20; ++i) {
        auto r = post("/api/devices/DEV-1/commands",
                      {{"action", "enable_mock_request"}, {"payload", rule}});
        ASSERT_EQ(r.status, 202u) << r.body;
        ids.emplace_back(r.json().at("command").at("id").as_string());
    }
    int queued = 0;
    for (const auto& id : ids) queued += get("/api/commands/" + id).json().at("status") == "queued";
    // One being written, and more waiting behind it.
    ASSERT_GE(queued, 3);

    device.socket().close();
    ASSERT_TRUE(waitUntil(
        [&] { return get("/api/commands/" + ids.back()).json().at("status") == "failed"; }));
    // Either it was waiting in the queue, or it was being written when the device went.
    const std::string why(get("/api/commands/" + ids.back()).json().at("error").as_string());
    EXPECT_TRUE(why.find("disconnected before the frame was written") != std::string::npos ||
                why.find("writing to the device failed") != std::string::npos)
        << why;
    // Each command has an outcome: written, or failed with a reason; none is left queued.
    int delivered = 0;
    for (const auto& id : ids) {
        ASSERT_TRUE(waitUntil([&] {
            return get("/api/commands/" + id).json().at("status") != "queued";
        })) << id;
        const auto c = get("/api/commands/" + id).json();
        if (c.at("status") == "delivered") ++delivered;
        if (c.at("status") == "failed") {
            EXPECT_TRUE(c.at("error").is_string());
        }
    }
    EXPECT_LT(delivered, 20);
    EXPECT_EQ(post("/api/devices/DEV-1/commands", {{"action", "send_ping"}}).status, 409u);
}

TEST_F(LiveTest, FramesFromThePageAreAnsweredOrEndTheChannel) {
    auto page = follow();
    page->client().write(R"({"type":"subscribe"})");
    const auto answer = page->next();
    ASSERT_TRUE(answer);
    EXPECT_EQ(messageType(*answer), "error");
    // Still open: uploads arrive.
    ASSERT_EQ(put("/v1/requests", logRecord("L-1", "DEV-1")).status, 200u);
    EXPECT_TRUE(page->waitFor(ofType("item.added")));

    // A frame too large for the channel.
    page->client().write(std::string(8 * 1024, 'x'));
    EXPECT_FALSE(page->waitFor([](const json::object&) { return false; }));
    EXPECT_EQ(page->client().closeCode(), 1009);

    auto binary = follow();
    binary->client().writeRaw(std::string("\x82\x83\x00\x00\x00\x00\x01\x02\x03", 9));
    EXPECT_FALSE(binary->waitFor([](const json::object&) { return false; }));
    EXPECT_EQ(binary->client().closeCode(), 1003);
    EXPECT_EQ(get("/api/health").status, 200u);
}

TEST_F(LiveTest, ASlowOrVanishedPageDoesNotHoldUpUploads) {
    // Small queues, so that a few hundred uploads are more than a page may have waiting.
    service_.reset();
    auto options = serviceOptions(dir_.path());
    options.liveQueueMessages = 64;
    options.liveQueueBytes = 32 * 1024;
    startWith(options);

    // One page never reads, with a tiny window; one leaves without a word; one follows on a
    // thread of its own.
    LivePage stuck;
    stuck.client().setReceiveBuffer(4096);
    ASSERT_TRUE(stuck.open(port_, token_));
    LivePage gone;
    ASSERT_TRUE(gone.open(port_, token_));
    gone.client().socket().close();
    constexpr int kUploads = 2000;
    const std::string lastId = "L-" + std::to_string(kUploads - 1);
    auto follower = follow();
    // It sees the last upload's item, unless a stall of the machine made it fall behind too,
    // in which case its snapshot stands for what it missed.
    std::atomic<bool> followerSawLast{false};
    std::thread following([&] {
        followerSawLast =
            follower
                ->waitFor(
                    [&](const json::object& m) {
                        const bool behind = messageType(m) == "snapshot";
                        return behind || (messageType(m) == "item.added" &&
                                          m.at("item").at("id") == json::value(lastId));
                    },
                    30s)
                .has_value();
    });

    // Every upload is answered (each has a five-second deadline) although the stuck page takes
    // nothing: far more item messages than the page's socket, the frame being written to it and
    // its queue hold.
    const std::string longMessage(180, 'm');
    for (int i = 0; i < kUploads; ++i) {
        auto r = put("/v1/requests", logRecord("L-" + std::to_string(i), "DEV-1", longMessage));
        ASSERT_EQ(r.status, 200u) << i;
    }
    following.join();
    EXPECT_TRUE(followerSawLast);
    EXPECT_EQ(get("/api/health").json().at("items"), kUploads);

    // The stuck page, when it reads at last, finds that it fell behind: a fresh snapshot in
    // place of what it missed, or the channel closed as too slow.
    bool behind = false;
    for (int i = 0; i < kUploads + 10 && !behind; ++i) {
        auto m = stuck.next(10s);
        if (!m) {
            behind = stuck.client().closeCode() == 4000;
            break;
        }
        behind = messageType(*m) == "snapshot" && m->at("reason") == "behind";
    }
    EXPECT_TRUE(behind);
}

TEST_F(LiveTest, FiftyPagesFollowAtOnce) {
    std::vector<std::unique_ptr<LivePage>> pages;
    for (int i = 0; i < 50; ++i) pages.push_back(follow());
    ASSERT_EQ(put("/v1/requests", eventRecord("E-1", "DEV-1")).status, 200u);
    for (auto& page : pages) {
        const auto m = page->waitFor(ofType("item.added"));
        ASSERT_TRUE(m);
        EXPECT_EQ(m->at("item").at("name"), "Ping");
    }
}

}  // namespace
}  // namespace kestro::test
