// Who may do what: the dashboard token, API keys, devices owned by their key, requests from
// other origins, and TLS.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <boost/asio/ssl.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/ssl.hpp>
#include <boost/beast/websocket/ssl.hpp>
#include <boost/json.hpp>

#include "devservice/auth.h"
#include "devservice/client.h"
#include "service_fixture.h"
#include "support/wait.h"

namespace kestro::test {
namespace {
namespace json = boost::json;

using AccessTest = ServiceFixture;

// Every path of the dashboard API that names something, with a method it answers.
const std::vector<std::pair<std::string, std::string>> kDashboardEndpoints = {
    {"GET", "/api/health"},
    {"GET", "/api/devices"},
    {"GET", "/api/devices/DEV-1"},
    {"GET", "/api/items"},
    {"GET", "/api/items/R-1"},
    {"GET", "/api/devices/DEV-1/items/R-1"},
    {"DELETE", "/api/devices/DEV-9/items"},
    {"POST", "/api/devices/DEV-1/commands"},
    {"GET", "/api/devices/DEV-1/commands"},
    {"GET", "/api/commands/C1"},
    {"GET", "/api/devices/DEV-1/rules"},
    {"POST", "/api/devices/DEV-1/rules"},
    {"PUT", "/api/devices/DEV-1/rules/1"},
    {"POST", "/api/devices/DEV-1/rules/1/enable"},
    {"POST", "/api/devices/DEV-1/rules/1/disable"},
    {"DELETE", "/api/devices/DEV-1/rules/1"},
    {"PUT", "/api/devices/DEV-1/breakpoints"},
    {"GET", "/api/keys"},
    {"POST", "/api/keys"},
    {"DELETE", "/api/keys/99"},
    {"GET", "/api/nowhere"},
};

TEST_F(AccessTest, EveryDashboardEndpointNeedsTheToken) {
    ASSERT_EQ(put("/v1/devices", deviceDictionary("DEV-1")).status, 200u);
    ASSERT_EQ(put("/v1/requests", requestHalf("R-1", "DEV-1")).status, 200u);
    const std::string body = R"({"action":"send_ping","url":"x","enabled":true})";
    const std::string wrong = std::string(token_.size(), 'a');
    for (const auto& [method, path] : kDashboardEndpoints) {
        for (const auto& headers : std::vector<std::map<std::string, std::string>>{
                 {},
                 {{"Authorization", "Bearer " + wrong}},
                 {{"Authorization", "Bearer " + token_ + "0"}},
                 {{"Authorization", "Basic " + token_}},
                 {{"Authorization", token_}},
                 {{"Api-Key", key_}}}) {
            auto r = httpRequest(port_, method, path, body, headers);
            EXPECT_EQ(r.status, 401u) << method << " " << path;
            EXPECT_EQ(r.header("www-authenticate"), "Bearer") << path;
            // Nothing but the reason: no device, no item, no key.
            ASSERT_TRUE(r.json().is_object()) << r.body;
            EXPECT_EQ(r.json().as_object().size(), 1u) << r.body;
            EXPECT_EQ(r.body.find("DEV-1"), std::string::npos) << r.body;
            EXPECT_EQ(r.body.find(key_), std::string::npos) << r.body;
        }
    }
    // Nothing was changed by the refused requests.
    EXPECT_EQ(get("/api/keys").json().at("keys").as_array().size(), 1u);
    EXPECT_EQ(get("/api/devices/DEV-1/rules").json().at("rules").as_array().size(), 0u);
    EXPECT_EQ(get("/api/devices/DEV-1").json().at("steering").at("breakpoints").at("enabled"),
              false);
    // With the token the same requests are answered by the endpoints themselves.
    for (const auto& [method, path] : kDashboardEndpoints) {
        EXPECT_NE(api(method, path, body).status, 401u) << method << " " << path;
    }
}

TEST_F(AccessTest, UploadsAndLinksNeedAKeyTheServiceKnowsAndHasNotRevoked) {
    const auto second = post("/api/keys", {{"name", "ci"}});
    ASSERT_EQ(second.status, 201u) << second.body;
    const std::string key(second.json().at("key").at("key").as_string());
    const auto keyId = second.json().at("key").at("id").as_int64();
    EXPECT_TRUE(key.starts_with("kt-dev-"));
    EXPECT_EQ(key.size(), 7u + 32u);

    // The key of the right form that the service never made, and parts of a real one.
    for (const std::string& bad : {std::string("kt-dev-") + std::string(32, '0'),
                                   key.substr(0, key.size() - 1), key + "0"}) {
        EXPECT_EQ(put("/v1/devices", deviceDictionary("DEV-X"), bad).status, 401u) << bad;
        WsClient link;
        unsigned status = 0;
        EXPECT_FALSE(link.connect(port_, "/?api-key=" + bad + "&device-id=DEV-X", &status));
        EXPECT_EQ(status, 401u) << bad;
    }
    ASSERT_EQ(put("/v1/devices", deviceDictionary("DEV-2"), key).status, 200u);
    WsClient link;
    ASSERT_TRUE(link.connect(port_, "/?api-key=" + key + "&device-id=DEV-2"));
    ASSERT_TRUE(
        waitUntil([&] { return get("/api/devices/DEV-2").json().at("connected") == true; }));
    EXPECT_EQ(get("/api/devices/DEV-2").json().at("keyId"), keyId);

    // Revoking ends the key's link and refuses what it sends from then on.
    ASSERT_EQ(api("DELETE", "/api/keys/" + std::to_string(keyId)).status, 200u);
    EXPECT_FALSE(link.read());
    EXPECT_EQ(link.closeCode(), 1008);
    auto refused = put("/v1/requests", logRecord("L-1", "DEV-2"), key);
    EXPECT_EQ(refused.status, 401u);
    EXPECT_NE(refused.body.find("revoked"), std::string::npos) << refused.body;
    WsClient again;
    unsigned status = 0;
    EXPECT_FALSE(again.connect(port_, "/?api-key=" + key + "&device-id=DEV-2", &status));
    EXPECT_EQ(status, 401u);
    // The first key is untouched.
    EXPECT_EQ(put("/v1/requests", logRecord("L-1", "DEV-1")).status, 200u);
    EXPECT_EQ(get("/api/items").json().at("items").as_array().size(), 1u);
}

TEST_F(AccessTest, ADeviceCannotBeClaimedUnderAnotherKey) {
    const std::string other(
        post("/api/keys", json::object{}).json().at("key").at("key").as_string());
    ASSERT_EQ(put("/v1/devices", deviceDictionary("DEV-1", "mine")).status, 200u);
    ASSERT_EQ(put("/v1/requests", requestHalf("R-1", "DEV-1")).status, 200u);

    // Registration, an item, the response half of its exchange, a link: all refused.
    EXPECT_EQ(put("/v1/devices", deviceDictionary("DEV-1", "theirs"), other).status, 403u);
    EXPECT_EQ(put("/v1/requests", logRecord("L-9", "DEV-1"), other).status, 403u);
    auto half = put("/v1/requests", responseHalf("R-1", "DEV-1", 500), other);
    EXPECT_EQ(half.status, 403u);
    EXPECT_NE(half.body.find("another API key"), std::string::npos) << half.body;
    WsClient link;
    unsigned status = 0;
    EXPECT_FALSE(link.connect(port_, "/?api-key=" + other + "&device-id=DEV-1", &status));
    EXPECT_EQ(status, 403u);

    // The device and its item are as the first key left them.
    const auto device = get("/api/devices/DEV-1").json();
    EXPECT_EQ(device.at("name"), "mine");
    EXPECT_EQ(device.at("connected"), false);
    const auto item = get("/api/devices/DEV-1/items/R-1").json();
    EXPECT_EQ(item.at("waiting"), true);
    EXPECT_EQ(item.at("uploadCount"), 1);
    EXPECT_EQ(get("/api/items?device=DEV-1").json().at("items").as_array().size(), 1u);

    // Another device of the other key may use the same item id: a second item, not a change of
    // the first.
    ASSERT_EQ(put("/v1/requests", responseHalf("R-1", "DEV-2", 500), other).status, 200u);
    EXPECT_EQ(get("/api/devices/DEV-1/items/R-1").json().at("waiting"), true);
    EXPECT_EQ(get("/api/devices/DEV-2/items/R-1").json().at("status"), 500);
    auto ambiguous = get("/api/items/R-1");
    EXPECT_EQ(ambiguous.status, 409u);
    EXPECT_EQ(ambiguous.json().at("devices").as_array().size(), 2u);
}

TEST_F(AccessTest, RequestsFromAnotherOriginAreRefused) {
    const std::string self = "http://127.0.0.1:" + std::to_string(port_);
    for (const std::string& origin :
         {std::string("http://evil.example"), std::string("null"),
          "https://127.0.0.1:" + std::to_string(port_),
          "http://127.0.0.1:" + std::to_string(port_ + 1), self + ".evil.example"}) {
        const std::map<std::string, std::string> headers{
            {"Origin", origin}, {"Authorization", "Bearer " + token_}, {"Api-Key", key_}};
        for (const auto& [method, path] :
             std::vector<std::pair<std::string, std::string>>{{"GET", "/api/devices"},
                                                              {"POST", "/api/keys"},
                                                              {"POST", "/v1/devices"},
                                                              {"OPTIONS", "/api/devices"},
                                                              {"GET", "/sample/users"},
                                                              {"GET", "/"}}) {
            auto r = httpRequest(port_, method, path, json::serialize(deviceDictionary("DEV-O")),
                                 headers);
            EXPECT_EQ(r.status, 403u) << origin << " " << method << " " << path;
            EXPECT_EQ(r.header("access-control-allow-origin"), "") << origin;
        }
        unsigned status = 0;
        WsClient link;
        EXPECT_FALSE(link.connect(port_, "/?api-key=" + key_ + "&device-id=DEV-O", &status,
                                  {{"Origin", origin}}));
        EXPECT_EQ(status, 403u) << origin;
        LivePage page;
        EXPECT_FALSE(page.open(port_, token_, &status, {{"Origin", origin}}));
        EXPECT_EQ(status, 403u) << origin;
    }
    EXPECT_EQ(get("/api/keys").json().at("keys").as_array().size(), 1u);
    EXPECT_EQ(get("/api/devices").json().at("devices").as_array().size(), 0u);

    // The service's own origin, as a page it served sends it.
    auto own = httpRequest(port_, "GET", "/api/devices", {},
                           {{"Origin", self}, {"Authorization", "Bearer " + token_}});
    EXPECT_EQ(own.status, 200u);
    EXPECT_EQ(own.header("access-control-allow-origin"), "");
    LivePage page;
    EXPECT_TRUE(page.open(port_, token_, nullptr, {{"Origin", self}}));
}

TEST_F(AccessTest, ThePushChannelTakesTheTokenAsASubprotocol) {
    struct Case {
        std::string protocols;
        unsigned status;
    };
    for (const auto& c : std::vector<Case>{{"", 401},
                                           {"kestro.v1", 401},
                                           {"kestro.v1, kestro.token." + std::string(64, 'a'), 401},
                                           {"kestro.v1, kestro.token." + token_ + "0", 401},
                                           {"kestro.token." + token_, 400}}) {
        WsClient client;
        unsigned status = 0;
        std::map<std::string, std::string> headers;
        if (!c.protocols.empty()) headers["Sec-WebSocket-Protocol"] = c.protocols;
        EXPECT_FALSE(client.connect(port_, "/api/live", &status, headers)) << c.protocols;
        EXPECT_EQ(status, c.status) << c.protocols;
    }
    // A bearer header does not open it either: a browser cannot send one, so it is not a way in.
    WsClient bearer;
    unsigned status = 0;
    EXPECT_FALSE(
        bearer.connect(port_, "/api/live", &status, {{"Authorization", "Bearer " + token_}}));
    EXPECT_EQ(status, 401u);

    LivePage page;
    ASSERT_TRUE(page.open(port_, token_));
    EXPECT_EQ(page.client().response()["Sec-WebSocket-Protocol"], "kestro.v1");
    auto first = page.next();
    ASSERT_TRUE(first);
    EXPECT_EQ(messageType(*first), "snapshot");
    EXPECT_EQ(first->at("reason"), "connected");
}

TEST_F(AccessTest, TheTokenAndTheFirstKeyAreMadeOnceAndKeptPrivate) {
    EXPECT_TRUE(service_->made().token);
    ASSERT_TRUE(service_->made().apiKey);
    EXPECT_EQ(*service_->made().apiKey, key_);
    struct stat info {};
    ASSERT_EQ(::stat((dir_.path() / "dashboard-token").c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0600u);
    ASSERT_EQ(::stat((dir_.path() / "devservice.sqlite").c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 077, 0u);
    EXPECT_EQ(token_.size(), 64u);

    const std::string token = token_, key = key_;
    service_->stop();
    startService();
    EXPECT_FALSE(service_->made().token);
    EXPECT_FALSE(service_->made().apiKey);
    EXPECT_EQ(token_, token);
    EXPECT_EQ(key_, key);
    EXPECT_EQ(get("/api/keys").json().at("keys").as_array().size(), 1u);

    // A token file that holds something else stops the start rather than being replaced.
    service_->stop();
    {
        std::FILE* f = std::fopen((dir_.path() / "dashboard-token").c_str(), "w");
        std::fputs("not a token\n", f);
        std::fclose(f);
    }
    devservice::DevService broken(serviceOptions(dir_.path()));
    std::string error;
    EXPECT_FALSE(broken.start(&error));
    EXPECT_NE(error.find("dashboard-token"), std::string::npos) << error;
}

TEST(ReachTest, OnlyLoopbackOrTLSGoesWithoutAWarning) {
    EXPECT_FALSE(devservice::reachWarning("127.0.0.1", false));
    EXPECT_FALSE(devservice::reachWarning("127.0.0.5", false));
    EXPECT_FALSE(devservice::reachWarning("::1", false));
    EXPECT_FALSE(devservice::reachWarning("0.0.0.0", true));
    for (const char* address : {"0.0.0.0", "::", "192.168.1.20", "10.0.0.1"}) {
        const auto warning = devservice::reachWarning(address, false);
        ASSERT_TRUE(warning) << address;
        EXPECT_NE(warning->find("--tls-cert"), std::string::npos);
    }
}

// The service over TLS: HTTPS for the API, WSS for links, the command line's client trusting
// the certificate it is given, and plain HTTP refused on the port.
TEST(TlsTest, HttpsAndWssOnOnePort) {
    TempDir dir;
    const auto files = writeCertificate(dir.path());
    auto options = serviceOptions(dir.path() / "data");
    options.tlsCert = files.cert;
    options.tlsKey = files.key;
    devservice::DevService service(options);
    std::string error;
    ASSERT_TRUE(service.start(&error)) << error;
    EXPECT_TRUE(service.httpURL().starts_with("https://"));
    EXPECT_TRUE(service.webSocketURL().starts_with("wss://"));

    devservice::ServiceAddress address{"127.0.0.1", service.port(), service.dashboardToken(),
                                       files.cert};
    auto health = devservice::httpExchange(address, "GET", "/api/health", "", &error);
    ASSERT_TRUE(health) << error;
    EXPECT_EQ(health->status, 200u);
    const auto keys = devservice::httpExchange(address, "GET", "/api/keys", "", &error);
    ASSERT_TRUE(keys) << error;
    const std::string key(json::parse(keys->body).at("keys").at(0).at("key").as_string());

    // A client that trusts another certificate refuses the service.
    TempDir elsewhere;
    devservice::ServiceAddress stranger = address;
    stranger.trust = writeCertificate(elsewhere.path()).cert;
    EXPECT_FALSE(devservice::httpExchange(stranger, "GET", "/api/health", "", &error));
    EXPECT_NE(error.find("TLS"), std::string::npos) << error;

    // Plain HTTP gets no answer.
    const auto plain = rawExchange(service.port(), "GET /sample/users HTTP/1.1\r\nHost: x\r\n\r\n");
    EXPECT_EQ(plain.find("HTTP/1.1 200"), std::string::npos);

    // A device link over WSS.
    namespace net = boost::asio;
    namespace ssl = net::ssl;
    namespace beast = boost::beast;
    net::io_context ioc;
    ssl::context trust(ssl::context::tls_client);
    trust.load_verify_file(files.cert.string());
    trust.set_verify_mode(ssl::verify_peer);
    beast::websocket::stream<beast::ssl_stream<beast::tcp_stream>> wss(ioc, trust);
    beast::get_lowest_layer(wss).connect(
        net::ip::tcp::endpoint(net::ip::address_v4::loopback(), service.port()));
    beast::get_lowest_layer(wss).expires_after(std::chrono::seconds(5));
    wss.next_layer().handshake(ssl::stream_base::client);
    wss.handshake("127.0.0.1", "/?api-key=" + key + "&device-id=DEV-T");
    ASSERT_TRUE(waitUntil([&] {
        auto d = devservice::httpExchange(address, "GET", "/api/devices/DEV-T", "", &error);
        return d && d->status == 200 && json::parse(d->body).at("connected") == true;
    }));
    auto sent = devservice::httpExchange(address, "POST", "/api/devices/DEV-T/commands",
                                         R"({"action":"send_ping"})", &error);
    ASSERT_TRUE(sent) << error;
    EXPECT_EQ(sent->status, 202u) << sent->body;
    beast::flat_buffer buffer;
    wss.read(buffer);
    EXPECT_EQ(beast::buffers_to_string(buffer.data()), R"({"action":"send_ping","payload":null})");
    service.stop();
}

}  // namespace
}  // namespace kestro::test
