#include "kestro/logging/print_interceptor.h"

#include <gtest/gtest.h>

#include <future>
#include <mutex>
#include <regex>
#include <set>
#include <thread>

#include "kestro/core/console.h"
#include "kestro/facade/kestro_internal.h"
#include "kestro/logging/kestro_logger.h"
#include "support/console_capture.h"
#include "support/wait.h"

namespace kestro {
namespace {

struct ThrowsWhenFormatted {};
std::ostream& operator<<(std::ostream&, const ThrowsWhenFormatted&) {
    throw std::runtime_error("no description");
}

// Keeps what KestroLogger writes to the system log.
class RecordingSink : public SystemLogSink {
  public:
    bool isEnabled(OSLogType) const override { return true; }
    void write(OSLogType type, std::string_view subsystem, std::string_view,
               std::string_view message, std::string_view, std::int64_t) override {
        entries.add({type, std::string(subsystem), std::string(message)});
    }
    struct Entry {
        OSLogType type;
        std::string subsystem, message;
    };
    test::Recorder<Entry> entries;
};
using Entry = RecordingSink::Entry;

class PrintInterceptorTest : public ::testing::Test {
  protected:
    void SetUp() override {
        PrintInterceptor::stopIntercepting();
        ASSERT_TRUE(PrintInterceptor::flush());
    }
    void TearDown() override {
        PrintInterceptor::stopIntercepting();
        PrintInterceptor::flush();
        PrintInterceptor::setQueueFullWait(std::chrono::milliseconds(100));
        setSystemLogSink(nullptr);
    }
    void capture() {
        PrintInterceptor::startIntercepting([this](const RequestTypeLog& r) { records.add(r); });
    }
    test::Recorder<RequestTypeLog> records;
};

std::string stampPattern() { return R"(\[\d\d:\d\d:\d\d\.\d{3}Z\] )"; }

TEST_F(PrintInterceptorTest, ConsoleLineAndRecordOfOneCall) {
    capture();
    test::ConsoleCapture console;
    const auto line = __LINE__ + 1;
    PrintInterceptor::log(
        {.level = "notice", .subsystem = "com.app", .category = "net", .separator = ","}, 7, "word",
        std::string("has space"));
    ASSERT_TRUE(records.waitFor(1));
    EXPECT_TRUE(std::regex_match(console.text(),
                                 std::regex(stampPattern() + R"(\[print_interceptor_test\.cc:)" +
                                            std::to_string(line) + R"(\] 7 word has space\n)")))
        << console.text();
    const RequestTypeLog r = records.values().at(0);
    EXPECT_TRUE(std::regex_match(r.id, std::regex("[0-9A-F]{8}(-[0-9A-F]{4}){3}-[0-9A-F]{12}")));
    EXPECT_EQ(r.type, "log");
    EXPECT_EQ(r.level, "notice");
    EXPECT_EQ(r.sentAt, r.createdAt);
    EXPECT_EQ(r.details.message, "7 word has space");
    EXPECT_EQ(r.details.subsystem, "com.app");
    EXPECT_EQ(r.details.category, "net");
    EXPECT_EQ(r.details.file, "print_interceptor_test.cc");
    EXPECT_NE(r.details.filePath.find("tests/logging/print_interceptor_test.cc"),
              std::string::npos);
    EXPECT_EQ(r.details.line, line);
}

TEST_F(PrintInterceptorTest, ExplicitFileAndLineAndEmptyCalls) {
    capture();
    test::ConsoleCapture console;
    PrintInterceptor::log({.level = "fault", .file = "/srv/app/main.swift", .line = 12});
    PrintInterceptor::log({.file = "bare.cc", .line = 3}, "x");
    ASSERT_TRUE(records.waitFor(2));
    const std::string text = console.text();
    EXPECT_TRUE(std::regex_match(text, std::regex(stampPattern() + R"(\[main\.swift:12\] \n)" +
                                                  stampPattern() + R"(\[bare\.cc:3\] x\n)")))
        << text;
    auto all = records.values();
    std::sort(all.begin(), all.end(),
              [](auto& a, auto& b) { return a.details.line > b.details.line; });
    EXPECT_EQ(all[0].details.message, "");
    EXPECT_EQ(all[0].details.filePath, "/srv/app/main.swift");
    EXPECT_EQ(all[0].details.file, "main.swift");
    EXPECT_EQ(all[1].details.filePath, "bare.cc");
    EXPECT_EQ(all[1].details.file, "bare.cc");
}

TEST_F(PrintInterceptorTest, WithoutHandlerOnlyTheConsoleLineIsWritten) {
    const auto before = PrintInterceptor::stats();
    test::ConsoleCapture console;
    PrintInterceptor::log({}, "alone");
    EXPECT_NE(console.text().find("] alone\n"), std::string::npos);
    EXPECT_TRUE(PrintInterceptor::flush());
    EXPECT_EQ(PrintInterceptor::stats().delivered, before.delivered);
}

TEST_F(PrintInterceptorTest, ThrowingFormatterAndHandlerStayInside) {
    test::ConsoleCapture console;
    PrintInterceptor::log({}, "before", ThrowsWhenFormatted{});
    std::string text = console.text();
    EXPECT_NE(text.find("❌ A log call at print_interceptor_test.cc:"), std::string::npos) << text;
    EXPECT_NE(text.find("no description"), std::string::npos);
    EXPECT_EQ(text.find("] before"), std::string::npos);  // no half-written line

    PrintInterceptor::startIntercepting(
        [](const RequestTypeLog&) { throw std::logic_error("bad handler"); });
    console.clear();
    PrintInterceptor::log({}, "to a throwing handler");
    ASSERT_TRUE(PrintInterceptor::flush());
    text = console.text();
    EXPECT_NE(text.find("❌ The log handler threw: bad handler"), std::string::npos) << text;
}

TEST_F(PrintInterceptorTest, ManyThreadsEveryRecordDeliveredOnce) {
    constexpr int kThreads = 8, kPerThread = 20000;
    std::mutex mutex;
    std::set<std::string> ids;
    std::vector<int> perThread(kThreads, 0);
    std::atomic<int> delivered{0};
    PrintInterceptor::startIntercepting([&](const RequestTypeLog& r) {
        std::lock_guard lock(mutex);
        ids.insert(r.id);
        perThread.at(std::stoi(r.details.category))++;
        ++delivered;
    });
    // Producers may outrun the handler on a loaded machine: let them wait for room rather
    // than drop, so that every record must arrive.
    PrintInterceptor::setQueueFullWait(std::chrono::seconds(30));
    const auto before = PrintInterceptor::stats();
    {
        test::ConsoleSilence silence;
        std::vector<std::thread> threads;
        for (int t = 0; t < kThreads; ++t) {
            threads.emplace_back([t] {
                const std::string category = std::to_string(t);
                for (int i = 0; i < kPerThread; ++i)
                    PrintInterceptor::log({.category = category}, "line", i);
            });
        }
        for (auto& th : threads) th.join();
        ASSERT_TRUE(PrintInterceptor::flush(std::chrono::seconds(60)));
    }
    const auto after = PrintInterceptor::stats();
    EXPECT_EQ(after.dropped - before.dropped, 0u);
    EXPECT_EQ(delivered.load(), kThreads * kPerThread);
    EXPECT_EQ(ids.size(), static_cast<std::size_t>(kThreads * kPerThread));
    for (int t = 0; t < kThreads; ++t) EXPECT_EQ(perThread[t], kPerThread);
}

TEST_F(PrintInterceptorTest, FullQueueDropsCountsAndReports) {
    PrintInterceptor::setQueueFullWait(std::chrono::milliseconds(0));
    std::promise<void> open;
    std::shared_future<void> gate = open.get_future().share();
    std::atomic<int> delivered{0};
    PrintInterceptor::startIntercepting([&](const RequestTypeLog&) {
        gate.wait();  // hold the drainer until the queue has overflowed
        ++delivered;
    });
    const auto before = PrintInterceptor::stats();
    const int extra = 100;
    const int total = static_cast<int>(PrintInterceptor::queueCapacity()) + extra;
    test::ConsoleCapture console;
    {
        for (int i = 0; i < total; ++i) PrintInterceptor::log({}, i);
    }
    open.set_value();
    ASSERT_TRUE(PrintInterceptor::flush(std::chrono::seconds(30)));
    const auto after = PrintInterceptor::stats();
    const auto dropped = after.dropped - before.dropped;
    // The drainer holds one record while blocked, so at most capacity + 1 fit.
    EXPECT_GE(dropped, static_cast<std::uint64_t>(extra - 1));
    EXPECT_EQ(static_cast<std::uint64_t>(delivered.load()) + dropped,
              static_cast<std::uint64_t>(total));
    const std::string text = console.text();
    EXPECT_NE(text.find("⚠️ Log capture dropped"), std::string::npos);
    // Every console line was written even for dropped records.
    EXPECT_NE(text.find("] " + std::to_string(total - 1) + "\n"), std::string::npos);
}

// Handlers swapped while another thread logs: once a swap returns, the handler it replaced is
// never called again (each handler checks that it may still run); no record reaches a handler
// twice; and after the last swap every record reaches the last handler.
TEST_F(PrintInterceptorTest, HandlerCanBeSwappedWhileLogging) {
    std::atomic<bool> aMayRun{false}, bMayRun{false}, stop{false};
    std::atomic<int> late{0}, finals{0};
    std::mutex idsMutex;
    std::set<std::string> ids;
    int duplicates = 0;
    auto handler = [&](std::atomic<bool>& mayRun) {
        return [&](const RequestTypeLog& r) {
            if (!mayRun.load()) ++late;
            if (r.details.message == "final") ++finals;
            std::lock_guard lock(idsMutex);
            duplicates += ids.insert(r.id).second ? 0 : 1;
        };
    };
    test::ConsoleSilence silence;
    std::thread logger([&] {
        for (int i = 0; i < 20000; ++i) PrintInterceptor::log({}, i);
        stop = true;
    });
    // Swaps go on for as long as the other thread logs.
    for (int i = 0; i < 1000000 && !stop; ++i) {
        aMayRun = true;
        PrintInterceptor::startIntercepting(handler(aMayRun));
        bMayRun = false;  // replaced: b may no longer run
        PrintInterceptor::stopIntercepting();
        aMayRun = false;
        bMayRun = true;
        PrintInterceptor::startIntercepting(handler(bMayRun));
    }
    logger.join();
    for (int i = 0; i < 100; ++i) PrintInterceptor::log({}, "final");
    ASSERT_TRUE(PrintInterceptor::flush());
    PrintInterceptor::stopIntercepting();
    bMayRun = false;
    EXPECT_EQ(late.load(), 0);
    EXPECT_EQ(duplicates, 0);
    EXPECT_EQ(finals.load(), 100);
}

TEST_F(PrintInterceptorTest, FacadeCallsCarryTheirLevelAndCallerLocation) {
    capture();
    test::ConsoleCapture console;
    KestroInternal& k = Kestro();
    const auto line = __LINE__ + 1;
    k.l("l"), k.i("i"), k.w("w"), k.e("e"), k.n("n"), k.f("f", 1);
    k.i();
    k.w(At{"/x/y.cc", 9}, "explicit");
    ASSERT_TRUE(records.waitFor(8));
    std::map<std::string, std::string> levelOf;
    for (const auto& r : records.values()) {
        levelOf[r.details.message] = r.level;
        if (r.details.message != "explicit") {
            EXPECT_EQ(r.details.line, r.details.message.empty() ? line + 1 : line);
            EXPECT_EQ(r.details.subsystem, "");
            EXPECT_EQ(r.details.category, "");
        } else {
            EXPECT_EQ(r.details.file, "y.cc");
            EXPECT_EQ(r.details.line, 9);
        }
    }
    EXPECT_EQ(levelOf, (std::map<std::string, std::string>{{"l", "info"},
                                                           {"i", "info"},
                                                           {"w", "warn"},
                                                           {"e", "error"},
                                                           {"n", "notice"},
                                                           {"f 1", "fault"},
                                                           {"", "info"},
                                                           {"explicit", "warn"}}));
}

// Each text of the record is well-formed UTF-8, also where two of the caller's texts are
// ill-formed only apart: a message that ends in a lead byte, a category and file that begin
// with its continuation bytes. The console line keeps the caller's bytes.
TEST_F(PrintInterceptorTest, RecordTextsAreRepairedOneByOne) {
    capture();
    test::ConsoleCapture console;
    const std::string fffd = "\xEF\xBF\xBD";
    PrintInterceptor::log({.level = "warn",
                           .category = "\xA9"
                                       "cat",
                           .file = "\x82\xAC/f.cc"},
                          "end \xC3");
    PrintInterceptor::log({.level = "\xE2\x82",
                           .subsystem = "\xAC"
                                        "sub"},
                          "fine");
    ASSERT_TRUE(records.waitFor(2));
    for (const RequestTypeLog& r : records.values()) {
        if (r.details.message == "fine") {
            EXPECT_EQ(r.level, fffd);
            EXPECT_EQ(r.details.subsystem, fffd + "sub");
        } else {
            EXPECT_EQ(r.details.message, "end " + fffd);
            EXPECT_EQ(r.details.category, fffd + "cat");
            EXPECT_EQ(r.details.filePath, fffd + fffd + "/f.cc");
            EXPECT_EQ(r.details.file, "f.cc");
        }
    }
    EXPECT_NE(console.text().find("] end \xC3\n"), std::string::npos);
}

// A null C string or nullptr, as an item or as a call's texts, reads "(null)" at every entry:
// the console lines, the records, the journal entries and the SDK's own print.
TEST_F(PrintInterceptorTest, NullTextsReadNullAtEveryEntry) {
    capture();
    auto sink = std::make_shared<RecordingSink>();
    setSystemLogSink(sink);
    test::ConsoleCapture console;
    const char* none = nullptr;
    char* mutableNone = nullptr;
    const unsigned char* bytes = nullptr;
    KestroInternal& k = Kestro();
    k.l(none), k.i(nullptr), k.w(none, 1), k.e(2, nullptr), k.n(mutableNone), k.f(bytes);
    k.i(At{none, 3}, none);
    PrintInterceptor::log({.level = none, .subsystem = nullptr, .category = none, .file = none},
                          none);
    KestroLogger logger(none, nullptr);
    logger.e(none);
    logger.l(OSLogType::info, nullptr);
    logger.i(OSLogPrivacy::privateValue, none);
    printItems(LogLevel::error, "items:", none, nullptr);
    k.printI(LogLevel::error, "facade items:", none);
    printI(none, LogLevel::error);
    ASSERT_TRUE(records.waitFor(11));
    std::multiset<std::string> messages;
    for (const auto& r : records.values()) messages.insert(r.details.message);
    EXPECT_EQ(messages, (std::multiset<std::string>{"(null)", "(null)", "(null) 1", "2 (null)",
                                                    "(null)", "(null)", "(null)", "(null)",
                                                    "(null)", "(null)", "(null)"}));
    int nullFiles = 0, nullTags = 0, nullLevels = 0;
    for (const auto& r : records.values()) {
        nullFiles += r.details.filePath == "(null)" && r.details.file == "(null)";
        nullTags += r.details.subsystem == "(null)" && r.details.category == "(null)";
        nullLevels += r.level == "(null)";
    }
    EXPECT_EQ(nullFiles, 2);   // At{nullptr} and LogCall{.file = nullptr}
    EXPECT_EQ(nullTags, 4);    // the LogCall and the logger's three calls
    EXPECT_EQ(nullLevels, 1);  // the LogCall
    ASSERT_TRUE(sink->entries.waitFor(3));
    for (const Entry& e : sink->entries.values()) {
        EXPECT_EQ(e.subsystem, "(null)");
        EXPECT_EQ(e.message, e.type == OSLogType::error ? "<private>" : "(null)");
    }
    const std::string text = console.text();
    EXPECT_NE(text.find("] [(null):3] (null)\n"), std::string::npos) << text;
    EXPECT_NE(text.find("] items: (null) (null)\n"), std::string::npos) << text;
    EXPECT_NE(text.find("] facade items: (null)\n"), std::string::npos) << text;
    EXPECT_NE(text.find("] (null)\n"), std::string::npos) << text;
}

}  // namespace
}  // namespace kestro
