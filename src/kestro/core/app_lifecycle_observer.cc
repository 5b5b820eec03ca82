#include "kestro/core/app_lifecycle_observer.h"

#include <mutex>
#include <utility>

namespace kestro {

// Shared with the subscriptions, so that a notification in delivery never reaches a destroyed
// observer's memory.
struct AppLifecycleObserver::State {
    mutable std::mutex mutex;
    Callback foreground;
    Callback background;

    Callback get(const Callback State::*which) const {
        std::lock_guard lock(mutex);
        return this->*which;
    }
    void set(Callback State::*which, Callback callback) {
        Callback old;
        {
            std::lock_guard lock(mutex);
            old = std::exchange(this->*which, std::move(callback));
        }
        // `old` is destroyed here, outside the lock: its captures may do anything.
    }
    void call(const Callback State::*which) const {
        // Called outside the lock so that the callback may change the callbacks.
        if (Callback callback = get(which)) callback();
    }
};

void postApplicationWillEnterForeground() {
    NotificationCenter::defaultCenter().post(kApplicationWillEnterForeground);
}

void postApplicationDidEnterBackground() {
    NotificationCenter::defaultCenter().post(kApplicationDidEnterBackground);
}

AppLifecycleObserver::AppLifecycleObserver() : state_(std::make_shared<State>()) {
    auto& center = NotificationCenter::defaultCenter();
    foreground_ =
        center.addObserver(kApplicationWillEnterForeground, [state = state_](const Notification&) {
            state->call(&State::foreground);  // appDidMoveToForeground
        });
    background_ =
        center.addObserver(kApplicationDidEnterBackground, [state = state_](const Notification&) {
            state->call(&State::background);  // appDidMoveToBackground
        });
}

AppLifecycleObserver::~AppLifecycleObserver() {
    foreground_.reset();
    background_.reset();
    state_->set(&State::foreground, nullptr);
    state_->set(&State::background, nullptr);
}

AppLifecycleObserver::Callback AppLifecycleObserver::onMoveToForeground() const {
    return state_->get(&State::foreground);
}

void AppLifecycleObserver::setOnMoveToForeground(Callback callback) {
    state_->set(&State::foreground, std::move(callback));
}

AppLifecycleObserver::Callback AppLifecycleObserver::onMoveToBackground() const {
    return state_->get(&State::background);
}

void AppLifecycleObserver::setOnMoveToBackground(Callback callback) {
    state_->set(&State::background, std::move(callback));
}

}  // namespace kestro
