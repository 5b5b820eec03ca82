#include "kestro/inspector/toast_manager.h"

#include <algorithm>

namespace kestro {

ToastManager& ToastManager::shared() {
    static ToastManager* manager = new ToastManager();  // lives for the whole process
    return *manager;
}

ToastManager::ToastManager(Scheduler scheduler) : scheduler_(std::move(scheduler)) {}

void ToastManager::show(const std::string& message) {
    setCurrentToast(message);
    // The removal compares texts, not shows: a newer toast with another text keeps its own
    // time, and the same text shown again goes with the first show's timer.
    auto removal = [this, alive = std::weak_ptr<char>(alive_), message] {
        if (alive.expired()) return;
        if (currentToast_ == message) setCurrentToast(std::nullopt);
    };
    if (scheduler_) {
        scheduler_(kDuration, std::move(removal));
        return;
    }
    std::erase_if(timers_, [](const DelayedTask& t) { return !t.active(); });
    timers_.push_back(runOnMainAfter(kDuration, std::move(removal)));
}

void ToastManager::setCurrentToast(std::optional<std::string> toast) {
    if (willChange_) willChange_();
    currentToast_ = std::move(toast);
}

}  // namespace kestro
