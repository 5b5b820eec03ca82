#pragma once

#include <cstddef>
#include <functional>
#include <iterator>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "kestro/core/export.h"
#include "kestro/records/records.h"

namespace kestro {

namespace store::internal {
struct RequestChunk;
class RequestListEditor;
}  // namespace store::internal

/// An immutable snapshot of the store's captured items, newest first (index 0 is the newest).
///
/// Snapshots share their storage: taking one, copying one, or publishing a new one after an item
/// was added at the front costs a few pointer copies, however many items there are, and a
/// snapshot never changes once taken, whatever the store does afterwards. Items are read in
/// place; nothing is copied until toVector().
///
/// A snapshot may be read from any thread, by any number of threads at once.
class KESTRO_API RequestList {
  public:
    class const_iterator {
      public:
        using iterator_category = std::random_access_iterator_tag;
        using value_type = RequestEventType;
        using difference_type = std::ptrdiff_t;
        using pointer = const RequestEventType*;
        using reference = const RequestEventType&;

        const_iterator() = default;
        reference operator*() const { return (*list_)[index_]; }
        pointer operator->() const { return &(*list_)[index_]; }
        reference operator[](difference_type n) const { return (*list_)[index_ + n]; }
        const_iterator& operator++() { return ++index_, *this; }
        const_iterator operator++(int) { return {list_, index_++}; }
        const_iterator& operator--() { return --index_, *this; }
        const_iterator operator--(int) { return {list_, index_--}; }
        const_iterator& operator+=(difference_type n) { return index_ += n, *this; }
        const_iterator& operator-=(difference_type n) { return index_ -= n, *this; }
        friend const_iterator operator+(const_iterator i, difference_type n) { return i += n; }
        friend const_iterator operator+(difference_type n, const_iterator i) { return i += n; }
        friend const_iterator operator-(const_iterator i, difference_type n) { return i -= n; }
        friend difference_type operator-(const const_iterator& a, const const_iterator& b) {
            return static_cast<difference_type>(a.index_) - static_cast<difference_type>(b.index_);
        }
        friend bool operator==(const const_iterator& a, const const_iterator& b) {
            return a.index_ == b.index_;
        }
        friend auto operator<=>(const const_iterator& a, const const_iterator& b) {
            return a.index_ <=> b.index_;
        }

      private:
        friend class RequestList;
        const_iterator(const RequestList* list, std::size_t index) : list_(list), index_(index) {}
        const RequestList* list_ = nullptr;
        std::size_t index_ = 0;
    };
    using value_type = RequestEventType;
    using size_type = std::size_t;
    using iterator = const_iterator;

    RequestList() = default;

    std::size_t size() const { return size_; }
    bool empty() const { return size_ == 0; }
    /// The item at index (0 = newest). index must be below size().
    const RequestEventType& operator[](std::size_t index) const;
    const RequestEventType& front() const { return (*this)[0]; }
    const_iterator begin() const { return {this, 0}; }
    const_iterator end() const { return {this, size_}; }

    /// Index of the newest item with this id, if any.
    std::optional<std::size_t> indexOf(std::string_view id) const;
    /// Copies of the items, newest first.
    std::vector<RequestEventType> toVector() const;

    /// Equal items in equal order.
    friend KESTRO_API bool operator==(const RequestList& a, const RequestList& b);

  private:
    friend class store::internal::RequestListEditor;
    using Table = std::vector<std::shared_ptr<store::internal::RequestChunk>>;
    RequestList(std::shared_ptr<const Table> table, std::size_t size)
        : table_(std::move(table)), size_(size) {}

