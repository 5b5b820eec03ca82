#include <gtest/gtest.h>

#include "kestro/logging/kestro_logger.h"
#include "support/console_capture.h"
#include "support/wait.h"

namespace kestro {
namespace {

struct Entry {
    OSLogType type;
    std::string subsystem, category, message, file;
    std::int64_t line;
};

class RecordingSink : public SystemLogSink {
public:
    explicit RecordingSink(std::set<OSLogType> disabled = {}) : disabled_(std::move(disabled)) {}
    bool isEnabled(OSLogType type) const override { return !disabled_.count(type); }
    void write(OSLogType type, std::string_view subsystem, std::string_view category,
               std::string_view message, std::string_view file, std::int64_t line) override {
        entries.add({type, std::string(subsystem), std::string(category), std::string(message),
                     std::string(file), line});
    }
    test::Recorder<Entry> entries;

private:
    std::set<OSLogType> disabled_;
};

class KestroLoggerTest : public ::testing::Test {
protected:
    void SetUp() override {
        PrintInterceptor::flush();
        PrintInterceptor::startIntercepting([this](const RequestTypeLog& r) { records.add(r); });
    }
    void TearDown() override {
        PrintInterceptor::stopIntercepting();
        PrintInterceptor::flush();
        setSystemLogSink(nullptr);
    }
    test::Recorder<RequestTypeLog> records;
};

TEST_F(KestroLoggerTest, EveryMethodWritesItsTypeAndPrivacyAndCapturesItsLevel) {
    auto sink = std::make_shared<RecordingSink>();
    setSystemLogSink(sink);
    const KestroLogger log("com.example.app", "network");
    test::ConsoleCapture console;
    log.l(OSLogType::default_, "m-l");
    log.i("m-i");
    log.i(OSLogPrivacy::privateValue, "m-ip");
    log.w("m-w");
    log.d("m-d");
    log.e("m-e");
    log.n("m-n");
    log.f("m-f");
    log.c("m-c");
    log.t("m-t", 2);
    ASSERT_TRUE(sink->entries.waitFor(10));
    ASSERT_TRUE(records.waitFor(10));

    std::vector<std::pair<OSLogType, std::string>> journal;
    for (const auto& e : sink->entries.values()) {
        journal.emplace_back(e.type, e.message);
        EXPECT_EQ(e.subsystem, "com.example.app");
        EXPECT_EQ(e.category, "network");
        EXPECT_EQ(e.file.substr(e.file.rfind('/') + 1), "kestro_logger_test.cc");
    }
    const std::vector<std::pair<OSLogType, std::string>> expected = {
        {OSLogType::default_, "m-l"}, {OSLogType::info, "m-i"},     {OSLogType::info, "m-ip"},
        {OSLogType::error, "<private>"}, {OSLogType::debug, "<private>"}, {OSLogType::error, "<private>"},
        {OSLogType::default_, "<private>"}, {OSLogType::fault, "<private>"},
        {OSLogType::fault, "<private>"}, {OSLogType::debug, "<private>"}};
    EXPECT_EQ(journal, expected);

    std::map<std::string, std::string> levelOf;
    for (const auto& r : records.values()) {
        levelOf[r.details.message] = r.level;
        EXPECT_EQ(r.details.subsystem, "com.example.app");
        EXPECT_EQ(r.details.category, "network");
    }
    EXPECT_EQ(levelOf, (std::map<std::string, std::string>{
                           {"m-l", "log"}, {"m-i", "info"}, {"m-ip", "info"}, {"m-w", "warn"},
                           {"m-d", "debug"}, {"m-e", "error"}, {"m-n", "notice"}, {"m-f", "fault"},
                           {"m-c", "critical"}, {"m-t 2", "trace"}}));
    // The console keeps private messages in full.
    EXPECT_NE(console.text().find("] m-w\n"), std::string::npos);
}

TEST_F(KestroLoggerTest, DisabledTypeStillPrintsAndCaptures) {
    auto sink = std::make_shared<RecordingSink>(std::set<OSLogType>{OSLogType::debug});
    setSystemLogSink(sink);
    const KestroLogger log("s", "c");
    test::ConsoleCapture console;
    log.d("quiet");
    log.e("loud");
    ASSERT_TRUE(records.waitFor(2));
    ASSERT_TRUE(sink->entries.waitFor(1));
    EXPECT_EQ(sink->entries.size(), 1u);
    EXPECT_EQ(sink->entries.values()[0].type, OSLogType::error);
    EXPECT_NE(console.text().find("] quiet\n"), std::string::npos);
}

TEST_F(KestroLoggerTest, JournalPrioritiesAndTheRealJournalNeverFail) {
    EXPECT_EQ(journalPriority(OSLogType::debug), 7);
    EXPECT_EQ(journalPriority(OSLogType::info), 6);
    EXPECT_EQ(journalPriority(OSLogType::default_), 5);
    EXPECT_EQ(journalPriority(OSLogType::error), 3);
    EXPECT_EQ(journalPriority(OSLogType::fault), 2);
    // With the real journal (reachable or not) a call prints and captures as usual.
    const KestroLogger log("s", "c");
    test::ConsoleCapture console;
    log.f(At{"/a/b.cc", 5}, "to the journal");
    ASSERT_TRUE(records.waitFor(1));
    EXPECT_EQ(records.values()[0].details.file, "b.cc");
    EXPECT_NE(console.text().find("[b.cc:5] to the journal"), std::string::npos);
}

}  // namespace
}  // namespace kestro
