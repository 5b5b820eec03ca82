#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "kestro/core/capture_policy.h"
#include "kestro/core/export.h"
#include "kestro/records/records.h"
#include "kestro/store/request_list.h"

namespace kestro {

/// The store of captured items: every record in a SQLite database ("requests.sqlite", table
/// `requests`, one row per id with the record's JSON text), and the same items in memory,
/// newest first, as the observable list `requests()` that the inspector shows.
///
/// One process-wide instance, `shared()`, keeps its database in the application's data
/// directory for the life of the process. Hosts and tests may make further instances on a path
/// of their own; such an instance closes its database when destroyed, which must not happen
/// while another thread is still calling it.
///
/// Threads: every member may be called from any thread. All database work and every change of
/// the list runs on the store's serial queue "com.kestro.RequestStoreSQLite", one operation at
/// a time in the order the calls arrived, on the calling thread; the caller blocks until its
/// operation is done. A call made from inside store work (for example from an observer told on
/// the queue) runs at once instead of waiting for itself.
///
/// Retention: the store keeps at most `maxItems` items, none whose createdAt is older than
/// `maxAge`, and at most `maxBytes` on disk (the database file and its write-ahead log). When
/// an add or a change of the limits takes the store past one, a trim runs on the global
/// executor, never on the adding thread: it removes the items stored first in batches
/// of at most kTrimBatchItems, each batch one operation on the queue, so an add waits for one
/// batch at most. Deleted rows give their pages back to the file system (incremental vacuum).
/// The list follows each batch as one `replaced` change. Instances made here start unlimited;
/// shared() starts with the default limits.
///
/// Failures never throw: each is reported as a console line and leaves what was stored as it
/// was. A database file that SQLite cannot read as a database is moved aside as
/// "requests.sqlite.corrupt-<time>" and a fresh one is started in its place, carrying over the
/// rows that could still be read.
class KESTRO_API RequestStoreSQLite {
  public:
    /// Called before each change of `requests()` with the change and the coming list.
    using Observer = std::function<void(const RequestsChange&)>;

    /// Where an observer is called.
    enum class Delivery {
        /// On the store's queue, inside the operation, before the list changes: while it runs,
        /// requests() still gives the list as it was.
        storeQueue,
        /// Posted to MainQueue::shared() in order, for observers that drive UI. By the time it
        /// runs the change has been made (and later ones may have been too); the change's list
        /// is the one to show.
        mainQueue,
    };

    static constexpr const char* kQueueLabel = "com.kestro.RequestStoreSQLite";
    static constexpr const char* kDatabaseFileName = "requests.sqlite";

    /// The process-wide store on "requests.sqlite" in dataDirectory(), opened and loaded on
    /// first use (thread-safe, once); never destroyed.
    static RequestStoreSQLite& shared();

    /// A store on the database file at databasePath (its folder is created if missing), opened
    /// and loaded before the constructor returns. maxDatabaseBytes, when not 0, caps the size of
    /// the database: once it is reached, adds fail with a console line until items are deleted.
    explicit RequestStoreSQLite(std::filesystem::path databasePath,
                                std::uint64_t maxDatabaseBytes = 0);
    ~RequestStoreSQLite();
    RequestStoreSQLite(const RequestStoreSQLite&) = delete;
    RequestStoreSQLite& operator=(const RequestStoreSQLite&) = delete;

    /// The current list, newest first: a snapshot that never changes. Cheap; never waits for
    /// the queue.
    RequestList requests() const;
    /// Replaces the list in memory (the database is not touched), on the queue.
    void setRequests(std::vector<RequestEventType> newestFirst);
    /// Subscribes an observer of `requests()`. It is first given the current list (kind
    /// `initial`) and then every change, each exactly once and in order. Keep the subscription
    /// for as long as the observer should be called.
    [[nodiscard]] RequestsSubscription observeRequests(Observer observer,
                                                       Delivery delivery = Delivery::storeQueue);

    /// Stores the item (replacing a row with the same id) and puts it at the front of the list.
    /// An add under an id already listed leaves both items listed; update() replaces both.
    void add(RequestEventType item);
    /// Every readable stored item, newest createdAt first. Does not change the list.
    std::vector<RequestEventType> getAll();
    /// Prints every stored row to the console (a debugging aid).
    void debugPrintAllRows();
    /// The stored item with this id, if there is one and it can be read.
    std::optional<RequestEventType> getById(const std::string& id);
    /// Deletes id from database and list, then adds item, as one operation.
    void update(const std::string& id, RequestEventType item);
    /// Deletes the row with this id and every listed item with it.
    void deleteById(const std::string& id);
    /// Deletes every row and empties the list.
    void deleteAll();

    /// Most items a trim batch removes: small enough that an add waiting behind a batch waits a
    /// few milliseconds at most.
    static constexpr std::size_t kTrimBatchItems = 64;

    /// Sets the limits and, when the store is past one, starts a trim (returns at once).
    void setRetention(StoreRetention retention);
    StoreRetention retention() const;
    /// Whether a trim is scheduled or running (for tests and diagnostics).
    bool trimPending() const;
    /// The bytes the store takes on disk: the database file and its write-ahead log.
    std::uint64_t bytesOnDisk() const;

    /// The database file this store opened (or tried to open).
    const std::filesystem::path& databasePath() const;
    /// Whether the database connection is open. When it is not, every operation reports that
    /// its statement could not be prepared.
    bool isOpen() const;

  private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace kestro
