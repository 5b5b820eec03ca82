#include "kestro/imgui/json_viewer_view.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "kestro/imgui/colors.h"
#include "kestro/imgui/fonts.h"
#include "support/imgui/imgui_harness.h"

namespace kestro {
namespace {

using testing::Box;
using testing::DrawnText;
using testing::ImGuiHarness;

class JSONViewerViewTest : public ::testing::Test {
  protected:
    JSONViewerViewTest() : ui_(ImVec2(800, 600)) {
        ui_.setScene([this] {
            ImGui::SetNextWindowPos(ImVec2(0, 0));
            ImGui::SetNextWindowSize(ImVec2(800, 600));
            ImGui::Begin("viewer", nullptr, ImGuiWindowFlags_NoDecoration);
            view_.DrawContents();
            ImGui::End();
        });
    }

    // Shows json and runs frames until it is on screen.
    void show(std::string json) {
        view_.setJSON(std::move(json));
        ASSERT_TRUE(ui_.waitUntil([&] { return view_.isShowing(); }));
        ui_.step(2);
    }

    // The line numbers drawn in the column, top to bottom.
    std::vector<std::string> lineNumbers() const {
        std::vector<std::string> out;
        auto column = ui_.item("json.lineNumbers");
        if (!column) return out;
        for (const DrawnText& t : ui_.textsIn(*column)) out.push_back(t.text);
        return out;
    }

    // What a row shows, as one line of text (icons are not text).
    std::string rowText(int lineNumber) const {
        auto row = ui_.item("json.row." + std::to_string(lineNumber));
        return row ? ui_.lineTextIn(*row) : std::string("<no row>");
    }

    // The last document set is shown, or the view says why not.
    bool settled() const {
        return view_.isShowing() || (!view_.message().empty() && view_.message() != "Formatting…");
    }

    static std::vector<std::string> numbers(int from, int to) {
        std::vector<std::string> out;
        for (int n = from; n <= to; ++n) out.push_back(std::to_string(n));
        return out;
    }

