#include "kestro/inspector/requests_list.h"

#include <gtest/gtest.h>
#include <unicode/timezone.h>

#include <boost/json.hpp>
#include <fstream>
#include <random>
#include <set>

#include "inspector/inspector_fixture.h"
#include "inspector/records.h"
#include "kestro/core/local_time.h"
#include "kestro/core/text_search.h"
#include "kestro/inspector/request_row.h"
#include "support/wait.h"

namespace kestro {
namespace {

using test::event;
using test::log;
using test::network;

std::vector<std::string> ids(const std::vector<RequestEventType>& items) {
    std::vector<std::string> out;
    for (const auto& item : items) out.push_back(item.id());
    return out;
}

using RequestsListTest = test::InspectorFixture;

TEST_F(RequestsListTest, SearchFollowsTheRulesOfEachKind) {
    // Added oldest first; the list shows them newest first.
    store_->add(network("n-get", "https://api.test/users", "GET", 200));
    store_->add(network("n-post", "https://api.test/Orders", "POST", 201));
    store_->add(network("n-none", std::nullopt));
    store_->add(log("l-post", "sent the form", "post", "form.cc", "app.forms", "Upload"));
    store_->add(log("l-err", "GET failed: timeout", "ERROR"));
    store_->add(event("e-1", "Checkout Started", "commerce", {{"url", "https://api.test"}}));
    RequestsListModel list(*store_, clipboard_, toasts_);

    struct Case {
        std::string search;
        std::vector<std::string> shown;
    };
    const std::vector<Case> cases = {
        {"", {"e-1", "l-err", "l-post", "n-none", "n-post", "n-get"}},
        {"get", {"l-err", "n-get"}},        // the method matches though the URL does not
        {"POST", {"n-post"}},               // a log's level is not searched
        {"orders", {"n-post"}},             // URL, case-insensitive
        {"api.test", {"n-post", "n-get"}},  // an event's payload is not searched
        {"checkout", {"e-1"}},
        {"commerce", {}},  // nor its category
        {"form", {"l-post"}},
        {"upload", {}},  // nor a log's category, file or subsystem
        {"app.forms", {}},
        {"200", {}},             // nor the response
        {" failed", {"l-err"}},  // used as typed, not trimmed
        {"failed ", {}},
        {"https://api.test/users ", {}},
    };
    for (const Case& c : cases) {
        list.setSearchText(c.search);
        EXPECT_EQ(ids(list.filtered()), c.shown) << "'" << c.search << "'";
    }
}

TEST_F(RequestsListTest, RowsShowTitleTagsKindAndColour) {
    const Color clear = colors::clear;
    const Color error{0.956863, 0.278431, 0.278431};
    const Color warn{1.0, 0.584314, 0.0};
    const Color info{0.0, 0.478431, 1.0};
    const Color debug{0.415686, 0.6, 0.333333};
    const Color other{0.368627, 0.72549, 1.0};
    auto text = [](std::string t) {
        return RowTag{std::move(t), RowTag::Style::text, withOpacity(colors::secondary, 0.1)};
    };
    auto method = [](std::string t, Color c) {
        return RowTag{std::move(t), RowTag::Style::method, c};
    };
    struct Case {
        RequestEventType item;
        std::string title;
        std::vector<RowTag> tags;
        std::string kind;
        Color colour;  // before the 0.1 opacity
    };
    const std::vector<Case> cases = {
        {network("1", "https://a.test/x", "GET", 200),
         "https://a.test/x",
         {method("GET", colors::blue), text(" 200")},
         "network",
         clear},
        {network("2", "https://a.test/x", "get"),
         "https://a.test/x",
         {method("get", colors::blue), text(" 0")},
         "network",
         clear},  // waiting: " 0"
        {network("3", "u", "post", 500),
         "u",
         {method("post", colors::green), text(" 500")},
         "network",
         clear},
        {network("4", "u", "PUT", 204),
         "u",
         {method("PUT", colors::orange), text(" 204")},
         "network",
         clear},
        {network("5", "u", "Delete", 204),
         "u",
         {method("Delete", colors::red), text(" 204")},
         "network",
         clear},
        {network("6", "u", "PATCH", 204),
         "u",
         {method("PATCH", colors::purple), text(" 204")},
         "network",
         clear},
        {network("7", "u", "OPTIONS", 204),
         "u",
         {method("OPTIONS", colors::gray), text(" 204")},
         "network",
         clear},
        {network("8", std::nullopt), "", {method("", colors::gray), text(" 0")}, "network", clear},
        {log("9", "boom", "ERROR", "main.cc", "app", "db", 12),
         "boom",
         {text("📂 main.cc:12"), text("app"), text("🏷️ db")},
         "log",
         error},
        {log("10", "careful", "warn"), "careful", {}, "log", warn},  // no file, subsystem, category
        {log("11", "careful", "Warning"), "careful", {}, "log", other},  // only "warn" is known
        {log("12", "hello", "Info", "", "", "ui"), "hello", {text("🏷️ ui")}, "log", info},
        {log("13", "x", "debug", "", "sub"), "x", {text("sub")}, "log", debug},
        {log("14", "x", "fault"), "x", {}, "log", other},
        {event("15", "Signed In", "account"),
         "Signed In",
         {text("🏷️ account")},
         "event",
         other},
        {event("16", "Signed In"), "Signed In", {}, "event", other},
        {log("17", "first line\nsecond line"), "first line…", {}, "log", info},
    };
    for (const Case& c : cases) {
        const RequestRowContent row = rowContent(c.item);
        EXPECT_EQ(row.title, c.title) << c.item.id();
        EXPECT_EQ(row.tags, c.tags) << c.item.id();
        EXPECT_EQ(row.kind, c.kind) << c.item.id();
        EXPECT_EQ(rowBackgroundColor(c.item), c.colour) << c.item.id();
        EXPECT_EQ(row.background, withOpacity(c.colour, 0.1)) << c.item.id();
    }
    // A long title is cut at a character, not inside one.
    const RequestRowContent longRow =
        rowContent(log("18", std::string(399, 'a') + "é" + std::string(5000, 'b')));
    EXPECT_EQ(longRow.title, std::string(399, 'a') + "…");
}

TEST_F(RequestsListTest, RowTimeIsTheCreationTimeOfDayInTheLocalZone) {
    icu::TimeZone* saved = icu::TimeZone::createDefault();
    icu::TimeZone::adoptDefault(icu::TimeZone::createTimeZone("Europe/Berlin"));
    resetLocalTimeFormatters();
    EXPECT_EQ(rowContent(log("1", "x")).time, "14:34:56.250");
    icu::TimeZone::adoptDefault(saved);
    resetLocalTimeFormatters();
}

TEST_F(RequestsListTest, TheListFollowsTheStoreWhileSearching) {
    store_->add(network("a", "https://api.test/users", "GET"));
    RequestsListModel list(*store_, clipboard_, toasts_);
    EXPECT_EQ(list.rowCount(), 1u) << "rows are there before the main queue runs";
    list.setSearchText("users");
    store_->add(log("b", "users loaded"));
    store_->add(log("c", "nothing to see"));
    runMainQueue();
    EXPECT_EQ(ids(list.filtered()), (std::vector<std::string>{"b", "a"}));
    EXPECT_EQ(list.totalCount(), 3u);

    // The response replaces the request's item; it moves to the front.
    auto done = network("a", "https://api.test/users", "GET", 200);
    store_->update("a", done);
    runMainQueue();
    EXPECT_EQ(ids(list.filtered()), (std::vector<std::string>{"a", "b"}));
    EXPECT_EQ(rowContent(list.item(0)).tags[1].text, " 200");

    // Deleting while a search is active removes the row at once (on the next delivery).
    list.deleteItem("b");
    runMainQueue();
    EXPECT_EQ(ids(list.filtered()), (std::vector<std::string>{"a"}));

    store_->deleteAll();
    runMainQueue();
    EXPECT_EQ(list.rowCount(), 0u);
    list.setSearchText("");
    EXPECT_EQ(list.rowCount(), 0u);
}

TEST_F(RequestsListTest, DetailsOfADeletedItemStayOpenAndSayItIsGone) {
    store_->add(log("a", "one"));
    store_->add(log("b", "two"));
    RequestsListModel list(*store_, clipboard_, toasts_);
    list.select(0);
    ASSERT_NE(list.details(), nullptr);
    EXPECT_EQ(list.details()->item().id(), "b");
    EXPECT_TRUE(list.selectedItemIsListed());
    store_->add(log("c", "three"));
    runMainQueue();
    EXPECT_TRUE(list.selectedItemIsListed());
    list.deleteItem("b");
    runMainQueue();
    EXPECT_FALSE(list.selectedItemIsListed());
    EXPECT_EQ(list.details()->item().id(), "b") << "the details keep their copy";
    list.dismissDetails();
    EXPECT_EQ(list.details(), nullptr);
}

TEST_F(RequestsListTest, ExportHARWritesTheExchangesInViewAndCopyAsCurlTheRequest) {
    store_->add(network("old", "https://api.test/users?page=1", "GET", 200));
    store_->add(log("l", "users loaded"));
    store_->add(network("new", "https://api.test/users/7", "DELETE", 204));
    store_->add(network("other", "https://other.test/", "GET", 200));
    RequestsListModel list(*store_, clipboard_, toasts_);
    list.setSearchText("api.test");
    // Written on a worker; the toast and the callback come on the main queue.
    std::vector<std::optional<std::filesystem::path>> results;
    const auto exportNow = [&](const std::filesystem::path& directory) {
        const std::size_t before = results.size();
        list.exportHAR(directory, [&](auto path) { results.push_back(std::move(path)); });
        EXPECT_TRUE(MainQueue::shared().runUntil([&] { return results.size() > before; },
                                                 std::chrono::seconds(30)));
        EXPECT_FALSE(list.isExporting());
        return results.size() > before ? results.back() : std::nullopt;
    };
    const auto path = exportNow(dir_);
    ASSERT_TRUE(path);
    EXPECT_EQ(path->parent_path(), dir_);
    EXPECT_TRUE(path->filename().string().starts_with("kestro-"));
    EXPECT_EQ(path->extension(), ".har");
    ASSERT_TRUE(toasts_.currentToast());
    EXPECT_EQ(*toasts_.currentToast(), "HAR saved to " + path->string());
    // The rows in view, oldest first; logs are not exchanges.
    std::ifstream in(*path);
    const auto har = boost::json::parse(std::string(std::istreambuf_iterator<char>(in), {}));
    std::vector<std::string> exported;
    for (const auto& entry : har.at("log").at("entries").as_array()) {
        exported.emplace_back(entry.at("_kestroId").as_string());
    }
    EXPECT_EQ(exported, (std::vector<std::string>{"old", "new"}));

    // Nothing to export, and a directory that cannot take the file: the toast says so.
    list.setSearchText("users loaded");
    EXPECT_FALSE(exportNow(dir_));
    EXPECT_EQ(*toasts_.currentToast(), "No exchanges in the list to export");
    list.setSearchText("");
    EXPECT_FALSE(exportNow(dir_ / "missing"));
    EXPECT_EQ(*toasts_.currentToast(), "The HAR file could not be written");

    // A list closed while its file is written: the file is made, no toast is left behind.
    toasts_.show("before");
    std::optional<std::filesystem::path> written;
    bool finished = false;
    {
        RequestsListModel closing(*store_, clipboard_, toasts_);
        closing.exportHAR(dir_, [&](auto path) {
            written = std::move(path);
            finished = true;
        });
        EXPECT_TRUE(closing.isExporting());
        closing.exportHAR(dir_, [&](auto) { ADD_FAILURE() << "one export at a time"; });
    }
    ASSERT_TRUE(MainQueue::shared().runUntil([&] { return finished; }, std::chrono::seconds(30)));
    ASSERT_TRUE(written);
    EXPECT_TRUE(std::filesystem::exists(*written));
    EXPECT_EQ(*toasts_.currentToast(), "before");

    // Copy as cURL from the details of an exchange; a log has no request to repeat.
    list.setSearchText("users/7");
    list.select(0);
    ASSERT_TRUE(list.details()->canCopyCurl());
    list.details()->copyCurl();
    EXPECT_EQ(clipboard_.string(), "curl -X 'DELETE' 'https://api.test/users/7'");
    EXPECT_EQ(*toasts_.currentToast(), "Copied to clipboard");
    list.setSearchText("users loaded");
    list.select(0);
    EXPECT_FALSE(list.details()->canCopyCurl());
    const std::size_t copies = clipboard_.copies.size();
    list.details()->copyCurl();
    EXPECT_EQ(clipboard_.copies.size(), copies);
}

// Random adds, replacements and deletions, with and without a search: the index must always
// give what a plain scan of the store's list with the search rule gives.
TEST_F(RequestsListTest, TheIndexAgreesWithAPlainScanThroughRandomChanges) {
    std::mt19937 random(7);
    const std::vector<std::string> words = {"Users", "straße", "GET", "post", "Ärger", "x"};
    auto pick = [&] { return words[random() % words.size()]; };
    RequestsListModel list(*store_, clipboard_, toasts_);
    std::vector<std::string> live;
    for (int step = 0; step < 600; ++step) {
        const int op = static_cast<int>(random() % 10);
        const std::string id = "id-" + std::to_string(random() % 150);
        if (op < 6) {
            switch (random() % 3) {
                case 0:
                    store_->add(network(id, "https://t/" + pick(), pick()));
                    break;
                case 1:
                    store_->add(log(id, pick() + " " + pick()));
                    break;
                default:
                    store_->add(event(id, pick()));
                    break;
            }
        } else if (op < 8) {
            store_->update(id, network(id, "https://t/" + pick(), "GET", 200));
        } else if (op < 9) {
            store_->deleteById(id);
        } else if (random() % 20 == 0) {
            store_->deleteAll();
        }
        if (step % 7 == 0) runMainQueue();
        if (step % 5 == 0) list.setSearchText(random() % 3 == 0 ? "" : pick().substr(0, 3));
        if (step % 7 != 0) continue;
        std::vector<std::string> expected;
        for (const auto& item : store_->requests()) {
            std::string searched = rowTitle(item);
            bool match = localizedCaseInsensitiveContains(searched, list.searchText());
            if (const auto* r = item.asNetworkRequest(); r && r->details.request) {
                match = match || localizedCaseInsensitiveContains(r->details.request->method,
                                                                  list.searchText());
            }
            if (list.searchText().empty() || match) expected.push_back(item.id());
        }
        ASSERT_EQ(ids(list.filtered()), expected) << "step " << step;
    }
}

}  // namespace
}  // namespace kestro
