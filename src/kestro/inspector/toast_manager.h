#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "kestro/core/executor.h"
#include "kestro/core/export.h"

namespace kestro {

/// The inspector's one-line confirmations. At most one toast at a time: show() replaces the
/// text at once, and each show() clears the toast 1.5 seconds later unless a different text was
/// shown meanwhile (the same text shown twice disappears 1.5 s after the first show).
///
/// Main queue only (the host's UI thread in an ImGui host).
class KESTRO_API ToastManager {
  public:
    /// How long a toast stays.
    static constexpr std::chrono::milliseconds kDuration{1500};

    /// Runs a task on the main queue after a delay. The default is a timer (runOnMainAfter);
    /// tests pass a clock they step.
    using Scheduler =
        std::function<void(std::chrono::steady_clock::duration, std::function<void()>)>;

    /// The process-wide manager the screens use.
    static ToastManager& shared();

    explicit ToastManager(Scheduler scheduler = {});
    ToastManager(const ToastManager&) = delete;
    ToastManager& operator=(const ToastManager&) = delete;

    void show(const std::string& message);
    const std::optional<std::string>& currentToast() const { return currentToast_; }

    /// Called before each change of currentToast (none: no observer).
    void setWillChange(std::function<void()> observer) { willChange_ = std::move(observer); }

  private:
    void setCurrentToast(std::optional<std::string> toast);

    Scheduler scheduler_;  // none: timers kept in timers_
    std::optional<std::string> currentToast_;
    std::vector<DelayedTask> timers_;
    std::shared_ptr<char> alive_ = std::make_shared<char>();  // held weakly by removals
    std::function<void()> willChange_;
};

}  // namespace kestro
