#include "kestro/core/time_text.h"

#include <cmath>
#include <ctime>

namespace kestro {
namespace {

void twoDigits(char* out, int v) {
    out[0] = static_cast<char>('0' + v / 10);
    out[1] = static_cast<char>('0' + v % 10);
}

// Floor division so that times before 1970 split into a second and a non-negative fraction.
std::pair<std::int64_t, int> splitMillis(TimePoint t) {
    const auto ms =
        std::chrono::duration_cast<std::chrono::milliseconds>(t.time_since_epoch()).count();
    std::int64_t sec = ms / 1000;
    int frac = static_cast<int>(ms % 1000);
    if (frac < 0) {
        frac += 1000;
        --sec;
    }
    return {sec, frac};
}

}  // namespace

void timeOfDayTo(TimePoint t, char out[13]) {
    auto [sec, millis] = splitMillis(t);
    std::int64_t secOfDay = sec % 86400;
    if (secOfDay < 0) secOfDay += 86400;
    const int h = static_cast<int>(secOfDay / 3600);
    const int m = static_cast<int>(secOfDay / 60 % 60);
    const int s = static_cast<int>(secOfDay % 60);
    twoDigits(out, h);
    out[2] = ':';
    twoDigits(out + 3, m);
    out[5] = ':';
    twoDigits(out + 6, s);
    out[8] = '.';
    out[9] = static_cast<char>('0' + millis / 100);
    out[10] = static_cast<char>('0' + millis / 10 % 10);
    out[11] = static_cast<char>('0' + millis % 10);
    out[12] = 'Z';
}

std::string timeOfDay(TimePoint t) {
    char buf[13];
    timeOfDayTo(t, buf);
    return std::string(buf, sizeof buf);
}

std::string iso8601WithMilliseconds(TimePoint t) {
    auto [sec, millis] = splitMillis(t);
    std::time_t tt = static_cast<std::time_t>(sec);
    std::tm tm{};
    gmtime_r(&tt, &tm);
    char buf[64];
    std::snprintf(buf, sizeof buf, "%04d-%02d-%02dT%02d:%02d:%02d.%03dZ", tm.tm_year + 1900,
                  tm.tm_mon + 1, tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec, millis);
    return buf;
}

double secondsSince1970(TimePoint t) {
    const auto us =
        std::chrono::duration_cast<std::chrono::microseconds>(t.time_since_epoch()).count();
    return static_cast<double>(us) / 1e6;
}

TimePoint fromSecondsSince1970(double seconds) {
    if (!std::isfinite(seconds)) return TimePoint{};
    // Clamped to the clock's own range (its count is in nanoseconds: the years 1678 to 2262),
    // so that a stored or received time far outside it cannot overflow the conversion.
    using std::chrono::microseconds;
    constexpr std::int64_t kLimit =
        std::chrono::duration_cast<microseconds>(TimePoint::duration::max()).count() - 1;
    auto toCount = [](double us) {
        us = std::round(us);
        if (us >= static_cast<double>(kLimit)) return kLimit;
        if (us <= -static_cast<double>(kLimit)) return -kLimit;
        return static_cast<std::int64_t>(us);
    };
    std::int64_t count = toCount(seconds * 1e6);
    // Up to 2^31 seconds (the year 2038) a double of seconds holds every microsecond, so a time
    // comes back from secondsSince1970() unchanged. Beyond, its step nears and then passes a
    // microsecond (0.95 µs at 2^32 seconds, 1.9 µs at 2^33), and a time could move by one on
    // each trip through a record's dictionary: it is moved at once to a nearby microsecond that
    // the trip gives back (at most a handful of steps away).
    if (std::abs(seconds) >= 2147483648.0) {
        for (int step = 0; step < 16; ++step) {
            const std::int64_t back = toCount(static_cast<double>(count) / 1e6 * 1e6);
            if (back == count) break;
            count = back;
        }
    }
    return TimePoint{std::chrono::duration_cast<TimePoint::duration>(microseconds(count))};
}

}  // namespace kestro
