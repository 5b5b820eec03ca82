#include "kestro/logging/kestro_logger.h"

#include <systemd/sd-journal.h>

#include <atomic>

#include "kestro/core/console.h"

namespace kestro {
namespace {

class JournalSink final : public SystemLogSink {
public:
    explicit JournalSink(int maxPriority) : maxPriority_(maxPriority) {}

    bool isEnabled(OSLogType type) const override { return journalPriority(type) <= maxPriority_; }

    void write(OSLogType type, std::string_view subsystem, std::string_view category,
               std::string_view message, std::string_view file, std::int64_t line) override {
        // A journal that cannot be reached (no journald, a container) is not an error for the
        // host: the console line and the capture still happen.
        sd_journal_send("MESSAGE=%.*s", static_cast<int>(message.size()), message.data(),
                        "PRIORITY=%d", journalPriority(type), "KESTRO_SUBSYSTEM=%.*s",
                        static_cast<int>(subsystem.size()), subsystem.data(),
                        "KESTRO_CATEGORY=%.*s", static_cast<int>(category.size()),
                        category.data(), "CODE_FILE=%.*s", static_cast<int>(file.size()),
                        file.data(), "CODE_LINE=%lld", static_cast<long long>(line), nullptr);
    }

private:
    int maxPriority_;
};

std::atomic<std::shared_ptr<SystemLogSink>>& sinkSlot() {
    static auto* slot = new std::atomic<std::shared_ptr<SystemLogSink>>(journalSink());
    return *slot;
}

}  // namespace

int journalPriority(OSLogType type) {
    switch (type) {
        case OSLogType::debug: return 7;
        case OSLogType::info: return 6;
        case OSLogType::default_: return 5;
        case OSLogType::error: return 3;
        case OSLogType::fault: return 2;
    }
    return 5;
}

std::shared_ptr<SystemLogSink> journalSink(int maxPriority) {
    return std::make_shared<JournalSink>(maxPriority);
}

void setSystemLogSink(std::shared_ptr<SystemLogSink> sink) {
    sinkSlot().store(sink ? std::move(sink) : journalSink());
}

void KestroLogger::writeSystemLog(OSLogType type, bool isPublic, const std::string& message,
                                  std::string_view file, std::int64_t line) const noexcept {
    try {
        std::shared_ptr<SystemLogSink> sink = sinkSlot().load();
        if (!sink || !sink->isEnabled(type)) return;
        sink->write(type, subsystem_, category_, isPublic ? std::string_view(message) : "<private>",
                    file, line);
    } catch (const std::exception& e) {
        printI(std::string("❌ The system log sink failed: ") + e.what(), LogLevel::error);
    } catch (...) {
        printI("❌ The system log sink failed", LogLevel::error);
    }
}

}  // namespace kestro