    // Items are kept oldest first in fixed-size chunks, so "newest first" index i is physical
    // position size - 1 - i, and adding at the front appends behind everything a snapshot sees.
    std::shared_ptr<const Table> table_;
    std::size_t size_ = 0;
};

/// What is about to happen to the store's list. Observers receive it before the list changes.
struct KESTRO_API RequestsChange {
    enum class Kind {
        /// The list as it was when the observer subscribed (the first delivery).
        initial,
        /// `id` was added at the front.
        inserted,
        /// Every item with `id` is removed.
        removed,
        /// The whole list is replaced (loaded, written, or emptied by deleteAll()).
        replaced,
    };
    Kind kind = Kind::initial;
    std::string id;        // inserted and removed: the item's id; empty otherwise
    RequestList requests;  // the list as it will be once the change is made
};

/// Keeps an observer of the store's list subscribed. Destroying or reset() unsubscribes: the
/// observer is not called again afterwards; if it is being called on another thread at that
/// moment, reset() waits for that call to return (from inside the observer itself it does not
/// wait). So a subscription must not be ended while holding something its observer waits for;
/// in particular store work (an observer told on the store's queue) must not end a main-queue
/// subscription whose observer calls the store. Move-only; may outlive the store.
class KESTRO_API RequestsSubscription {
  public:
    struct Entry;

    RequestsSubscription() = default;
    explicit RequestsSubscription(std::shared_ptr<Entry> entry) : entry_(std::move(entry)) {}
    ~RequestsSubscription() { reset(); }
    RequestsSubscription(RequestsSubscription&&) noexcept = default;
    RequestsSubscription& operator=(RequestsSubscription&& other) noexcept {
        if (this != &other) {
            reset();
            entry_ = std::move(other.entry_);
        }
        return *this;
    }
    RequestsSubscription(const RequestsSubscription&) = delete;
    RequestsSubscription& operator=(const RequestsSubscription&) = delete;

    void reset();
    explicit operator bool() const { return static_cast<bool>(entry_); }

  private:
    std::shared_ptr<Entry> entry_;
};

namespace store::internal {

/// A fixed-size block of item slots. A slot is filled once, by the list's single writer, and
/// only after every snapshot that can see the chunk was taken with fewer items, so readers of
/// a snapshot never look at a slot that is being written.
struct RequestChunk {
    static constexpr std::size_t kCapacity = 128;
    std::shared_ptr<const RequestEventType> slots[kCapacity];
};

/// Builds the coming versions of a list. One editor per store, used only on the store's queue.
/// Each operation returns the list as it will be; commit() makes it current. Nothing an
/// operation does is visible through snapshots taken before.
class RequestListEditor {
  public:
    const RequestList& current() const { return current_; }

    RequestList pushingFront(std::shared_ptr<const RequestEventType> item) const;
    /// Nothing when no item has this id.
    std::optional<RequestList> removing(std::string_view id) const;
    /// Without every item whose id is in `ids`; nothing when none is listed. Items are shared,
    /// not copied, and the chunks older than the oldest removed item are kept as they are.
    std::optional<RequestList> removingAll(const std::unordered_set<std::string>& ids) const;
    static RequestList fromVector(std::vector<RequestEventType> newestFirst);

    /// Makes next current; the change tells the editor how its id counts move.
    void commit(const RequestsChange& change);
    /// Makes current a list made by removingAll(ids): only the removed ids' counts change,
    /// where commit() would count every id of a replaced list again.
    void commitRemovingAll(const RequestsChange& change,
                           const std::unordered_set<std::string>& ids);

  private:
    RequestList current_;
    // How many items of the current list carry each id: lets removal stop scanning once it has
    // found them all (a replaced network record is usually among the newest) and skip the scan
    // entirely for ids that are not listed.
    std::unordered_map<std::string, std::size_t> idCounts_;
};

/// The observers of one store's list. Shared with the subscriptions, which may outlive it.
class RequestsObservers : public std::enable_shared_from_this<RequestsObservers> {
  public:
    using Observer = std::function<void(const RequestsChange&)>;

    /// Registers an observer and delivers `initial` to it (at once, or posted to the main
    /// queue), so that it sees every later change exactly once.
    RequestsSubscription add(Observer observer, bool onMainQueue, RequestsChange initial);
    /// Calls the queue observers now, in subscription order, and posts the change to the main
    /// queue for the others.
    void announce(const RequestsChange& change);
    void remove(const RequestsSubscription::Entry* entry);

  private:
    std::mutex mutex_;
    std::vector<std::shared_ptr<RequestsSubscription::Entry>> entries_;
};

}  // namespace store::internal
}  // namespace kestro
