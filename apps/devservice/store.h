#pragma once

#include <boost/json/object.hpp>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace kestro::devservice {

/// An API key the service knows. `revokedAt` is set once it was revoked; a revoked key is kept
/// so that its devices stay attributed to it.
struct ApiKeyRow {
    std::int64_t id = 0;
    std::string key;
    std::string name;
    double createdAt = 0;
    std::optional<double> revokedAt;
    std::int64_t devices = 0;
};

/// A device as the service knows it: the last device dictionary it sent, the key it belongs to,
/// and when it was first and last heard from (seconds since 1970).
struct DeviceRow {
    std::string id;
    boost::json::object info;
    std::string keyKind;  // "prod" or "dev", from the prefix of its key
    std::optional<std::int64_t> keyId;
    double firstSeen = 0;
    double lastSeen = 0;
    std::int64_t itemCount = 0;
    /// Its items with a seq at or below this are deleted.
    std::int64_t deletedThroughSeq = 0;
    bool breakpoints = false;
};

/// What a list row shows of an item, and what the list filters on; kept beside the record so
/// that lists never read bodies. Fields that do not apply to the item's kind are empty.
struct ItemSummary {
    std::string kind;  // the record's eventType
    std::optional<double> time;
    std::optional<std::string> level;
    std::optional<std::string> message;
    std::optional<std::string> category;
    std::optional<std::string> method;
    std::optional<std::string> url;
    std::optional<std::int64_t> status;
    bool waiting = false;
    std::optional<double> durationMs;
    bool mocked = false;
    std::optional<std::string> name;
};

/// One captured item of one device, its uploads joined by id. `seq` orders items by first
/// arrival and is unique across devices; `revision` is the revision of the latest upload that
/// changed it. `record` is filled only where a single item is read.
struct ItemRow {
    std::string deviceId;
    std::string id;
    std::int64_t seq = 0;
    std::int64_t revision = 0;
    double receivedAt = 0;
    double updatedAt = 0;
    std::int64_t uploadCount = 0;
    ItemSummary summary;
    boost::json::object record;  // the joined record, without "device"
};

/// One upload as it arrived.
struct ItemPart {
    std::int64_t seq = 0;
    double receivedAt = 0;
    boost::json::object body;
};

/// A page of items, newest first, and the filters it passes. Each filter that is not empty
/// keeps the items that have that field with one of its values.
struct ItemQuery {
    std::optional<std::string> deviceId;
    std::vector<std::string> kinds;
    std::vector<std::string> levels;
    std::vector<std::string> methods;
    std::vector<int> statusClasses;   // 1 to 5: status codes 100-199 ... 500-599
    bool waiting = false;             // with statusClasses: exchanges without a response pass too
    std::optional<std::string> text;  // found, ignoring ASCII case, in url, message, name, category
    std::optional<std::int64_t> before;  // only items whose seq is below this
    std::optional<std::int64_t> since;   // only items changed after this revision
    std::int64_t limit = 50;
};

/// A mock rule the service keeps for a device: `rule` is the rule's JSON ("url" and the
/// optional "mockedUrl", "statusCode", "headers", "body"); `enabled` whether it is switched on.
struct RuleRow {
    std::int64_t id = 0;
    std::string deviceId;
    boost::json::object rule;
    bool enabled = false;
    double createdAt = 0;
    double updatedAt = 0;
    std::string url() const;
};

/// Why items were deleted.
enum class DeletionReason { dashboard, retention };

/// Told of every write, in the order of the writes, by the store that made it, while the store
/// still holds its own lock (so that two listeners' views never disagree on the order). A
/// listener must be quick and must not call the store.
class StoreListener {
  public:
    virtual ~StoreListener() = default;
    virtual void deviceStored(const DeviceRow& row, bool added) = 0;
    virtual void itemStored(const ItemRow& row, bool added) = 0;
    virtual void itemsDeleted(const std::string& deviceId, std::int64_t throughSeq,
                              std::int64_t remaining, DeletionReason reason) = 0;
    virtual void steeringChanged(const std::string& deviceId, const std::vector<RuleRow>& rules,
                                 bool breakpoints) = 0;
};

/// Who may write as a device: the key's row, and its kind.
struct Writer {
    std::int64_t keyId = 0;
    std::string keyKind;
};

/// The outcome of a write on a device's behalf.
enum class Claim {
    ok,
    otherKey,  // the device belongs to another key: nothing was written
    failed,    // the database refused the write (the error says why)
};

struct PutItemResult {
    Claim claim = Claim::ok;
    bool created = false;  // false when the upload joined an item already stored
    std::int64_t seq = 0;
    std::int64_t revision = 0;
};

struct DeletedItems {
    std::int64_t throughSeq = 0;
    std::int64_t deleted = 0;
};

/// The outcome of a change of a mock rule.
struct RuleChange {
    enum class Outcome { ok, notFound, conflict, failed } outcome = Outcome::ok;
    RuleRow row;       // the rule after the change (before it, for a deletion)
    RuleRow previous;  // the rule before an update
};

