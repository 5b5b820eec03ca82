#include "kestro/jsonview/json_viewer_model.h"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "kestro/core/main_queue.h"
#include "support/console_capture.h"

namespace kestro {
namespace {

using State = JSONSlice::State;

// The shown text with each icon written as <F> or <E>.
std::string plain(const AttributedText& text) {
    std::string out;
    text.enumerateRuns([&](const AttributedText::Run& run) {
        if (run.attributes.attachment)
            out += run.attributes.attachment->image.name == "fold" ? "<F>" : "<E>";
        else
            out += text.string().substr(run.range.location, run.range.length);
    });
    return out;
}

class RecordingDelegate : public JSONViewerDelegate {
  public:
    bool jsonViewerDidClickURL(JSONViewer&, const std::string& url) override {
        urls.push_back(url);
        return openItself;
    }
    void jsonViewerDidChangeSliceState(JSONViewer&, const JSONSlice& slice,
                                       const std::shared_ptr<JSONDecorator>& decorator) override {
        changes.emplace_back(slice.lineNumber, slice.state);
        EXPECT_TRUE(decorator);
    }
    std::vector<std::string> urls;
    std::vector<std::pair<int, State>> changes;
    bool openItself = false;
};

class JSONViewerTest : public ::testing::Test {
  protected:
    void SetUp() override { MainQueue::shared().useHostThread(); }
    void TearDown() override { MainQueue::shared().runUntilIdle(); }

    // A viewer showing json, decorated on the executor and shown through the main queue.
    std::shared_ptr<JSONViewer> show(const std::string& json, State initial = State::expand) {
        auto viewer = JSONViewer::create();
        bool done = false;
        viewer->preview(json, initial, [&](std::shared_ptr<JSONDecorator> d) {
            EXPECT_TRUE(MainQueue::shared().isCurrent());
            EXPECT_TRUE(d);
            done = true;
        });
        EXPECT_TRUE(MainQueue::shared().runUntil([&] { return done; }));
        return viewer;
    }

    // The shown text and line list must equal a fresh assembly of the slices.
    static void expectConsistent(const JSONViewer& viewer) {
        auto assembled = viewer.decorator()->assemble();
        ASSERT_EQ(viewer.lineDataSource(), assembled.lines);
        ASSERT_EQ(viewer.shownText().flattened(), assembled.attributedText);
    }

