#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "kestro/core/export.h"
#include "kestro/inspector/color.h"
#include "kestro/records/records.h"

namespace kestro {

/// One phase of an exchange as a bar of the waterfall: where it starts after the exchange began
/// and how long it lasts, both in milliseconds and as fractions of the whole exchange, so that a
/// drawing only scales them to its width.
struct WaterfallSegment {
    std::string label;  // "Name lookup", "Connect", "TLS", "First byte", "Transfer"
    double offsetMs = 0;
    double durationMs = 0;
    double offsetFraction = 0;  // 0 to 1 of totalMs
    double widthFraction = 0;   // 0 to 1 of totalMs
    Color color;
    std::string durationText;  // "%.2f ms"
};

/// The phases of a real exchange, one after the other in the order they happen. Every phase has
/// its row, so a phase that did not happen (a reused connection's lookup, TLS over plain HTTP)
/// reads "0.00 ms" with no bar. Values that cannot be durations (negative, not finite: a clock
/// that jumped, a record made elsewhere) count as 0, so the bars always fit.
struct TimingWaterfall {
    std::vector<WaterfallSegment> segments;
    double totalMs = 0;
    std::string totalText;  // "Total %.2f ms"
};

KESTRO_API TimingWaterfall timingWaterfall(const RequestTypeRequestTimings& timings);

/// What the screens say where a captured body was cut: "truncated: N bytes in all", N being the
/// whole body's size with thousands separators.
KESTRO_API std::string truncatedBodyText(std::int64_t totalBytes);

}  // namespace kestro