/// The service's storage: API keys, devices, their items and every upload as it arrived, and
/// the steering state the dashboard set per device. The SQLite file is one implementation; a
/// server database can be another. Implementations are safe to call from any thread, and tell
/// the listener of each write (see StoreListener). Reads never fail loudly: a read that fails
/// gives nothing or an empty list (check() tells whether the store is usable).
class DevStore {
  public:
    virtual ~DevStore() = default;

    /// Set once, before the store is shared; it must outlive the store's use.
    void setListener(StoreListener* listener) { listener_ = listener; }

    /// Whether the store can be used; gives the problem, or nothing.
    virtual std::optional<std::string> check() = 0;

    // API keys.
    virtual std::optional<ApiKeyRow> addKey(const std::string& key, const std::string& name,
                                            double now, std::string* error) = 0;
    virtual std::vector<ApiKeyRow> keys() = 0;
    /// The key with exactly this text, revoked or not.
    virtual std::optional<ApiKeyRow> findKey(const std::string& key) = 0;
    /// Revokes it; gives the row, or nothing for an unknown key.
    virtual std::optional<ApiKeyRow> revokeKey(std::int64_t id, double now) = 0;
    virtual std::vector<std::string> devicesOfKey(std::int64_t id) = 0;

    // Devices.
    /// Registers the device `id` as `writer`'s (keeping its first-seen time), with `info` as its
    /// device dictionary when given. A device of no key yet is taken by `writer`.
    virtual Claim claimDevice(const std::string& id, const Writer& writer,
                              const std::optional<boost::json::object>& info, double now,
                              bool* created, std::string* error) = 0;
    virtual std::vector<DeviceRow> devices() = 0;
    virtual std::optional<DeviceRow> device(const std::string& id) = 0;

    // Items.
    /// Keeps `body` (a checked upload with "device") as a part and joins it into the device's
    /// item of the same id: a network record keeps the halves it has and takes the halves the
    /// upload brings; any other record is replaced by the newer upload. The device is claimed
    /// for `writer` as by claimDevice.
    virtual PutItemResult putItem(const boost::json::object& body, const Writer& writer, double now,
                                  std::string* error) = 0;
    virtual std::vector<ItemRow> items(const ItemQuery& query) = 0;
    /// One item with its record.
    virtual std::optional<ItemRow> item(const std::string& deviceId, const std::string& id) = 0;
    /// Every device's item of that id, with records.
    virtual std::vector<ItemRow> itemsWithId(const std::string& id) = 0;
    virtual std::vector<ItemPart> parts(const std::string& deviceId, const std::string& id) = 0;
    /// Deletes every item the device has now. They are gone from every read at once; their
    /// rows are removed later by purgeDeleted().
    virtual std::optional<DeletedItems> deleteItems(const std::string& deviceId) = 0;
    /// Deletes, per device, the items that arrived before `cutoff` (when given) and all but
    /// the newest `maxPerDevice` (when given), oldest first, as deleteItems does.
    virtual void applyRetention(std::optional<double> cutoff,
                                std::optional<std::int64_t> maxPerDevice) = 0;
    /// Removes up to `batch` rows of deleted items with their uploads; gives how many items it
    /// removed (0 when none are left).
    virtual std::int64_t purgeDeleted(std::int64_t batch) = 0;

    // Steering state.
    virtual std::vector<RuleRow> rules(const std::string& deviceId) = 0;
    virtual RuleChange createRule(const std::string& deviceId, const boost::json::object& rule,
                                  double now) = 0;
    virtual RuleChange updateRule(const std::string& deviceId, std::int64_t ruleId,
                                  const boost::json::object& rule, double now) = 0;
    virtual RuleChange setRuleEnabled(const std::string& deviceId, std::int64_t ruleId,
                                      bool enabled, double now) = 0;
    /// The command form: switching on adds or updates the device's rule of that "url";
    /// switching off switches that rule off (notFound when there is none).
    virtual RuleChange setRuleEnabledByUrl(const std::string& deviceId,
                                           const boost::json::object& rule, bool enabled,
                                           double now) = 0;
    virtual RuleChange deleteRule(const std::string& deviceId, std::int64_t ruleId) = 0;
    virtual bool setBreakpoints(const std::string& deviceId, bool enabled) = 0;

    // Counts.
    virtual std::int64_t deviceCount() = 0;
    virtual std::int64_t itemCount() = 0;
    /// The highest revision given so far (0 when none).
    virtual std::int64_t latestRevision() = 0;

  protected:
    StoreListener* listener_ = nullptr;
};

/// Joins an upload into a stored record (see DevStore::putItem). Neither input carries "device".
boost::json::object joinRecords(const boost::json::object& stored,
                                const boost::json::object& incoming);

/// The list fields of a record dictionary (without "device").
ItemSummary summarize(const boost::json::object& record);

}  // namespace kestro::devservice
