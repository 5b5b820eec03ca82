#include "kestro/store/request_list.h"

#include <algorithm>
#include <atomic>
#include <exception>

#include "kestro/core/console.h"
#include "kestro/core/main_queue.h"

namespace kestro {

using store::internal::RequestChunk;

// --- RequestList ----------------------------------------------------------------------------

const RequestEventType& RequestList::operator[](std::size_t index) const {
    const std::size_t physical = size_ - 1 - index;
    return *(*table_)[physical / RequestChunk::kCapacity]
                ->slots[physical % RequestChunk::kCapacity];
}

std::optional<std::size_t> RequestList::indexOf(std::string_view id) const {
    for (std::size_t i = 0; i < size_; ++i)
        if ((*this)[i].id() == id) return i;
    return std::nullopt;
}

std::vector<RequestEventType> RequestList::toVector() const {
    std::vector<RequestEventType> out;
    out.reserve(size_);
    for (const auto& item : *this) out.push_back(item);
    return out;
}

bool operator==(const RequestList& a, const RequestList& b) {
    if (a.size_ != b.size_) return false;
    if (a.table_ == b.table_) return true;
    return std::equal(a.begin(), a.end(), b.begin());
}

// --- Subscriptions --------------------------------------------------------------------------

struct RequestsSubscription::Entry {
    std::function<void(const RequestsChange&)> observer;
    bool onMainQueue = false;
    std::weak_ptr<store::internal::RequestsObservers> owner;
    std::atomic<bool> active{true};
    // Held while the observer runs, so that unsubscribing from another thread can wait for a
    // call in progress to return before the observer's captures go away.
    std::mutex callMutex;
};

namespace {

// The entries whose observer the current thread is running, innermost last. A change made from
// inside an observer reaches that same observer again without waiting on its own call.
thread_local std::vector<const RequestsSubscription::Entry*> tCalling;

bool callingOnThisThread(const RequestsSubscription::Entry* entry) {
    return std::find(tCalling.begin(), tCalling.end(), entry) != tCalling.end();
}

void invoke(RequestsSubscription::Entry& entry, const RequestsChange& change) {
    tCalling.push_back(&entry);
    runReportingThrows("An observer of the stored requests", [&] { entry.observer(change); });
    tCalling.pop_back();
}

void deliver(RequestsSubscription::Entry& entry, const RequestsChange& change) {
    if (!entry.active.load(std::memory_order_acquire)) return;
    if (callingOnThisThread(&entry)) return invoke(entry, change);
    std::lock_guard lock(entry.callMutex);
    if (entry.active.load(std::memory_order_acquire)) invoke(entry, change);
}

void post(const std::shared_ptr<RequestsSubscription::Entry>& entry, RequestsChange change) {
    MainQueue::shared().post([weak = std::weak_ptr(entry), change = std::move(change)] {
        if (auto e = weak.lock()) deliver(*e, change);
    });
}

}  // namespace

void RequestsSubscription::reset() {
    if (!entry_) return;
    std::shared_ptr<Entry> entry = std::move(entry_);
    entry_.reset();
    entry->active.store(false, std::memory_order_release);
    if (!callingOnThisThread(entry.get())) {
        // Wait for a call in progress elsewhere; after this none can start.
        std::lock_guard lock(entry->callMutex);
    }
    if (auto owner = entry->owner.lock()) owner->remove(entry.get());
}

namespace store::internal {

RequestsSubscription RequestsObservers::add(Observer observer, bool onMainQueue,
                                            RequestsChange initial) {
    auto entry = std::make_shared<RequestsSubscription::Entry>();
    entry->observer = std::move(observer);
    entry->onMainQueue = onMainQueue;
    entry->owner = weak_from_this();
    {
        std::lock_guard lock(mutex_);
        entries_.push_back(entry);
    }
    if (onMainQueue) {
        post(entry, std::move(initial));
    } else {
        deliver(*entry, initial);
    }
    return RequestsSubscription(std::move(entry));
}

void RequestsObservers::announce(const RequestsChange& change) {
    std::vector<std::shared_ptr<RequestsSubscription::Entry>> entries;
    {
        std::lock_guard lock(mutex_);
        if (entries_.empty()) return;
        entries = entries_;
    }
    for (const auto& entry : entries) {
        if (entry->onMainQueue) {
            post(entry, change);
        } else {
            deliver(*entry, change);
        }
    }
}

void RequestsObservers::remove(const RequestsSubscription::Entry* entry) {
    std::lock_guard lock(mutex_);
    std::erase_if(entries_, [&](const auto& e) { return e.get() == entry; });
}

// --- Editor ---------------------------------------------------------------------------------

RequestList RequestListEditor::pushingFront(std::shared_ptr<const RequestEventType> item) const {
    constexpr std::size_t C = RequestChunk::kCapacity;
    const std::size_t n = current_.size_;
    const std::size_t chunkIndex = n / C, slot = n % C;
    const RequestList::Table* table = current_.table_.get();

    if (slot != 0 && !(*table)[chunkIndex]->slots[slot]) {
        // The slot lies behind everything any snapshot of this chunk can see: fill it in place
        // and share the table as it is.
        (*table)[chunkIndex]->slots[slot] = std::move(item);
        return RequestList(current_.table_, n + 1);
    }
    auto next = std::make_shared<RequestList::Table>();
    next->reserve(chunkIndex + 1);
    if (table != nullptr)
        next->assign(table->begin(), table->begin() + static_cast<std::ptrdiff_t>(chunkIndex));
    auto chunk = std::make_shared<RequestChunk>();
    // A partly filled chunk whose next slot is taken (by a version that was not committed) is
    // copied rather than overwritten.
    for (std::size_t i = 0; i < slot; ++i) chunk->slots[i] = (*table)[chunkIndex]->slots[i];
    chunk->slots[slot] = std::move(item);
    next->push_back(std::move(chunk));
    return RequestList(std::move(next), n + 1);
}

std::optional<RequestList> RequestListEditor::removing(std::string_view id) const {
    const auto counted = idCounts_.find(std::string(id));
    if (counted == idCounts_.end() || counted->second == 0) return std::nullopt;

    constexpr std::size_t C = RequestChunk::kCapacity;
    const std::size_t n = current_.size_;
    const RequestList::Table& table = *current_.table_;
    const auto at = [&](std::size_t p) -> const std::shared_ptr<const RequestEventType>& {
        return table[p / C]->slots[p % C];
    };
    // The oldest position holding the id; everything before its chunk is kept as it is.
    std::size_t left = counted->second, oldest = n;
    for (std::size_t p = n; p-- > 0 && left > 0;) {
        if (at(p)->id() == id) oldest = p, --left;
    }
    if (oldest == n) return std::nullopt;

    const std::size_t keptChunks = oldest / C;
    auto next = std::make_shared<RequestList::Table>(
        table.begin(), table.begin() + static_cast<std::ptrdiff_t>(keptChunks));
    std::size_t size = keptChunks * C;
    std::shared_ptr<RequestChunk> chunk;
    for (std::size_t p = keptChunks * C; p < n; ++p) {
        const auto& item = at(p);
        if (item->id() == id) continue;
        if (size % C == 0) {
            chunk = std::make_shared<RequestChunk>();
            next->push_back(chunk);
        }
        chunk->slots[size % C] = item;
        ++size;
    }
    return RequestList(std::move(next), size);
}

std::optional<RequestList> RequestListEditor::removingAll(
    const std::unordered_set<std::string>& ids) const {
    constexpr std::size_t C = RequestChunk::kCapacity;
    const std::size_t n = current_.size_;
    if (n == 0 || ids.empty()) return std::nullopt;
    const RequestList::Table& table = *current_.table_;
    const auto at = [&](std::size_t p) -> const std::shared_ptr<const RequestEventType>& {
        return table[p / C]->slots[p % C];
    };
    // Position 0 is the oldest: trims remove from there, so the first match is found early.
    std::size_t first = 0;
    while (first < n && !ids.contains(at(first)->id())) ++first;
    if (first == n) return std::nullopt;

    const std::size_t keptChunks = first / C;
    auto next = std::make_shared<RequestList::Table>(
        table.begin(), table.begin() + static_cast<std::ptrdiff_t>(keptChunks));
    std::size_t size = keptChunks * C;
    // Once every listed item of the ids is passed, the rest is only moved: no more look-ups.
    std::size_t left = 0;
    for (const std::string& id : ids) {
        if (const auto it = idCounts_.find(id); it != idCounts_.end()) left += it->second;
    }
    std::shared_ptr<RequestChunk> chunk;
    for (std::size_t p = keptChunks * C; p < n; ++p) {
        const auto& item = at(p);
        if (left > 0 && ids.contains(item->id())) {
            --left;
            continue;
        }
        if (size % C == 0) {
            chunk = std::make_shared<RequestChunk>();
            next->push_back(chunk);
        }
        chunk->slots[size % C] = item;
        ++size;
    }
    return RequestList(std::move(next), size);
}

RequestList RequestListEditor::fromVector(std::vector<RequestEventType> newestFirst) {
    constexpr std::size_t C = RequestChunk::kCapacity;
    const std::size_t n = newestFirst.size();
    auto table = std::make_shared<RequestList::Table>();
    table->reserve((n + C - 1) / C);
    for (std::size_t p = 0; p < n; ++p) {
        if (p % C == 0) table->push_back(std::make_shared<RequestChunk>());
        table->back()->slots[p % C] =
            std::make_shared<const RequestEventType>(std::move(newestFirst[n - 1 - p]));
    }
    return RequestList(std::move(table), n);
}

void RequestListEditor::commit(const RequestsChange& change) {
    switch (change.kind) {
        case RequestsChange::Kind::inserted:
            ++idCounts_[change.id];
            break;
        case RequestsChange::Kind::removed:
            idCounts_.erase(change.id);
            break;
        case RequestsChange::Kind::initial:
        case RequestsChange::Kind::replaced:
            idCounts_.clear();
            for (const auto& item : change.requests) ++idCounts_[item.id()];
            break;
    }
    current_ = change.requests;
}

void RequestListEditor::commitRemovingAll(const RequestsChange& change,
                                          const std::unordered_set<std::string>& ids) {
    for (const std::string& id : ids) idCounts_.erase(id);
    current_ = change.requests;
}

}  // namespace store::internal
}  // namespace kestro
