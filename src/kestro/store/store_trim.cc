#include "kestro/store/store_trim.h"

#include <algorithm>
#include <chrono>

namespace kestro::store::internal {

namespace {

double ageLimitSeconds(const StoreRetention& limits) {
    return std::chrono::duration<double>(limits.maxAge).count();
}

}  // namespace

bool pastLimits(const StoreRetention& limits, std::int64_t count, double oldestCreatedAt,
                double now, std::uint64_t bytes) {
    if (limits.maxItems > 0 && count > limits.maxItems) return true;
    if (limits.maxAge.count() > 0 && oldestCreatedAt < now - ageLimitSeconds(limits)) return true;
    return limits.maxBytes > 0 && bytes > static_cast<std::uint64_t>(limits.maxBytes);
}

std::size_t itemsToTrim(const StoreRetention& limits, const TrimFacts& facts,
                        std::span<const double> oldestFirst) {
    std::size_t n = 0;
    if (limits.maxItems > 0 && facts.count > limits.maxItems)
        n = static_cast<std::size_t>(facts.count - limits.maxItems);
    if (limits.maxBytes > 0 && facts.bytes > static_cast<std::uint64_t>(limits.maxBytes) &&
        facts.count > 0) {
        // Rows are of different sizes; the average is the estimate, and the next batch measures
        // again, so a trim removes about what the excess needs rather than a whole batch.
        const std::uint64_t perRow =
            std::max<std::uint64_t>(1, facts.rowBytes / static_cast<std::uint64_t>(facts.count));
        const std::uint64_t excess = facts.bytes - static_cast<std::uint64_t>(limits.maxBytes);
        n = std::max<std::size_t>(n, static_cast<std::size_t>((excess + perRow - 1) / perRow));
    }
    if (limits.maxAge.count() > 0) {
        const double cutoff = facts.now - ageLimitSeconds(limits);
        std::size_t old = 0;
        while (old < oldestFirst.size() && oldestFirst[old] < cutoff) ++old;
        n = std::max(n, old);
    }
    return std::min(n, oldestFirst.size());
}

}  // namespace kestro::store::internal
