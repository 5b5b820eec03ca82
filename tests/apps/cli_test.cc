// The command line: options and environment, and the client subcommands against a running
// service.
#include "devservice/cli.h"

#include <gtest/gtest.h>

#include <boost/json.hpp>
#include <sstream>

#include "devservice/auth.h"
#include "devservice/options.h"
#include "service_fixture.h"
#include "support/http_server.h"
#include "support/wait.h"

namespace kestro::test {
namespace {
namespace json = boost::json;
using devservice::CommandLine;
using devservice::parseCommandLine;

auto envOf(std::map<std::string, std::string> values) {
    return [values = std::move(values)](const char* name) -> std::optional<std::string> {
        auto it = values.find(name);
        return it == values.end() ? std::nullopt : std::optional<std::string>(it->second);
    };
}

TEST(CommandLineTest, ArgumentsWinOverTheEnvironmentWhichWinsOverDefaults) {
    std::string error;
    auto defaults = parseCommandLine({}, envOf({{"HOME", "/home/u"}}), &error);
    ASSERT_TRUE(defaults) << error;
    EXPECT_EQ(defaults->command, "serve");
    EXPECT_EQ(defaults->options.port, 3007);
    EXPECT_EQ(defaults->options.address, "127.0.0.1");
    EXPECT_EQ(defaults->options.maxBodyBytes, 10u * 1024 * 1024);
    EXPECT_EQ(defaults->options.dataDirectory, "/home/u/.local/share/kestro-devservice");

    const auto env = envOf({{"KESTRO_DEVSERVICE_PORT", "4000"},
                            {"KESTRO_DEVSERVICE_DATA_DIR", "/data/env"},
                            {"KESTRO_DEVSERVICE_MAX_BODY", "2M"},
                            {"XDG_DATA_HOME", "/xdg"}});
    auto fromEnv = parseCommandLine({}, env, &error);
    ASSERT_TRUE(fromEnv) << error;
    EXPECT_EQ(fromEnv->options.port, 4000);
    EXPECT_EQ(fromEnv->options.dataDirectory, "/data/env");
    EXPECT_EQ(fromEnv->options.maxBodyBytes, 2u * 1024 * 1024);

    auto fromArgs = parseCommandLine(
        {"items", "--port=5000", "--data-dir", "/data/arg", "--device", "D-1", "--limit", "7"}, env,
        &error);
    ASSERT_TRUE(fromArgs) << error;
    EXPECT_EQ(fromArgs->command, "items");
    EXPECT_EQ(fromArgs->options.port, 5000);
    EXPECT_EQ(fromArgs->options.dataDirectory, "/data/arg");
    EXPECT_EQ(fromArgs->deviceFilter, "D-1");
    EXPECT_EQ(fromArgs->limit, 7);

    auto send = parseCommandLine({"send", "D-1", "enable_mock_request", "{\"url\":\"*\"}"},
                                 envOf({}), &error);
    ASSERT_TRUE(send) << error;
    EXPECT_EQ(send->words,
              (std::vector<std::string>{"D-1", "enable_mock_request", "{\"url\":\"*\"}"}));
    EXPECT_EQ(parseCommandLine({}, envOf({}), &error)->options.dataDirectory,
              "kestro-devservice-data");
}

TEST(CommandLineTest, MalformedValuesAreRefusedWithAReason) {
    for (const auto& args : std::vector<std::vector<std::string>>{{"--port", "70000"},
                                                                  {"--port"},
                                                                  {"--max-body", "lots"},
                                                                  {"--limit", "0"},
                                                                  {"--frobnicate"},
                                                                  {"destroy"}}) {
        std::string error;
        EXPECT_FALSE(parseCommandLine(args, envOf({}), &error)) << args[0];
        EXPECT_FALSE(error.empty()) << args[0];
    }
    std::string error;
    EXPECT_FALSE(parseCommandLine({}, envOf({{"KESTRO_DEVSERVICE_PORT", "http"}}), &error));
    EXPECT_NE(error.find("KESTRO_DEVSERVICE_PORT"), std::string::npos);
}

class ClientCommandTest : public ServiceFixture {
  protected:
    int run(std::vector<std::string> args, std::string* out, std::string* err = nullptr) {
        args.push_back("--port");
        args.push_back(std::to_string(port_));
        args.push_back("--data-dir");
        args.push_back(dir_.path().string());
        std::string error;
        auto line = parseCommandLine(args, envOf({}), &error);
        EXPECT_TRUE(line) << error;
        if (!line) return -1;
        std::ostringstream o, e;
        const int code = devservice::runClientCommand(*line, o, e);
        *out = o.str();
        if (err) *err = e.str();
        return code;
    }
};

TEST_F(ClientCommandTest, DevicesItemsAndSendTalkToTheRunningService) {
    std::string out, err;
    ASSERT_EQ(run({"devices"}, &out), 0);
    EXPECT_NE(out.find("No devices"), std::string::npos);

    ASSERT_EQ(put("/v1/devices", deviceDictionary("DEV-1", "laptop")).status, 200u);
    ASSERT_EQ(put("/v1/requests", requestHalf("R-1", "DEV-1")).status, 200u);
    ASSERT_EQ(put("/v1/requests", logRecord("L-1", "DEV-2", "boot")).status, 200u);

    ASSERT_EQ(run({"devices"}, &out), 0);
    EXPECT_NE(out.find("DEV-1"), std::string::npos);
    EXPECT_NE(out.find("laptop"), std::string::npos);

    ASSERT_EQ(run({"items", "--device", "DEV-1"}, &out), 0);
    EXPECT_NE(out.find("R-1"), std::string::npos);
    EXPECT_NE(out.find("GET http://127.0.0.1/sample/users"), std::string::npos);
    EXPECT_EQ(out.find("L-1"), std::string::npos);
    ASSERT_EQ(run({"items", "--limit", "1", "--json"}, &out), 0);
    auto page = json::parse(out);
    EXPECT_EQ(page.at("items").as_array().size(), 1u);
    EXPECT_EQ(page.at("items").as_array()[0].at("id"), "L-1");

    ASSERT_EQ(run({"item", "R-1"}, &out), 0);
    EXPECT_EQ(json::parse(out).at("id"), "R-1");

    // Not connected: refused with the service's reason.
    EXPECT_EQ(run({"send", "DEV-1", "enable_break_point"}, &out, &err), 1);
    EXPECT_NE(err.find("409"), std::string::npos);
    EXPECT_NE(err.find("not connected"), std::string::npos);

    WsClient device;
    ASSERT_TRUE(device.connect(port_, "/?api-key=" + key_ + "&device-id=DEV-1"));
    ASSERT_TRUE(
        waitUntil([&] { return get("/api/devices/DEV-1").json().at("connected") == true; }));
    ASSERT_EQ(run({"send", "DEV-1", "enable_mock_request", R"({"url":"*","statusCode":404})"}, &out,
                  &err),
              0)
        << err;
    EXPECT_EQ(device.read(),
              R"({"action":"enable_mock_request","payload":"{\"url\":\"*\",\"statusCode\":404}"})");
    EXPECT_EQ(run({"send", "DEV-1", "enable_break_point"}, &out), 0);
    EXPECT_EQ(device.read(), R"({"action":"enable_break_point","payload":null})");
    EXPECT_EQ(run({"send", "DEV-1"}, &out, &err), 2);

    ASSERT_EQ(run({"health"}, &out), 0);
    EXPECT_EQ(json::parse(out).at("connectedDevices"), 1);
}

TEST_F(ClientCommandTest, AnUnreachableServiceIsReported) {
    const auto port = port_;
    service_->stop();
    port_ = port;
    std::string out, err;
    EXPECT_EQ(run({"devices"}, &out, &err), 3);
    EXPECT_NE(err.find("cannot reach"), std::string::npos) << err;
}

TEST(ClientAnswerTest, AnswersThatAreNotTheExpectedJSONAreReportedNotThrown) {
    // A server on the service's port that answers with something else: a web page, a JSON
    // value of another shape, rows missing their fields.
    std::string body;
    unsigned status = 200;
    TempDir dir;
    bool made = false;
    ASSERT_TRUE(devservice::loadOrCreateToken(dir.path(), &made, nullptr));
    HttpServer server([&](const ReceivedRequest&) {
        return HttpReply::text(static_cast<int>(status), body, "application/json");
    });
    struct Case {
        std::vector<std::string> args;
        unsigned status;
        std::string body;
    };
    const std::vector<Case> cases = {
        {{"devices"}, 200, "<html>a proxy's page</html>"},
        {{"devices"}, 200, R"({"devices":5})"},
        {{"devices"}, 200, R"([1,2])"},
        {{"devices"}, 200, R"({"devices":[7]})"},
        {{"items"}, 200, "<html></html>"},
        {{"items"}, 200, R"({"items":[{"id":3}]})"},
        {{"items"}, 200, R"({"items":["x"]})"},
        {{"send", "DEV-1", "send_ping"}, 202, "accepted"},
        {{"send", "DEV-1", "send_ping"}, 202, R"(["frame"])"},
    };
    for (const auto& c : cases) {
        status = c.status;
        body = c.body;
        auto args = c.args;
        args.push_back("--port");
        args.push_back(std::to_string(server.port()));
        args.push_back("--data-dir");
        args.push_back(dir.path().string());
        std::string error;
        const auto line = parseCommandLine(args, envOf({}), &error);
        ASSERT_TRUE(line) << error;
        std::ostringstream out, err;
        int code = -1;
        EXPECT_NO_THROW(code = devservice::runClientCommand(*line, out, err)) << c.body;
        // Rows whose fields are missing are shown with "-"; anything else is refused.
        if (c.body.find("\"id\":3") != std::string::npos) {
            EXPECT_EQ(code, 0) << c.body << ": " << err.str();
            EXPECT_NE(out.str().find('3'), std::string::npos) << out.str();
            continue;
        }
        EXPECT_EQ(code, 4) << c.body;
        EXPECT_NE(err.str().find("not the JSON"), std::string::npos) << c.body << ": " << err.str();
    }
}

}  // namespace
}  // namespace kestro::test
