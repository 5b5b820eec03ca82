// The inspector's screens in real ImGui frames, headless, driven by simulated mouse and
// keyboard: what a person sees and does, from opening the list to copying a value.

#include <gtest/gtest.h>
#include <stb_image_write.h>

#include <boost/json.hpp>
#include <chrono>

#include "inspector/inspector_fixture.h"
#include "inspector/records.h"
#include "kestro/imgui/colors.h"
#include "kestro/imgui/image_textures.h"
#include "kestro/imgui/kestro_sheet.h"
#include "kestro/network/body_text.h"
#include "support/imgui/imgui_harness.h"

namespace kestro {
namespace {

using testing::ImGuiHarness;
using namespace std::chrono_literals;

RequestEventType jsonExchange(std::string id, std::string url, std::string body,
                              TextMap responseHeaders = {{"Content-Type", "application/json"}}) {
    RequestTypeRequest r{std::move(id), "network", {}, test::at(1000), test::at(1000)};
    r.details.request =
        RequestTypeRequestDetailsRequest{std::move(url), "GET", {}, test::at(1000), ""};
    r.details.response = RequestTypeRequestDetailsResponse{200, std::move(responseHeaders),
                                                           test::at(1000.25), std::move(body)};
    return r;
}

class InspectorScreensTest : public test::InspectorFixture {
  protected:
    void SetUp() override {
        test::InspectorFixture::SetUp();
        ui_ = std::make_unique<ImGuiHarness>(ImVec2(1024, 900));
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
        test::InspectorFixture::TearDown();
    }

    // Opens the sheet and the list, as the dashboard's command and a click on "Open Logs" do.
    void openList() {
        notifications_.post(kOpenKestroSheet);
        ui_->step(2);
        const auto row = ui_->item("settings.openLogs");
        ASSERT_TRUE(row) << "the settings form is shown";
        ui_->click(row->center());
        ui_->step(2);
        ASSERT_TRUE(ui_->item("list.search"));
    }
    RequestsListModel& list() { return *modifier_->sheet()->form().logsList(); }
    void clickItem(std::string_view name) {
        const auto box = ui_->item(name);
        ASSERT_TRUE(box) << name;
        ui_->click(box->center());
        ui_->step();
    }
    bool drawn(std::string_view text) const { return ui_->findText(text).has_value(); }
    // The line numbers the JSON view shows, top to bottom.
    std::vector<std::string> lineNumbers() const {
        std::vector<std::pair<float, std::string>> lines;
        for (const auto& name : ui_->itemNames("json.row.")) {
            lines.emplace_back(ui_->item(name)->min.y, name.substr(9));
        }
        std::sort(lines.begin(), lines.end());
        std::vector<std::string> out;
        for (auto& [y, n] : lines) out.push_back(n);
        return out;
    }