    ImGuiHarness ui_;
    JSONViewerView view_;
};

TEST_F(JSONViewerViewTest, ShowsTheDocumentLineByLineBesideItsLineNumbers) {
    show(R"({"list":[1,2,3],"name":"kestro","ok":true,"none":null})");
    EXPECT_EQ(lineNumbers(), numbers(1, 10));
    EXPECT_EQ(rowText(2), "\"list\" : [");
    EXPECT_EQ(rowText(4), "2,");
    EXPECT_EQ(rowText(7), "\"name\" : \"kestro\",");
    EXPECT_EQ(rowText(10), "}");
    // Each line number sits on its row; the text is coloured by token kind.
    const Box column = ui_.item("json.lineNumbers").value();
    const Box row7 = ui_.item("json.row.7").value();
    EXPECT_GE(column.max.x, 0);
    const auto seven =
        ui_.textsIn(Box{ImVec2(column.min.x, row7.min.y), ImVec2(column.max.x, row7.max.y)});
    ASSERT_EQ(seven.size(), 1u);
    EXPECT_EQ(seven[0].text, "7");
    const HighlightStyle& style = view_.model()->highlightStyle();
    EXPECT_EQ(ui_.findText("\"name\"").value().color, imgui::toImU32(style.color.key));
    EXPECT_EQ(ui_.findText("\"kestro\"").value().color, imgui::toImU32(style.color.string));
    EXPECT_EQ(ui_.findText("null").value().color, imgui::toImU32(style.color.null));
    // Container lines carry their fold icon, drawn beside the bracket.
    const auto fold = ui_.item("json.fold.2");
    ASSERT_TRUE(fold);
    EXPECT_FALSE(ui_.shapesIn(*fold, imgui::toImU32(style.color.keyWord)).empty());
}

TEST_F(JSONViewerViewTest, ClickingAFoldIconFoldsTheContainerAndTheLineNumbersFollow) {
    show(R"({"list":[1,2,3],"name":"kestro"})");
    ASSERT_EQ(lineNumbers(), numbers(1, 8));
    ui_.click(ui_.centerOfItem("json.fold.2"));
    ui_.step();
    EXPECT_EQ(lineNumbers(), (std::vector<std::string>{"1", "2", "7", "8"}));
    EXPECT_EQ(rowText(2), "\"list\" : [Array...],");
    EXPECT_EQ(rowText(7), "\"name\" : \"kestro\"");
    EXPECT_FALSE(ui_.item("json.row.3"));
    EXPECT_FALSE(ui_.item("json.fold.2"));

    // The placeholder's line now has an expand icon; clicking it brings the lines back.
    ui_.click(ui_.centerOfItem("json.expand.2"));
    ui_.step();
    EXPECT_EQ(lineNumbers(), numbers(1, 8));
    EXPECT_EQ(rowText(4), "2,");

    // Clicking the opening bracket folds too; clicking plain text does nothing.
    ui_.click(ui_.centerOf("{"));
    ui_.step();
    EXPECT_EQ(lineNumbers(), (std::vector<std::string>{"1"}));
    ui_.click(ui_.centerOf("Object"));
    ui_.step();
    EXPECT_EQ(lineNumbers(), (std::vector<std::string>{"1"}));
}

TEST_F(JSONViewerViewTest, TypingASearchHighlightsTheHits) {
    view_.settings.highlightStyle = HighlightStyle::default_();  // a hit background to see
    show(R"({"a":"needle in a haystack","b":{"c":"hay","d":"needle"},"e":"nothing"})");
    ui_.click(ui_.centerOfItem("json.search"));
    ui_.typeText("needle");
    // The search runs once typing pauses.
    ASSERT_TRUE(ui_.stepUntil([&] { return !view_.searchResults().empty(); }, 120));
    ui_.step(2);
    EXPECT_EQ(view_.searchResults(), (std::vector<int>{1, 4}));
    EXPECT_TRUE(ui_.findText("2 lines"));

    // Both hits are bold on the hit background; the rest of the text is not.
    const imgui::Fonts& fonts = imgui::Fonts::current();
    const HighlightStyle& style = HighlightStyle::default_();
    const ImFont* bold = fonts.resolve(*style.boldOfJSONFont()).font;
    const ImU32 background = imgui::toImU32(*style.color.searchHitBackground);
    std::vector<DrawnText> hits;
    for (const DrawnText& t : ui_.findAllText("needle"))
        if (!t.box.inside(ui_.item("json.search").value())) hits.push_back(t);
    ASSERT_EQ(hits.size(), 2u);
    for (const DrawnText& hit : hits) {
        EXPECT_EQ(hit.text, "needle");
        EXPECT_EQ(hit.font, bold);
        bool behind = false;
        for (const auto& shape : ui_.shapes())
            behind |= shape.color == background && hit.box.inside(shape.box);
        EXPECT_TRUE(behind) << "no hit background behind " << hit.box.min.x;
    }
    EXPECT_NE(ui_.findText("in a haystack").value().font, bold);

    // Clearing the field removes the highlighting.
    ui_.click(ui_.centerOfItem("json.clearSearch"));
    ui_.step(3);
    EXPECT_TRUE(view_.searchResults().empty());
    for (const auto& shape : ui_.shapes()) EXPECT_NE(shape.color, background);
    EXPECT_NE(ui_.findText("needle").value().font, bold);
}

TEST_F(JSONViewerViewTest, WrappingOnAndOffChangesTheLayout) {
    const std::string words = [] {
        std::string s;
        for (int i = 0; i < 40; ++i) s += "word" + std::to_string(i) + " ";
        return s;
    }();
    show(R"({"long":")" + words + R"(","z":1})");
    auto rowHeight = [&](int line) {
        return ui_.item("json.row." + std::to_string(line)).value().height();
    };
    const float lineHeight = rowHeight(3);
    // Wrapped: the long line takes several lines, broken between words, all within the view.
    EXPECT_GT(rowHeight(2), lineHeight * 2.5f);
    EXPECT_TRUE(ui_.findText("word39"));
    for (const DrawnText& t : ui_.texts()) EXPECT_LE(t.box.max.x, 800.5f) << t.text;
    const float afterTop = ui_.item("json.row.3").value().min.y;

    // Unwrapped: one line, running past the view's right edge; the next line moves up.
    ui_.click(ui_.centerOf("Wrap"));
    ui_.step(2);
    EXPECT_FALSE(view_.model()->automaticWrapEnabled());
    EXPECT_FLOAT_EQ(rowHeight(2), lineHeight);
    EXPECT_LT(ui_.item("json.row.3").value().min.y, afterTop);
    EXPECT_FALSE(ui_.findText("word39"));  // clipped away to the right
    EXPECT_EQ(lineNumbers(), numbers(1, 4));

    ui_.click(ui_.centerOf("Wrap"));
    ui_.step(2);
    EXPECT_GT(rowHeight(2), lineHeight * 2.5f);
}

TEST_F(JSONViewerViewTest, ANarrowerViewWrapsLinesAgain) {
    std::string words;
    for (int i = 0; i < 30; ++i) words += "word ";
    show(R"({"long":")" + words + R"("})");
    const float wide = ui_.item("json.row.2").value().height();
    ui_.setDisplaySize(ImVec2(400, 600));
    ui_.setScene([this] {
        ImGui::SetNextWindowPos(ImVec2(0, 0));
        ImGui::SetNextWindowSize(ImVec2(400, 600));
        ImGui::Begin("viewer", nullptr, ImGuiWindowFlags_NoDecoration);
        view_.DrawContents();
        ImGui::End();
    });
    ui_.step(2);
    EXPECT_GT(ui_.item("json.row.2").value().height(), wide);
    EXPECT_GT(ui_.item("json.row.3").value().min.y, ui_.item("json.row.2").value().min.y + wide);
}

TEST_F(JSONViewerViewTest, ClickingALinkOpensItThroughTheHost) {
    std::vector<std::string> opened;
    view_.settings.openURL = [&](const std::string& url) { opened.push_back(url); };
    show(R"({"docs":"https://kestro.dev/docs","ip":"10.0.0.1","plain":"not a link"})");
    ui_.click(ui_.centerOf("kestro.dev/docs"));
    ui_.click(ui_.centerOf("10.0.0.1"));
    ui_.click(ui_.centerOf("not a link"));
    EXPECT_EQ(opened, (std::vector<std::string>{"https://kestro.dev/docs", "http://10.0.0.1"}));

    // A delegate that handles the link itself keeps the host from opening it.
    struct Taking : JSONViewerDelegate {
        bool jsonViewerDidClickURL(JSONViewer&, const std::string& url) override {
            seen.push_back(url);
            return false;
        }
        std::vector<std::string> seen;
    };
    auto delegate = std::make_shared<Taking>();
    view_.model()->setDelegate(delegate);
    ui_.click(ui_.centerOf("kestro.dev/docs"));
    EXPECT_EQ(delegate->seen, std::vector<std::string>{"https://kestro.dev/docs"});
    EXPECT_EQ(opened.size(), 2u);
}

TEST_F(JSONViewerViewTest, CopyingALineOrTheDocumentLeavesTheIconsOut) {
    show(R"({"a":[1,2]})");
    ui_.click(ui_.centerOf("\"a\""), ImGuiMouseButton_Right);
    ui_.click(ui_.centerOf("Copy Line"));
    ui_.click(ui_.centerOfItem("json.row.3"), ImGuiMouseButton_Right);
    ui_.click(ui_.centerOf("Copy All"));
    EXPECT_EQ(ui_.clipboardWrites(),
              (std::vector<std::string>{"\t\"a\" : [", "{\n\t\"a\" : [\n\t\t1,\n\t\t2\n\t]\n}\n"}));
}

TEST_F(JSONViewerViewTest, OnlyTheRowsInViewAreDrawn) {
    std::string json = "[";
    for (int i = 0; i < 100000; ++i) json += (i ? "," : "") + std::to_string(i);
    show(json + "]");
    EXPECT_EQ(view_.model()->lineDataSource().size(), 100002u);
    const auto first = lineNumbers();
    ASSERT_FALSE(first.empty());
    EXPECT_EQ(first.front(), "1");
    EXPECT_LT(first.size(), 40u);
    EXPECT_LT(ui_.itemNames("json.row.").size(), 40u);
    // Scrolling down by the wheel shows later rows, still only a screenful.
    const Box column = ui_.item("json.lineNumbers").value();
    for (int i = 0; i < 20; ++i) ui_.wheel(column.center(), -10);
    ui_.step();
    const auto later = lineNumbers();
    ASSERT_FALSE(later.empty());
    EXPECT_GT(std::stoi(later.front()), 100);
    EXPECT_LT(later.size(), 40u);
    EXPECT_EQ(rowText(std::stoi(later[1])), std::to_string(std::stoi(later[1]) - 2) + ",");
}

TEST_F(JSONViewerViewTest, IllFormedUTF8AndDeepNestingShowSomethingOrSaySo) {
    // Ill-formed bytes are repaired and the document shown, never left blank.
    view_.setJSON("{\"a\":\"bad \xFF\xFE bytes\",\"b\":\"\xC3(\"}");
    ASSERT_TRUE(ui_.waitUntil([&] { return settled(); }));
    ui_.step(2);
    ASSERT_TRUE(view_.isShowing()) << view_.message();
    EXPECT_TRUE(ui_.findText("bytes"));
    EXPECT_TRUE(ui_.findText("(")) << "the byte after a broken sequence is kept";

    const std::string deep = std::string(10000, '[') + std::string(10000, ']');
    view_.setJSON(deep);
    ASSERT_TRUE(ui_.waitUntil([&] { return settled(); }));
    ui_.step(2);
    ASSERT_TRUE(view_.isShowing()) << view_.message();
    EXPECT_EQ(lineNumbers().front(), "1");
    EXPECT_FALSE(ui_.texts().empty());
    // The deepest lines can be reached and drawn.
    const Box column = ui_.item("json.lineNumbers").value();
    for (int i = 0; i < 60; ++i) ui_.wheel(column.center(), -50);
    ui_.step();
    EXPECT_FALSE(lineNumbers().empty());

    view_.setJSON("");
    ASSERT_TRUE(ui_.waitUntil([&] { return settled(); }));
}

}  // namespace
}  // namespace kestro