    static int rowOfLine(const JSONViewer& viewer, int lineNumber) {
        const auto& lines = viewer.lineDataSource();
        auto it = std::find(lines.begin(), lines.end(), lineNumber);
        return it == lines.end() ? -1 : static_cast<int>(it - lines.begin());
    }
};

TEST_F(JSONViewerTest, FoldingAnObjectOfThreeScalarsAndExpandingItAgain) {
    auto viewer = show(R"({"a":1,"b":"x","c":true})");
    auto delegate = std::make_shared<RecordingDelegate>();
    viewer->setDelegate(delegate);
    const AttributedText before = viewer->shownText().flattened();
    EXPECT_EQ(plain(before), "<F> {\n\t\"a\" : 1,\n\t\"b\" : \"x\",\n\t\"c\" : true\n}\n");
    EXPECT_EQ(viewer->lineDataSource(), (std::vector<int>{1, 2, 3, 4, 5}));
    const auto reloads = viewer->reloadCount();

    viewer->textViewDidClickZoom(0);
    EXPECT_EQ(plain(viewer->shownText().flattened()), "<E> {Object...}\n");
    EXPECT_EQ(viewer->lineDataSource(), std::vector<int>{1});
    EXPECT_GT(viewer->reloadCount(), reloads);
    expectConsistent(*viewer);

    viewer->textViewDidClickZoom(0);
    EXPECT_EQ(viewer->shownText().flattened(), before);  // characters and attributes
    EXPECT_EQ(viewer->lineDataSource(), (std::vector<int>{1, 2, 3, 4, 5}));
    EXPECT_EQ(delegate->changes,
              (std::vector<std::pair<int, State>>{{1, State::folded}, {1, State::expand}}));

    // Rows outside the list, and lines without a folded form, change nothing.
    viewer->textViewDidClickZoom(7);
    viewer->textViewDidClickZoom(std::nullopt);
    viewer->textViewDidClickZoom(1);
    EXPECT_EQ(viewer->shownText().flattened(), before);
    EXPECT_EQ(delegate->changes.size(), 2u);
}

TEST_F(JSONViewerTest, NestedFoldsKeepTheInnerContainerFolded) {
    auto viewer = show(R"({"a":{"x":[1,2],"y":3},"b":4})");
    // { / "a" : { / "x" : [ / 1, / 2 / ], / "y" : 3 / }, / "b" : 4 / }
    auto& slices = viewer->decorator()->slices;
    ASSERT_EQ(slices.size(), 10u);
    viewer->handleZoomClick(2);  // fold "x"
    EXPECT_EQ(viewer->lineDataSource(), (std::vector<int>{1, 2, 3, 7, 8, 9, 10}));
    viewer->handleZoomClick(1);  // fold "a"
    EXPECT_EQ(viewer->lineDataSource(), (std::vector<int>{1, 2, 9, 10}));
    EXPECT_EQ(slices[3].foldedTimes, 2);
    expectConsistent(*viewer);

    viewer->handleZoomClick(1);  // expand "a": "x" stays folded
    EXPECT_EQ(slices[2].state, State::folded);
    EXPECT_GT(slices[3].foldedTimes, 0);
    EXPECT_GT(slices[4].foldedTimes, 0);
    EXPECT_GT(slices[5].foldedTimes, 0);
    EXPECT_EQ(viewer->lineDataSource(), (std::vector<int>{1, 2, 3, 7, 8, 9, 10}));
    EXPECT_EQ(plain(viewer->shownText().flattened()),
              "<F> {\n\t\"a\" : <F> {\n\t\t\"x\" : <E> [Array...],\n\t\t\"y\" : 3\n\t},\n"
              "\t\"b\" : 4\n}\n");
    expectConsistent(*viewer);

    // Row 3 shows line 7, slice 6: the three hidden lines before it count.
    EXPECT_EQ(viewer->sliceIndex(3), 6u);
    const auto range = viewer->rangeOfRow(3);
    ASSERT_TRUE(range);
    EXPECT_EQ(viewer->shownText().attributedSubstring(*range), slices[6].expand);
}

TEST_F(JSONViewerTest, InitiallyFoldedDocumentOpensOneLevelAtATime) {
    auto viewer = show(R"({"a":[1,{"b":2}],"c":3})", State::folded);
    EXPECT_EQ(viewer->lineDataSource(), std::vector<int>{1});
    viewer->textViewDidClickZoom(0);
    EXPECT_EQ(viewer->lineDataSource(), (std::vector<int>{1, 2, 8, 9}));
    EXPECT_EQ(plain(viewer->shownText().flattened()),
              "<F> {\n\t\"a\" : <E> [Array...],\n\t\"c\" : 3\n}\n");
    expectConsistent(*viewer);
    viewer->textViewDidClickZoom(1);
    EXPECT_EQ(viewer->lineDataSource(), (std::vector<int>{1, 2, 3, 4, 7, 8, 9}));
    expectConsistent(*viewer);
}

// Any sequence of taps leaves the shown text and line list equal to a fresh assembly.
TEST_F(JSONViewerTest, RandomTapsKeepTheShownTextInStepWithTheSlices) {
    std::string json = R"({"list":[)";
    for (int i = 0; i < 12; ++i) {
        if (i) json += ',';
        json += R"({"id":)" + std::to_string(i) + R"(,"tags":["é","😀 x"],"o":{"k":[[],{}]}})";
    }
    json += R"(],"url":"https://example.com/x","end":null})";
    auto viewer = show(json);
    std::mt19937 rng(7);
    for (int step = 0; step < 250; ++step) {
        const int rows = static_cast<int>(viewer->lineDataSource().size());
        viewer->textViewDidClickZoom(static_cast<int>(rng() % static_cast<unsigned>(rows)));
        if (step % 10 == 0) expectConsistent(*viewer);
        if (HasFatalFailure()) return;
    }
    expectConsistent(*viewer);
    for (const auto& s : viewer->decorator()->slices) EXPECT_GE(s.foldedTimes, 0);
}

TEST_F(JSONViewerTest, SearchFindsHitsInHiddenLinesAndShowsThemOnceExpanded) {
    auto viewer = show(R"({"a":{"deep":"needle"},"b":"needle and needle"})");
    // { / "a" : { / "deep" : "needle" / }, / "b" : ... / }
    viewer->handleZoomClick(1);
    ASSERT_EQ(viewer->lineDataSource(), (std::vector<int>{1, 2, 5, 6}));

    std::vector<int> found;
    bool done = false;
    viewer->search("needle", [&](std::vector<int> indexes, std::shared_ptr<JSONDecorator> d) {
        found = std::move(indexes);
        EXPECT_EQ(d, viewer->decorator());
        done = true;
    });
    ASSERT_TRUE(MainQueue::shared().runUntil([&] { return done; }));
    EXPECT_EQ(found, (std::vector<int>{2, 4}));
    EXPECT_EQ(viewer->searchResultIndex(), found);
    expectConsistent(*viewer);

    const Color hit = *HighlightColor::default_().searchHitBackground;
    auto backgroundsIn = [&](const AttributedText& t) {
        std::vector<std::string> texts;
        t.enumerateRuns([&](const AttributedText::Run& r) {
            if (r.attributes.backgroundColor == hit) {
                texts.emplace_back(t.string().substr(r.range.location, r.range.length));
                EXPECT_TRUE(r.attributes.font && r.attributes.font->isBold());
            }
        });
        return texts;
    };
    EXPECT_EQ(backgroundsIn(viewer->shownText().flattened()),
              (std::vector<std::string>{"needle", "needle"}));
    viewer->handleZoomClick(1);  // the hidden hit shows once its line is expanded
    EXPECT_EQ(backgroundsIn(viewer->shownText().flattened()),
              (std::vector<std::string>{"needle", "needle", "needle"}));

    done = false;
    viewer->removeSearchStyle([&](std::shared_ptr<JSONDecorator> d) {
        EXPECT_TRUE(d);
        done = true;
    });
    ASSERT_TRUE(MainQueue::shared().runUntil([&] { return done; }));
    EXPECT_TRUE(backgroundsIn(viewer->shownText().flattened()).empty());
    EXPECT_TRUE(viewer->searchResultIndex().empty());
    const auto& fonts = viewer->decorator()->slices[2].expand;
    fonts.enumerateRuns([&](const AttributedText::Run& r) {
        if (!r.attributes.attachment) {
            EXPECT_FALSE(r.attributes.font->isBold());
        }
    });
    expectConsistent(*viewer);

    // A search without hits reports an empty list with the decorator.
    done = false;
    viewer->search("absent", [&](std::vector<int> indexes, std::shared_ptr<JSONDecorator> d) {
        EXPECT_TRUE(indexes.empty());
        EXPECT_TRUE(d);
        done = true;
    });
    EXPECT_TRUE(done);
}

TEST_F(JSONViewerTest, SearchAndRemoveBeforeAnythingIsShownReportNothing) {
    auto viewer = JSONViewer::create();
    bool searched = false, removed = false;
    viewer->search("x", [&](std::vector<int> indexes, std::shared_ptr<JSONDecorator> d) {
        EXPECT_TRUE(indexes.empty());
        EXPECT_FALSE(d);
        searched = true;
    });
    viewer->removeSearchStyle([&](std::shared_ptr<JSONDecorator> d) {
        EXPECT_FALSE(d);
        removed = true;
    });
    EXPECT_TRUE(searched);
    EXPECT_TRUE(removed);
    EXPECT_EQ(viewer->getLineHeight(0), 0);
    viewer->textViewDidClickZoom(0);  // no decorator: nothing happens
    EXPECT_TRUE(viewer->lineDataSource().empty());
}

TEST_F(JSONViewerTest, RowHeightsAreCachedPerOrientationRowAndState) {
    auto viewer = show("[\"line one\\nline two\", 1]");
    std::vector<std::optional<double>> widths;
    viewer->setTextMeasure(
        [&](const AttributedText& t, std::optional<double> width, std::optional<double> height) {
            widths.push_back(width);
            return measureText(t, width, height);
        });
    int reloads = 0;
    std::vector<bool> scrolls;
    viewer->setEvents({[&] { ++reloads; }, [&](bool animated) { scrolls.push_back(animated); },
                       nullptr, nullptr});
    viewer->setContentWidth(400);
    EXPECT_EQ(reloads, 1);  // the first width is a change too
    reloads = 0;

    const double twoLines = viewer->getLineHeight(1);
    EXPECT_DOUBLE_EQ(twoLines, 48);  // a real line break inside the string; 24 points a line
    EXPECT_DOUBLE_EQ(viewer->getLineHeight(2), 24);
    EXPECT_EQ(widths, (std::vector<std::optional<double>>{380, 380}));
    viewer->getLineHeight(1);
    EXPECT_EQ(widths.size(), 2u);  // cached
    EXPECT_EQ(viewer->stringSizeCalculator().height(1, Orientation::unknow, State::expand), 48);

    // Face-up is ignored; portrait is taken and reloads, and heights are measured again.
    viewer->handleDeviceOrientationChange(DeviceOrientation::faceUp);
    EXPECT_EQ(viewer->lastOrientation(), Orientation::unknow);
    EXPECT_EQ(reloads, 0);
    viewer->handleDeviceOrientationChange(DeviceOrientation::portrait);
    EXPECT_EQ(viewer->lastOrientation(), Orientation::portrait);
    EXPECT_EQ(reloads, 1);
    viewer->getLineHeight(1);
    EXPECT_EQ(widths.size(), 3u);
    viewer->handleDeviceOrientationChange(DeviceOrientation::landscapeRight);
    EXPECT_EQ(viewer->lastOrientation(), Orientation::landscape);

    // The state is part of the key: folding row 0 measures its placeholder anew. The rows
    // below it show other lines now, so their heights (in every orientation) are forgotten.
    viewer->getLineHeight(0);
    viewer->textViewDidClickZoom(0);
    viewer->getLineHeight(0);
    EXPECT_EQ(widths.size(), 5u);
    EXPECT_EQ(viewer->stringSizeCalculator().cachedCount(), 2u);  // row 0, expanded and folded

    // Turning wrapping off empties the cache, scrolls to the top and measures unbounded.
    viewer->shouldAnimateScrollToTopOnWrapModeChange = false;
    viewer->setAutomaticWrapEnabled(false);
    EXPECT_EQ(viewer->stringSizeCalculator().cachedCount(), 0u);
    EXPECT_EQ(scrolls, std::vector<bool>{false});
    viewer->getLineHeight(0);
    EXPECT_EQ(widths.back(), std::nullopt);
}

TEST_F(JSONViewerTest, WidthChangesAndFoldsForgetHeightsThatNoLongerHold) {
    // Rows: {, "a" : {, "b" : 1, "c" : 2, }, "long" : "x…", }. The long string wraps.
    auto viewer = show(R"({"a":{"b":1,"c":2},"long":")" + std::string(200, 'x') + R"("})");
    int reloads = 0;
    viewer->setEvents({[&] { ++reloads; }, nullptr, nullptr, nullptr});
    viewer->setContentWidth(300);
    EXPECT_EQ(reloads, 1);
    viewer->setContentWidth(300);
    EXPECT_EQ(reloads, 1);  // no change
    for (int row = 0; row < 7; ++row) viewer->getLineHeight(row);
    const double wrapped = viewer->getLineHeight(5);
    EXPECT_GT(wrapped, 24 * 3);
    EXPECT_DOUBLE_EQ(viewer->getLineHeight(2), 24);

    // Folding "a" puts the long line on row 2: its height is measured, not the old row 2's.
    viewer->textViewDidClickZoom(1);
    EXPECT_EQ(viewer->lineDataSource(), (std::vector<int>{1, 2, 6, 7}));
    EXPECT_DOUBLE_EQ(viewer->getLineHeight(2), wrapped);
    EXPECT_DOUBLE_EQ(viewer->getLineHeight(1), 24);
    viewer->textViewDidClickZoom(1);
    EXPECT_DOUBLE_EQ(viewer->getLineHeight(2), 24);
    EXPECT_DOUBLE_EQ(viewer->getLineHeight(5), wrapped);

    // A wider view wraps the line less.
    viewer->setContentWidth(900);
    EXPECT_EQ(reloads, 4);
    EXPECT_LT(viewer->getLineHeight(5), wrapped);
    // Without wrapping the width does not matter.
    viewer->setAutomaticWrapEnabled(false);
    const int before = reloads;
    viewer->getLineHeight(5);
    viewer->setContentWidth(200);
    EXPECT_EQ(reloads, before);
    EXPECT_EQ(viewer->stringSizeCalculator().cachedCount(), 1u);
}

TEST(MeasureText, WrapsAtTheWidthAndBreaksAtLineFeeds) {
    TextAttributes a;
    a.font = Font::monospacedSystem(10);  // 6 points a character
    const AttributedText t(std::string(20, 'x'), a);
    EXPECT_DOUBLE_EQ(measureText(t, std::nullopt, std::nullopt).width, 120);
    EXPECT_DOUBLE_EQ(measureText(t, std::nullopt, std::nullopt).height, 10);
    EXPECT_DOUBLE_EQ(measureText(t, 60.0, std::nullopt).height, 20);
    EXPECT_DOUBLE_EQ(measureText(t, 59.0, std::nullopt).height, 30);
    EXPECT_DOUBLE_EQ(measureText(AttributedText("a\nb\nc", a), 60.0, std::nullopt).height, 30);
    EXPECT_DOUBLE_EQ(measureText(t, 59.0, 25.0).height, 25);
}

TEST_F(JSONViewerTest, LinkTapsGoToTheDelegateOnlyForRecognisedLinks) {
    auto viewer = show("[1]");
    EXPECT_TRUE(viewer->shouldInteractWith("https://example.com"));  // no delegate yet
    auto delegate = std::make_shared<RecordingDelegate>();
    viewer->setDelegate(delegate);
    EXPECT_FALSE(viewer->shouldInteractWith("example.com/a"));
    EXPECT_FALSE(viewer->shouldInteractWith("10.1.2.3"));
    delegate->openItself = true;
    EXPECT_TRUE(viewer->shouldInteractWith("HTTP://Example.com"));
    EXPECT_TRUE(viewer->shouldInteractWith("not a link"));
    EXPECT_TRUE(viewer->shouldInteractWith("x"));
    EXPECT_EQ(delegate->urls, (std::vector<std::string>{"https://example.com/a", "http://10.1.2.3",
                                                        "HTTP://Example.com"}));
    delegate.reset();  // held weakly
    EXPECT_TRUE(viewer->shouldInteractWith("example.com"));
}

TEST_F(JSONViewerTest, TapsOnIconsAndOpeningBracketsAreFoldControls) {
    auto viewer = show(R"({"a":[1]})");
    const std::string text = viewer->shownText().string();
    // "<icon> {\n\t"a" : <icon> [\n\t\t1\n\t]\n}\n"
    EXPECT_TRUE(viewer->isZoomControl(0));                 // the icon
    EXPECT_TRUE(viewer->isZoomControl(text.find('{')));    // the bracket
    EXPECT_FALSE(viewer->isZoomControl(text.find('\n')));  // a line feed
    EXPECT_FALSE(viewer->isZoomControl(text.find('1')));
    EXPECT_TRUE(viewer->isZoomControl(text.find('[') - 1));  // next to the bracket
    EXPECT_FALSE(viewer->isZoomControl(text.size()));
}

TEST_F(JSONViewerTest, UndecodableTextAndViewersGoneMidDecoration) {
    auto viewer = JSONViewer::create();
    bool done = false;
    {
        test::ConsoleCapture console;
        viewer->preview("[\"\xFF\"]", State::expand, [&](std::shared_ptr<JSONDecorator> d) {
            EXPECT_FALSE(d);
            done = true;
        });
        ASSERT_TRUE(MainQueue::shared().runUntil([&] { return done; }));
        EXPECT_NE(console.text().find("not valid UTF-8"), std::string::npos);
    }
    EXPECT_FALSE(viewer->decorator());

    bool called = false;
    auto gone = JSONViewer::create();
    gone->preview("[1,2,3]", State::expand, [&](std::shared_ptr<JSONDecorator>) { called = true; });
    gone.reset();
    MainQueue::shared().runUntil([] { return MainQueue::shared().pending() == 0; },
                                 std::chrono::milliseconds(200));
    MainQueue::shared().runUntilIdle();
    EXPECT_FALSE(called);

    // update() shows a decorator made elsewhere.
    done = false;
    viewer->update(JSONDecorator::highlight("[true]"), [&](std::shared_ptr<JSONDecorator> d) {
        EXPECT_TRUE(d);
        done = true;
    });
    ASSERT_TRUE(MainQueue::shared().runUntil([&] { return done; }));
    EXPECT_EQ(viewer->lineDataSource(), (std::vector<int>{1, 2, 3}));
}

}  // namespace
}  // namespace kestro
