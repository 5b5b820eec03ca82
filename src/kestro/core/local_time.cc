#include "kestro/core/local_time.h"

#include <unicode/smpdtfmt.h>
#include <unicode/unistr.h>

#include <memory>
#include <unordered_map>

namespace kestro {
namespace {

struct Formatters {
    std::unordered_map<std::string, std::unique_ptr<icu::SimpleDateFormat>> byPattern;
};

Formatters& threadFormatters() {
    thread_local Formatters formatters;
    return formatters;
}

}  // namespace

std::string formatLocalTime(TimePoint t, std::string_view icuPattern) {
    auto& cache = threadFormatters().byPattern;
    auto it = cache.find(std::string(icuPattern));
    if (it == cache.end()) {
        UErrorCode status = U_ZERO_ERROR;
        auto format = std::make_unique<icu::SimpleDateFormat>(
            icu::UnicodeString::fromUTF8(
                icu::StringPiece(icuPattern.data(), static_cast<int32_t>(icuPattern.size()))),
            status);
        if (U_FAILURE(status)) return {};
        it = cache.emplace(std::string(icuPattern), std::move(format)).first;
    }
    // Whole milliseconds, rounded down, so that ".SSS" truncates as a clock reading does.
    const auto millis = std::chrono::floor<std::chrono::milliseconds>(t.time_since_epoch());
    icu::UnicodeString text;
    it->second->format(static_cast<UDate>(millis.count()), text);
    std::string out;
    text.toUTF8String(out);
    return out;
}

void resetLocalTimeFormatters() { threadFormatters().byPattern.clear(); }

}  // namespace kestro
