#include "kestro/core/notification_center.h"

#include <algorithm>
#include <atomic>

#include "kestro/core/main_queue.h"

namespace kestro {

struct ObserverToken::Entry {
    NotificationCenter* center = nullptr;
    std::string name;
    NotificationCenter::Observer observer;
    std::atomic<bool> alive{true};
};

ObserverToken::~ObserverToken() { reset(); }
ObserverToken::ObserverToken(ObserverToken&&) noexcept = default;
ObserverToken& ObserverToken::operator=(ObserverToken&& other) noexcept {
    if (this != &other) {
        reset();
        entry_ = std::move(other.entry_);
    }
    return *this;
}

void ObserverToken::reset() {
    if (!entry_) return;
    entry_->alive.store(false);
    entry_->center->remove(entry_.get());
    entry_.reset();
}

NotificationCenter& NotificationCenter::defaultCenter() {
    static NotificationCenter* center = new NotificationCenter();
    return *center;
}

ObserverToken NotificationCenter::addObserver(const std::string& name, Observer observer) {
    auto entry = std::make_shared<ObserverToken::Entry>();
    entry->center = this;
    entry->name = name;
    entry->observer = std::move(observer);
    {
        std::lock_guard lock(mutex_);
        observers_[name].push_back(entry);
    }
    ObserverToken token;
    token.entry_ = std::move(entry);
    return token;
}

void NotificationCenter::remove(const ObserverToken::Entry* entry) {
    std::lock_guard lock(mutex_);
    auto it = observers_.find(entry->name);
    if (it == observers_.end()) return;
    auto& list = it->second;
    list.erase(std::remove_if(list.begin(), list.end(),
                              [&](const auto& e) { return e.get() == entry; }),
               list.end());
    if (list.empty()) observers_.erase(it);
}

void NotificationCenter::post(const std::string& name, std::any object) {
    std::vector<std::shared_ptr<ObserverToken::Entry>> targets;
    {
        std::lock_guard lock(mutex_);
        if (auto it = observers_.find(name); it != observers_.end()) targets = it->second;
    }
    if (targets.empty()) return;
    MainQueue::shared().dispatch(
        [targets = std::move(targets), note = Notification{name, std::move(object)}] {
            for (const auto& entry : targets) {
                if (entry->alive.load()) entry->observer(note);
            }
        });
}

}  // namespace kestro
