// Secrets named by the redaction policy never reach the inspector's screens: an exchange made by
// the application through the real interceptor and capture pipeline, answered by a loopback
// server, is drawn with "<redacted>" where its secrets were, and neither the drawn text, the
// copied cURL command nor the exported HAR file holds any of them.

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "inspector/inspector_fixture.h"
#include "kestro/facade/capture_pipeline.h"
#include "kestro/imgui/kestro_sheet.h"
#include "kestro/network/network_interceptor.h"
#include "kestro/network/url_session.h"
#include "support/http_server.h"
#include "support/imgui/imgui_harness.h"
#include "support/wait.h"

namespace kestro {
namespace {

using test::HttpReply;
using test::HttpServer;

constexpr const char* kSecrets[] = {"HDR-SECRET", "COOKIE-SECRET", "PW-SECRET", "RESP-SECRET",
                                    "QUERY-SECRET"};

class RedactedScreensTest : public test::InspectorFixture {
  protected:
    void SetUp() override {
        test::InspectorFixture::SetUp();
        pipeline_ = std::make_unique<CapturePipeline>(CapturePipeline::Dependencies{
            .store = [this]() -> RequestStoreSQLite& { return *store_; },
            .apiEndpoint = [] { return std::string(); },  // stored, not uploaded
            .apiKey = [] { return std::string("kt-dev-test"); },
            .deviceDictionary = [] { return JSONDictionary{}; },
            .send = [](std::string, JSONDictionary, std::string) {},
        });
        interceptor_.setCallback(
            [this](const InterceptedRequestWrapper& w) { pipeline_->handleNetworkReport(w); });
        URLSessionConfiguration cfg;
        cfg.protocolClasses = {interceptor_.protocolClass()};
        session_ = std::make_unique<URLSession>(cfg);

        ui_ = std::make_unique<testing::ImGuiHarness>(ImVec2(1024, 900));
        auto s = services();
        modifier_ = std::make_unique<KestroSheetModifier>(
            InspectorServices{.facade = s.facade,
                              .store = s.store,
                              .clipboard = imguiClipboard_,
                              .toasts = s.toasts,
                              .notifications = s.notifications});
        view_ = std::make_unique<imgui::InspectorView>(*modifier_);
        ui_->setScene([this] { view_->draw(); });
    }
    void TearDown() override {
        view_.reset();
        modifier_.reset();
        ui_.reset();
        interceptor_.setCallback(nullptr);
        session_.reset();
        pipeline_.reset();
        test::InspectorFixture::TearDown();
    }

    // Every text drawn in the last frame that holds a secret.
    std::vector<std::string> drawnSecrets() const {
        std::vector<std::string> found;
        for (const char* secret : kSecrets) {
            for (const auto& run : ui_->findAllText(secret)) found.push_back(run.text);
        }
        return found;
    }
    void clickItem(std::string_view name) {
        const auto box = ui_->item(name);
        ASSERT_TRUE(box) << name;
        ui_->click(box->center());
        ui_->step();
    }

    std::unique_ptr<CapturePipeline> pipeline_;
    NetworkInterceptor interceptor_{nullptr};
    std::unique_ptr<URLSession> session_;
    imgui::ImGuiClipboard imguiClipboard_;
    std::unique_ptr<testing::ImGuiHarness> ui_;
    std::unique_ptr<KestroSheetModifier> modifier_;
    std::unique_ptr<imgui::InspectorView> view_;
};

TEST_F(RedactedScreensTest, SecretsShowAsRedactedAndAreNeitherDrawnCopiedNorExported) {
    RedactionPolicy policy;  // the default headers, and these
    policy.jsonKeys = {"password", "token"};
    policy.queryItems = {"key"};
    pipeline_->setRedactionPolicy(policy);

    const std::string answer = R"({"token":"RESP-SECRET","user":{"name":"ann"}})";
    HttpServer app([&](const test::ReceivedRequest&) {
        return HttpReply::text(200, answer, "application/json");
    });
    URLRequest request(app.url("/login?key=QUERY-SECRET&lang=en"));
    request.httpMethod = "POST";
    request.httpBody = R"({"user":"ann","password":"PW-SECRET"})";
    request.setValue("Bearer HDR-SECRET", "AUTHORIZATION");
    request.setValue("session=COOKIE-SECRET", "Cookie");
    request.setValue("application/json", "Content-Type");
    test::Recorder<std::optional<std::string>> done;
    auto task = session_->dataTask(request, [&done](auto data, auto, auto) { done.add(data); });
    task->resume();
    ASSERT_TRUE(done.waitFor(1, std::chrono::seconds(30)));
    EXPECT_EQ(done.values()[0], answer) << "the application gets the answer whole";
    ASSERT_TRUE(test::waitUntil([&] {
        const auto all = store_->getAll();
        return all.size() == 1 && all[0].asNetworkRequest() &&
               all[0].asNetworkRequest()->details.response;
    }));

    notifications_.post(kOpenKestroSheet);
    ui_->step(2);
    clickItem("settings.openLogs");
    ui_->step(2);
    EXPECT_TRUE(ui_->findText("lang=en")) << "the row shows the URL";
    EXPECT_TRUE(drawnSecrets().empty());

    const std::string id = store_->getAll()[0].id();
    clickItem("row:" + id);
    // The request: its URL, headers and JSON body with the values redacted.
    ASSERT_TRUE(ui_->stepUntil([&] { return ui_->findText("\"password\"").has_value(); }));
    for (const char* shown : {"key=<redacted>&lang=en", "AUTHORIZATION", "Cookie", "\"ann\""}) {
        EXPECT_TRUE(ui_->findText(shown)) << shown;
    }
    EXPECT_EQ(ui_->findAllText("<redacted>").size(), 4u);  // query item, two headers, key
    EXPECT_EQ(drawnSecrets(), std::vector<std::string>{});
    // The answer's JSON body, further down.
    for (int i = 0; i < 30 && !ui_->findText("\"token\""); ++i) {
        ui_->wheel(ui_->item("sheet")->center(), -5);
        ui_->step(2);
    }
    ASSERT_TRUE(ui_->findText("\"token\""));
    EXPECT_TRUE(ui_->findText("\"<redacted>\""));
    EXPECT_EQ(drawnSecrets(), std::vector<std::string>{});

    clickItem("details.copyCurl");
    const std::string curl = ui_->clipboard();
    EXPECT_NE(curl.find("'AUTHORIZATION: <redacted>'"), std::string::npos) << curl;
    for (const char* secret : kSecrets) EXPECT_EQ(curl.find(secret), std::string::npos) << secret;

    ui_->click(ui_->findText("Done")->box.center());
    ASSERT_TRUE(ui_->stepUntil([&] { return ui_->item("list.exportHAR").has_value(); }, 10));
    clickItem("list.exportHAR");
    ASSERT_TRUE(
        ui_->waitUntil([&] { return !modifier_->sheet()->form().logsList()->isExporting(); }));
    std::string har;
    for (const auto& entry : std::filesystem::directory_iterator(dir_)) {
        if (entry.path().extension() != ".har") continue;
        std::ifstream in(entry.path());
        std::stringstream s;
        s << in.rdbuf();
        har = s.str();
    }
    ASSERT_NE(har.find("lang=en"), std::string::npos) << "the exchange is in the HAR file";
    for (const char* secret : kSecrets) EXPECT_EQ(har.find(secret), std::string::npos) << secret;
}

}  // namespace
}  // namespace kestro
