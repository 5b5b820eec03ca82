#pragma once

#include <boost/json/object.hpp>
#include <boost/json/value.hpp>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

struct sqlite3;

namespace kestro::devservice {

/// A device as the service knows it: the last device dictionary it sent, and when it was first
/// and last heard from (seconds since 1970).
struct DeviceRow {
    std::string id;
    boost::json::object info;
    std::string keyKind;  // "prod" or "dev", from the prefix of the key it used last
    double firstSeen = 0;
    double lastSeen = 0;
    std::int64_t itemCount = 0;
};

/// One captured item, its uploads joined by id. `seq` orders items by first arrival; `revision`
/// is the sequence number of the latest upload that touched it.
struct ItemRow {
    std::string id;
    std::string eventType;
    std::string deviceId;
    std::int64_t seq = 0;
    std::int64_t revision = 0;
    std::int64_t parts = 0;
    double receivedAt = 0;
    double updatedAt = 0;
    boost::json::object record;  // the joined record, without "device"
};

/// One upload as it arrived.
struct ItemPart {
    std::int64_t seq = 0;
    double receivedAt = 0;
    boost::json::object body;
};

/// A page query over items, newest first.
struct ItemQuery {
    std::optional<std::string> deviceId;
    std::optional<std::int64_t> before;  // only items whose seq is below this
    std::optional<std::int64_t> since;   // only items changed after this revision
    std::int64_t limit = 50;
};

struct PutItemResult {
    bool created = false;  // false when the upload joined an item already stored
    std::int64_t seq = 0;
    std::int64_t revision = 0;
};

/// The service's database: one SQLite file in WAL mode holding devices, items and every upload
/// as it arrived. Safe to call from any thread; calls are serialised by one mutex and each
/// statement is prepared, stepped and finalised within its call.
class DevStore {
  public:
    /// Opens (creating if needed) `file`. On failure returns null and sets `error`.
    static std::unique_ptr<DevStore> open(const std::filesystem::path& file, std::string* error);
    ~DevStore();
    DevStore(const DevStore&) = delete;
    DevStore& operator=(const DevStore&) = delete;

    /// Inserts or replaces the device `info["id"]`; keeps its first-seen time.
    bool upsertDevice(const boost::json::object& info, const std::string& keyKind, double now,
                      bool* created, std::string* error);
    /// Notes that the device was heard from (it opened a connection); a device not yet known is
    /// added with only its id.
    bool touchDevice(const std::string& id, const std::string& keyKind, double now);
    std::vector<DeviceRow> devices();
    std::optional<DeviceRow> device(const std::string& id);

    /// Keeps `body` (a checked upload with "device") as a part and joins it into the item of the
    /// same id: a network record keeps the halves it has and takes the halves the upload
    /// brings; any other record is replaced by the newer upload.
    std::optional<PutItemResult> putItem(const boost::json::object& body, double now,
                                         std::string* error);
    std::vector<ItemRow> items(const ItemQuery& query);
    std::optional<ItemRow> item(const std::string& id);
    std::vector<ItemPart> parts(const std::string& itemId);

    /// Whether the database can still be used: its file is where it was opened (not deleted,
    /// moved or replaced under the service) and a read succeeds. Gives the problem, or nothing.
    std::optional<std::string> check();

    std::int64_t deviceCount();
    std::int64_t itemCount();
    /// The highest revision stored so far (0 when empty).
    std::int64_t latestRevision();

  private:
    DevStore(sqlite3* db, std::filesystem::path file) : db_(db), file_(std::move(file)) {}
    bool exec(const char* sql, std::string* error);

    std::mutex mutex_;
    sqlite3* db_;
    std::filesystem::path file_;
};

/// Joins an upload into a stored record (see DevStore::putItem). Neither input carries "device".
boost::json::object joinRecords(const boost::json::object& stored,
                                const boost::json::object& incoming);

}  // namespace kestro::devservice
