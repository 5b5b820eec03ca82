#pragma once

#include <memory>
#include <mutex>
#include <shared_mutex>

namespace kestro::network::internal {

/// An immutable value that readers take a reference to and writers replace whole. Readers
/// hold the shared lock only to copy the pointer, so a read never waits for a writer to build
/// its new value; the old value is released outside the lock.
///
/// (Used instead of std::atomic<std::shared_ptr>, whose lock bit in libstdc++ 12 is invisible
/// to ThreadSanitizer and so reports every concurrent load and store as a race.)
template <typename T>
class Snapshot {
  public:
    explicit Snapshot(std::shared_ptr<T> value = {}) : value_(std::move(value)) {}

    std::shared_ptr<T> load() const {
        std::shared_lock lock(mutex_);
        return value_;
    }
    void store(std::shared_ptr<T> value) {
        {
            std::unique_lock lock(mutex_);
            value_.swap(value);
        }
        // `value` now holds the previous snapshot and lets go of it here, unlocked.
    }

  private:
    mutable std::shared_mutex mutex_;
    std::shared_ptr<T> value_;
};

}  // namespace kestro::network::internal
