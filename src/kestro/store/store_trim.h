#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "kestro/core/capture_policy.h"

namespace kestro::store::internal {

/// What a trim knows of the store when it decides. Times are seconds since 1970.
struct TrimFacts {
    std::int64_t count = 0;      // rows stored
    std::uint64_t bytes = 0;     // database file and write-ahead log on disk
    std::uint64_t rowBytes = 0;  // bytes of the database's pages in use (not free)
    double now = 0;
};

/// Whether a store with this many items, whose first stored item has this createdAt, and this
/// many bytes on disk is past any of the limits (0 turns a limit off). Cheap: asked after every
/// add.
bool pastLimits(const StoreRetention& limits, std::int64_t count, double oldestCreatedAt,
                double now, std::uint64_t bytes);

/// How many of the items stored first (their createdAt in `oldestFirst`, in the order they were
/// stored, as many as one batch may take) to remove so that the store comes within the limits:
/// the items beyond maxItems, those older than maxAge up to the first that is not, and, over
/// maxBytes, about as many as hold the excess bytes (at least one). The items removed are always
/// a prefix of `oldestFirst`: an item is never removed while one stored before it stays. Items
/// dated after `now` (a clock that was set back) are never too old, and hold back the age limit
/// for the items stored after them until they are.
std::size_t itemsToTrim(const StoreRetention& limits, const TrimFacts& facts,
                        std::span<const double> oldestFirst);

}  // namespace kestro::store::internal