    imgui::ImGuiClipboard imguiClipboard_;
    std::unique_ptr<ImGuiHarness> ui_;
    std::unique_ptr<KestroSheetModifier> modifier_;
    std::unique_ptr<imgui::InspectorView> view_;
};

TEST_F(InspectorScreensTest, TypingInTheSearchFieldFiltersTheRows) {
    store_->add(jsonExchange("a", "https://api.test/users", "[]"));
    store_->add(test::log("b", "cache is warm"));
    store_->add(test::event("c", "Checkout Started", "commerce"));
    openList();
    EXPECT_TRUE(drawn("https://api.test/users"));
    EXPECT_TRUE(drawn("cache is warm"));
    clickItem("list.search");
    ui_->typeText("CACHE");
    ui_->step(2);
    EXPECT_EQ(list().searchText(), "CACHE");
    EXPECT_TRUE(drawn("cache is warm"));
    EXPECT_FALSE(drawn("https://api.test/users"));
    EXPECT_FALSE(drawn("Checkout Started"));
    // The clear button empties the field and shows every row again.
    clickItem("list.clear");
    ui_->step();
    EXPECT_TRUE(drawn("https://api.test/users"));
    EXPECT_TRUE(drawn("Checkout Started"));
}

TEST_F(InspectorScreensTest, ClickingARowOpensItsDetailsAndCopyingShowsTheToast) {
    const std::string body = R"({"user":{"name":"Ada","roles":["admin"]},"active":true})";
    store_->add(jsonExchange("a", "https://api.test/users/1", body));
    openList();
    clickItem("row:a");
    ASSERT_NE(list().details(), nullptr);
    EXPECT_TRUE(drawn("Request"));
    EXPECT_TRUE(drawn("https://api.test/users/1"));
    EXPECT_TRUE(drawn("250.00 ms"));

    // The JSON section's "Copy" button.
    clickItem("copy:Body");
    EXPECT_EQ(ui_->clipboard(), body);
    EXPECT_TRUE(drawn("JSON copied to clipboard"));
    // A click on a value copies it.
    clickItem("value:URL");
    EXPECT_EQ(ui_->clipboard(), "https://api.test/users/1");
    EXPECT_TRUE(drawn("Copied to clipboard"));
    clock_.advance(1500ms);
    ui_->step();
    EXPECT_FALSE(drawn("Copied to clipboard"));
}

TEST_F(InspectorScreensTest, DetailsShowThePhaseWaterfallAndWhereABodyWasCut) {
    auto real = jsonExchange("real", "https://api.test/download", R"({"part":)",
                             {{"Content-Type", "application/json"}});
    auto& response = *real.asNetworkRequest()->details.response;
    response.bodyTotalBytes = 2 * 1024 * 1024;
    response.timings = RequestTypeRequestTimings{10, 20, 30, 25, 15};
    store_->add(real);
    store_->add(jsonExchange("mocked", "https://api.test/mocked", "[]"));
    openList();

    clickItem("row:real");
    const auto notice = ui_->findText("truncated: 2,097,152 bytes in all");
    ASSERT_TRUE(notice);
    EXPECT_EQ(notice->color, imgui::toImU32(colors::orange));
    EXPECT_TRUE(drawn("Total 100.00 ms"));
    // One bar per phase that happened, left to right in order, each as wide as its share.
    const char* phases[] = {"Name lookup", "Connect", "TLS", "First byte", "Transfer"};
    const double ms[] = {10, 20, 30, 25, 15};
    std::optional<testing::Box> previous;
    float track = 0;
    for (int i = 0; i < 5; ++i) {
        const auto bar = ui_->item(std::string("timing:") + phases[i]);
        ASSERT_TRUE(bar) << phases[i];
        EXPECT_TRUE(drawn(phases[i]));
        EXPECT_FALSE(ui_->shapesIn(*bar).empty()) << phases[i];
        if (previous) {
            EXPECT_NEAR(bar->min.x, previous->max.x, 1.0) << phases[i];
            EXPECT_GT(bar->min.y, previous->min.y) << phases[i];
        }
        track += bar->width();
        previous = bar;
    }
    for (int i = 0; i < 5; ++i) {
        EXPECT_NEAR(ui_->item(std::string("timing:") + phases[i])->width(), track * ms[i] / 100,
                    1.0)
            << phases[i];
    }
    EXPECT_TRUE(drawn("30.00 ms"));
    ui_->click(ui_->findText("Done")->box.center());

    // A mocked answer has no phases: the screen says so and draws no bar.
    ASSERT_TRUE(ui_->stepUntil([&] { return list().details() == nullptr; }, 10));
    clickItem("row:mocked");
    EXPECT_TRUE(drawn("no timings"));
    EXPECT_TRUE(ui_->itemNames("timing:").empty());
    EXPECT_FALSE(drawn("truncated:"));
}

TEST_F(InspectorScreensTest, ExportHARAndCopyAsCurlSayWhatTheyDid) {
    store_->add(jsonExchange("a", "https://api.test/users?page=2", "[]"));
    store_->add(test::log("b", "not an exchange"));
    openList();
    clickItem("list.exportHAR");
    // Written on a worker; the toast follows on the main queue.
    ASSERT_TRUE(ui_->waitUntil([&] { return !list().isExporting(); }));
    std::vector<std::filesystem::path> files;
    for (const auto& entry : std::filesystem::directory_iterator(dir_)) {
        if (entry.path().extension() == ".har") files.push_back(entry.path());
    }
    ASSERT_EQ(files.size(), 1u) << "written to the data directory";
    EXPECT_TRUE(drawn("HAR saved to " + files[0].string()));

    clickItem("row:a");
    clickItem("details.copyCurl");
    EXPECT_EQ(ui_->clipboard(), "curl 'https://api.test/users?page=2'");
    EXPECT_TRUE(drawn("Copied to clipboard"));
    ui_->click(ui_->findText("Done")->box.center());
    ASSERT_TRUE(ui_->stepUntil([&] { return list().details() == nullptr; }, 10));
    // A log's details have no request to repeat.
    clickItem("row:b");
    EXPECT_FALSE(ui_->item("details.copyCurl"));
}

TEST_F(InspectorScreensTest, RedactionListsAreEditedInTheSettingsForm) {
    notifications_.post(kOpenKestroSheet);
    ui_->step(2);
    // The section sits below the switches: scroll the form down to it.
    ASSERT_TRUE(ui_->item("sheet"));
    for (int i = 0; i < 10 && !(ui_->item("redaction.headers.field") &&
                                ui_->item("redaction.headers.field")->inside(*ui_->item("sheet")));
         ++i) {
        ui_->wheel(ui_->item("sheet")->center(), -10);
        ui_->step();
    }
    for (const char* header : {"authorization", "cookie", "x-api-key"}) EXPECT_TRUE(drawn(header));
    clickItem("redaction.headers.field");
    ui_->typeText("X-Trace-Token");
    ui_->pressKey(ImGuiKey_Enter);
    ui_->step(2);
    EXPECT_TRUE(drawn("x-trace-token"));
    const auto& headers = facade_->redactionPolicy().headers;
    EXPECT_NE(std::find(headers.begin(), headers.end(), "x-trace-token"), headers.end());

    // A duplicate stays in the field with the reason under it.
    clickItem("redaction.headers.field");
    ui_->typeText("Cookie");
    clickItem("redaction.headers.add");
    ui_->step();
    EXPECT_TRUE(drawn("\"cookie\" is already listed"));

    clickItem("redaction.headers.remove:cookie");
    ui_->step();
    const auto& after = facade_->redactionPolicy().headers;
    EXPECT_EQ(std::find(after.begin(), after.end(), "cookie"), after.end());
    EXPECT_TRUE(facade_->redactionPolicy().enabled);
    clickItem("redaction.enabled");
    ui_->step();
    EXPECT_FALSE(facade_->redactionPolicy().enabled);
}

TEST_F(InspectorScreensTest, AFoldIconFoldsTheObjectAndTheLineNumbersFollow) {
    store_->add(jsonExchange("a", "https://api.test/x", R"({"a":{"b":1,"c":2},"d":[3],"e":4})"));
    openList();
    clickItem("row:a");
    ASSERT_TRUE(ui_->stepUntil([&] { return ui_->item("json.fold.2").has_value(); }))
        << "the body is laid out";
    EXPECT_EQ(lineNumbers(),
              (std::vector<std::string>{"1", "2", "3", "4", "5", "6", "7", "8", "9", "10"}));
    clickItem("json.fold.2");
    ui_->step();
    EXPECT_EQ(lineNumbers(), (std::vector<std::string>{"1", "2", "6", "7", "8", "9", "10"}));
    ASSERT_TRUE(ui_->item("json.expand.2"));
    clickItem("json.expand.2");
    ui_->step();
    EXPECT_EQ(lineNumbers().size(), 10u);
}

TEST_F(InspectorScreensTest, ALinkInAJSONBodyOpensThroughTheHost) {
    store_->add(jsonExchange("a", "https://api.test/x", R"({"site":"https://example.test/home"})"));
    std::vector<std::string> opened;
    imgui::setInspectorOpenURL([&](const std::string& url) { opened.push_back(url); });
    openList();
    clickItem("row:a");
    ASSERT_TRUE(ui_->stepUntil([&] { return drawn("example.test/home"); }));
    ui_->click(ui_->findText("example.test/home")->box.center());
    ui_->step(2);
    imgui::setInspectorOpenURL({});
    ASSERT_EQ(opened.size(), 1u);
    EXPECT_NE(opened[0].find("example.test/home"), std::string::npos);
}

TEST_F(InspectorScreensTest, RowsAreDeletedByKeyMenuAndTrashButton) {
    for (const char* id : {"a", "b", "c", "d"})
        store_->add(test::log(id, std::string("line ") + id));
    openList();
    // The Delete key acts on the focused row: the one last opened.
    clickItem("row:c");
    ASSERT_NE(list().details(), nullptr);
    ui_->click(ui_->findText("Done")->box.center());
    ui_->step();
    ASSERT_EQ(list().details(), nullptr);
    ui_->pressKey(ImGuiKey_Delete);
    ui_->step(2);
    EXPECT_FALSE(store_->getById("c"));
    EXPECT_FALSE(drawn("line c"));
    // The arrow keys move the focus.
    ui_->pressKey(ImGuiKey_DownArrow);
    ui_->pressKey(ImGuiKey_Delete);
    ui_->step(2);
    EXPECT_EQ(store_->requests().size(), 2u);

    // The context menu's "Delete".
    const std::string first = list().item(0).id();
    ui_->click(ui_->item("row:" + first)->center(), ImGuiMouseButton_Right);
    ui_->step();
    ui_->click(ui_->findText("Delete")->box.center());
    ui_->step(2);
    EXPECT_FALSE(store_->getById(first));

    // The trash button of the hovered row.
    const std::string last = list().item(0).id();
    ui_->moveMouse(ui_->item("row:" + last)->center());
    ui_->step();
    ASSERT_TRUE(ui_->item("trash:" + last));
    ui_->moveMouse(ui_->item("trash:" + last)->center());
    ui_->step();
    clickItem("trash:" + last);
    ui_->step(2);

    EXPECT_TRUE(store_->requests().empty());
    EXPECT_TRUE(drawn("Nothing has been captured yet."));
}

TEST_F(InspectorScreensTest, TheDeleteLogsConfirmationEmptiesTheStore) {
    store_->add(test::log("a", "one"));
    notifications_.post(kOpenKestroSheet);
    ui_->step(2);
    EXPECT_TRUE(drawn("Total Logs"));
    ui_->click(ui_->findText("Delete Logs")->box.center());
    ui_->step(2);
    EXPECT_TRUE(drawn("This will delete all your logs. Are you sure?"));
    ui_->click(ui_->findText("Cancel")->box.center());
    ui_->step(2);
    EXPECT_EQ(store_->requests().size(), 1u);
    ui_->click(ui_->findText("Delete Logs")->box.center());
    ui_->step(2);
    const auto buttons = ui_->findAllText("Delete");
    // The dialog's own "Delete" is the last drawn.
    ui_->click(buttons.back().boxOf(buttons.back().text.find("Delete"), 6).center());
    ui_->step(2);
    EXPECT_TRUE(store_->requests().empty());
}

// --- Bad input: nothing crashes or stalls, and the screen says what it could not show ---

TEST_F(InspectorScreensTest, HugeBrokenAndUndecodableBodiesAreShownInPart) {
    // In memory only: a body that is not UTF-8 cannot be written to the database.
    std::vector<RequestEventType> items;
    items.push_back(jsonExchange("big", "https://api.test/big", std::string(50 << 20, 'x'),
                                 {{"Content-Type", "text/plain"}}));
    items.push_back(jsonExchange("bad", "https://api.test/bad", "caf\xe9 \xff\xfe",
                                 {{"Content-Type", "text/plain"}}));
    items.push_back(jsonExchange("img", "https://api.test/img", base64Encode("not an image at all"),
                                 {{"Content-Type", "image/png"}}));
    store_->setRequests(std::move(items));
    openList();
    // Opening one takes a few frames' time; an unoptimised sanitizer build is ten times slower
    // (the 50 MB body took 1.98 s there), so it only checks that nothing stalls.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    constexpr auto kOpenLimit = 20s;
#else
    constexpr auto kOpenLimit = 2s;
#endif
    for (const char* id : {"big", "bad", "img"}) {
        const auto started = std::chrono::steady_clock::now();
        clickItem(std::string("row:") + id);
        ui_->step(2);
        EXPECT_LT(std::chrono::steady_clock::now() - started, kOpenLimit) << id;
        if (std::string_view(id) == "big") {
            EXPECT_TRUE(drawn("Showing the first 64.00 KB"));
        } else if (std::string_view(id) == "bad") {
            EXPECT_TRUE(drawn("not valid UTF-8"));
        } else {
            EXPECT_TRUE(drawn("Preview"));
            EXPECT_TRUE(drawn("The image could not be decoded."));
        }
        list().dismissDetails();
        ui_->step();
    }
}

TEST_F(InspectorScreensTest, AnImageBodyIsDecodedAndUploadedThroughTheHostsHooks) {
    // A 3 × 2 PNG made here.
    const unsigned char pixels[3 * 2 * 4] = {255, 0, 0, 255, 0, 255, 0, 255, 0, 0, 255, 255,
                                             9,   9, 9, 255, 9, 9,   9, 255, 9, 9, 9,   255};
    std::string bytes;
    ASSERT_TRUE(stbi_write_png_to_func(
        [](void* out, void* data, int size) {
            static_cast<std::string*>(out)->append(static_cast<char*>(data), size);
        },
        &bytes, 3, 2, 4, pixels, 3 * 4));
    store_->add(jsonExchange("img", "https://api.test/img.png", base64Encode(bytes),
                             {{"Content-Type", "image/png"}}));
    std::vector<std::pair<int, int>> made;
    int released = 0;
    imgui::setImageTextureHooks({[&](const std::uint8_t* rgba, int w, int h) {
                                     EXPECT_EQ(rgba[0], 255);  // the first pixel is red
                                     made.emplace_back(w, h);
                                     return reinterpret_cast<ImTextureID>(std::uintptr_t{42});
                                 },
                                 [&](ImTextureID) { ++released; }});
    openList();
    clickItem("row:img");
    ui_->step(2);
    EXPECT_EQ(made, (std::vector<std::pair<int, int>>{{3, 2}})) << "uploaded once";
    EXPECT_TRUE(ui_->item("image.preview"));
    ui_->click(ui_->findText("Done")->box.center());
    ui_->step();
    EXPECT_EQ(released, 1);
    imgui::setImageTextureHooks({});
}

TEST_F(InspectorScreensTest, APayloadNestedTenThousandDeepOpens) {
    boost::json::value deep = boost::json::array{};
    for (int i = 0; i < 10000; ++i) {
        boost::json::array outer;
        outer.push_back(std::move(deep));
        deep = std::move(outer);
    }
    store_->add(test::event("deep", "Deep", "", {{"nest", std::move(deep)}}));
    openList();
    clickItem("row:deep");
    ASSERT_NE(list().details(), nullptr);
    EXPECT_TRUE(ui_->stepUntil([&] {
        return ui_->item("json.row.1").has_value() || !list().details() || drawn("could not");
    })) << "the payload is shown or the view says why not";

    list().dismissDetails();
    ui_->step();
    store_->deleteAll();
    ui_->step();
}

TEST_F(InspectorScreensTest, AHundredThousandItemsCostTheVisibleRows) {
    std::vector<RequestEventType> items;
    items.reserve(100000);
    for (int i = 0; i < 100000; ++i) {
        items.push_back(i % 2
                            ? test::log("log-" + std::to_string(i), "message " + std::to_string(i))
                            : RequestEventType(jsonExchange(
                                  "net-" + std::to_string(i),
                                  "https://api.test/item/" + std::to_string(i), "[]")));
    }
    store_->setRequests(std::move(items));
    openList();
    EXPECT_EQ(list().rowCount(), 100000u);
    EXPECT_LT(ui_->itemNames("row:").size(), 40u) << "only the visible rows are drawn";
    clickItem("list.search");
    ui_->typeText("item/9999");
    ui_->step(2);
    // Network items have the even numbers: 99990, 99992, ..., 99998.
    EXPECT_EQ(list().rowCount(), 5u);
}

TEST_F(InspectorScreensTest, DeletionsUnderAnOpenScreenAreShown) {
    store_->add(test::log("a", "one"));
    store_->add(test::log("b", "two"));
    openList();
    clickItem("row:b");
    store_->deleteById("b");
    ui_->step(2);
    EXPECT_TRUE(drawn("This item has been deleted"));
    EXPECT_TRUE(drawn("two")) << "what was recorded is still shown";
    ui_->click(ui_->findText("Done")->box.center());
    ui_->step();
    store_->deleteAll();
    ui_->step(2);
    EXPECT_TRUE(drawn("Nothing has been captured yet."));
    EXPECT_EQ(ui_->itemNames("row:").size(), 0u);
}

}  // namespace
}  // namespace kestro
