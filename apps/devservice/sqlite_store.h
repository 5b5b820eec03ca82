#pragma once

#include <filesystem>
#include <memory>
#include <mutex>
#include <string>

#include "devservice/store.h"

struct sqlite3;

namespace kestro::devservice {

/// The store in one SQLite file in WAL mode. Calls are serialised by one mutex; each statement
/// is prepared, stepped and finalised within its call, and each write is one transaction. A
/// database of the first version (items keyed by their id alone, no keys) is migrated in place
/// when it is opened.
class SQLiteStore final : public DevStore {
  public:
    /// Opens (creating if needed) `file`. On failure returns null and sets `error`.
    static std::unique_ptr<SQLiteStore> open(const std::filesystem::path& file, std::string* error);
    ~SQLiteStore() override;
    SQLiteStore(const SQLiteStore&) = delete;
    SQLiteStore& operator=(const SQLiteStore&) = delete;

    std::optional<std::string> check() override;

    std::optional<ApiKeyRow> addKey(const std::string& key, const std::string& name, double now,
                                    std::string* error) override;
    std::vector<ApiKeyRow> keys() override;
    std::optional<ApiKeyRow> findKey(const std::string& key) override;
    std::optional<ApiKeyRow> revokeKey(std::int64_t id, double now) override;
    std::vector<std::string> devicesOfKey(std::int64_t id) override;

    Claim claimDevice(const std::string& id, const Writer& writer,
                      const std::optional<boost::json::object>& info, double now, bool* created,
                      std::string* error) override;
    std::vector<DeviceRow> devices() override;
    std::optional<DeviceRow> device(const std::string& id) override;

    PutItemResult putItem(const boost::json::object& body, const Writer& writer, double now,
                          std::string* error) override;
    std::vector<ItemRow> items(const ItemQuery& query) override;
    std::optional<ItemRow> item(const std::string& deviceId, const std::string& id) override;
    std::vector<ItemRow> itemsWithId(const std::string& id) override;
    std::vector<ItemPart> parts(const std::string& deviceId, const std::string& id) override;
    std::optional<DeletedItems> deleteItems(const std::string& deviceId) override;
    void applyRetention(std::optional<double> cutoff,
                        std::optional<std::int64_t> maxPerDevice) override;
    std::int64_t purgeDeleted(std::int64_t batch) override;

    std::vector<RuleRow> rules(const std::string& deviceId) override;
    RuleChange createRule(const std::string& deviceId, const boost::json::object& rule,
                          double now) override;
    RuleChange updateRule(const std::string& deviceId, std::int64_t ruleId,
                          const boost::json::object& rule, double now) override;
    RuleChange setRuleEnabled(const std::string& deviceId, std::int64_t ruleId, bool enabled,
                              double now) override;
    RuleChange setRuleEnabledByUrl(const std::string& deviceId, const boost::json::object& rule,
                                   bool enabled, double now) override;
    RuleChange deleteRule(const std::string& deviceId, std::int64_t ruleId) override;
    bool setBreakpoints(const std::string& deviceId, bool enabled) override;

    std::int64_t deviceCount() override;
    std::int64_t itemCount() override;
    std::int64_t latestRevision() override;

  private:
    SQLiteStore(sqlite3* db, std::filesystem::path file) : db_(db), file_(std::move(file)) {}
    bool exec(const char* sql, std::string* error);
    bool migrateFromFirstVersion(std::string* error);
    // The following expect mutex_ to be held.
    std::optional<DeviceRow> deviceLocked(const std::string& id);
    std::vector<RuleRow> rulesLocked(const std::string& deviceId);
    std::optional<RuleRow> ruleLocked(const std::string& deviceId, std::int64_t ruleId);
    void steeringChangedLocked(const std::string& deviceId);
    Claim claimLocked(const std::string& id, const Writer& writer,
                      const std::optional<boost::json::object>& info, double now, bool* created,
                      bool* changed, std::string* error);
    std::int64_t liveItemCountLocked(const std::string& deviceId);

    std::mutex mutex_;
    sqlite3* db_;
    std::filesystem::path file_;
};

}  // namespace kestro::devservice
