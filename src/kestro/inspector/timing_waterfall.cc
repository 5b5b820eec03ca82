#include "kestro/inspector/timing_waterfall.h"

#include <fmt/format.h>

#include <cmath>

namespace kestro {
namespace {

double duration(double ms) { return std::isfinite(ms) && ms > 0 ? ms : 0; }

}  // namespace

TimingWaterfall timingWaterfall(const RequestTypeRequestTimings& timings) {
    struct Phase {
        const char* label;
        double ms;
        Color color;
    };
    const Phase phases[] = {
        {"Name lookup", duration(timings.nameLookup), colors::purple},
        {"Connect", duration(timings.connect), colors::orange},
        {"TLS", duration(timings.tls), colors::red},
        {"First byte", duration(timings.firstByte), colors::green},
        {"Transfer", duration(timings.transfer), colors::blue},
    };
    TimingWaterfall w;
    for (const Phase& p : phases) w.totalMs += p.ms;
    double offset = 0;
    for (const Phase& p : phases) {
        WaterfallSegment s;
        s.label = p.label;
        s.offsetMs = offset;
        s.durationMs = p.ms;
        if (w.totalMs > 0) {
            s.offsetFraction = offset / w.totalMs;
            s.widthFraction = p.ms / w.totalMs;
        }
        s.color = p.color;
        s.durationText = fmt::format("{:.2f} ms", p.ms);
        w.segments.push_back(std::move(s));
        offset += p.ms;
    }
    w.totalText = fmt::format("Total {:.2f} ms", w.totalMs);
    return w;
}

std::string truncatedBodyText(std::int64_t totalBytes) {
    // Grouped by hand: fmt's "L" takes the global C++ locale, which a host may have set to
    // anything.
    const std::uint64_t magnitude = totalBytes < 0 ? 0 - static_cast<std::uint64_t>(totalBytes)
                                                   : static_cast<std::uint64_t>(totalBytes);
    const std::string digits = std::to_string(magnitude);
    std::string grouped;
    for (std::size_t i = 0; i < digits.size(); ++i) {
        if (i > 0 && (digits.size() - i) % 3 == 0) grouped += ',';
        grouped += digits[i];
    }
    return fmt::format("truncated: {}{} bytes in all", totalBytes < 0 ? "-" : "", grouped);
}

}  // namespace kestro
