// The SQLite store's steering state: a device's mock rules and its breakpoint switch.
#include <sqlite3.h>

#include <boost/json/serialize.hpp>

#include "devservice/sqlite_statement.h"
#include "devservice/sqlite_store.h"

namespace kestro::devservice {
namespace internal {
namespace {

constexpr const char* kRuleColumns =
    "id, device_id, rule, enabled, created_at, updated_at FROM mock_rules";

RuleRow readRule(const Statement& s) {
    return RuleRow{s.integer(0),      s.text(1), parseObject(s.text(2)),
                   s.integer(3) != 0, s.real(4), s.real(5)};
}

// The fields of a mock rule the service keeps, in a fixed order; nulls are dropped.
json::object normalRule(const json::object& rule) {
    json::object out;
    for (const char* key : {"url", "mockedUrl", "statusCode", "headers", "body"}) {
        if (const auto* v = rule.if_contains(key); v && !v->is_null()) out[key] = *v;
    }
    return out;
}

}  // namespace
}  // namespace internal

using internal::Statement;
namespace json = boost::json;

std::vector<RuleRow> SQLiteStore::rulesLocked(const std::string& deviceId) {
    Statement s(
        db_, std::string("SELECT ") + internal::kRuleColumns + " WHERE device_id = ?1 ORDER BY id");
    s.bind(1, deviceId);
    std::vector<RuleRow> rows;
    while (s.step() == SQLITE_ROW) rows.push_back(internal::readRule(s));
    return rows;
}

std::optional<RuleRow> SQLiteStore::ruleLocked(const std::string& deviceId, std::int64_t ruleId) {
    Statement s(
        db_, std::string("SELECT ") + internal::kRuleColumns + " WHERE device_id = ?1 AND id = ?2");
    s.bind(1, deviceId);
    s.bind(2, ruleId);
    if (s.step() != SQLITE_ROW) return std::nullopt;
    return internal::readRule(s);
}

void SQLiteStore::steeringChangedLocked(const std::string& deviceId) {
    if (!listener_) return;
    const auto device = deviceLocked(deviceId);
    listener_->steeringChanged(deviceId, rulesLocked(deviceId), device && device->breakpoints);
}

std::vector<RuleRow> SQLiteStore::rules(const std::string& deviceId) {
    std::lock_guard lock(mutex_);
    return rulesLocked(deviceId);
}

RuleChange SQLiteStore::createRule(const std::string& deviceId, const json::object& rule,
                                   double now) {
    std::lock_guard lock(mutex_);
    RuleChange change;
    const json::object normal = internal::normalRule(rule);
    Statement s(db_,
                "INSERT INTO mock_rules(device_id, url, rule, enabled, created_at, updated_at) "
                "VALUES(?1, ?2, ?3, 0, ?4, ?4)");
    s.bind(1, deviceId);
    s.bind(2, internal::textOf(normal, "url"));
    s.bind(3, json::serialize(normal));
    s.bind(4, now);
    if (!s.done()) {
        change.outcome = s.errorCode() == SQLITE_CONSTRAINT_UNIQUE ? RuleChange::Outcome::conflict
                                                                   : RuleChange::Outcome::failed;
        return change;
    }
    change.row = *ruleLocked(deviceId, sqlite3_last_insert_rowid(db_));
    steeringChangedLocked(deviceId);
    return change;
}

RuleChange SQLiteStore::updateRule(const std::string& deviceId, std::int64_t ruleId,
                                   const json::object& rule, double now) {
    std::lock_guard lock(mutex_);
    RuleChange change;
    const auto previous = ruleLocked(deviceId, ruleId);
    if (!previous) {
        change.outcome = RuleChange::Outcome::notFound;
        return change;
    }
    change.previous = *previous;
    const json::object normal = internal::normalRule(rule);
    Statement s(db_,
                "UPDATE mock_rules SET url = ?3, rule = ?4, updated_at = ?5 "
                "WHERE device_id = ?1 AND id = ?2");
    s.bind(1, deviceId);
    s.bind(2, ruleId);
    s.bind(3, internal::textOf(normal, "url"));
    s.bind(4, json::serialize(normal));
    s.bind(5, now);
    if (!s.done()) {
        change.outcome = s.errorCode() == SQLITE_CONSTRAINT_UNIQUE ? RuleChange::Outcome::conflict
                                                                   : RuleChange::Outcome::failed;
        return change;
    }
    change.row = *ruleLocked(deviceId, ruleId);
    steeringChangedLocked(deviceId);
    return change;
}

RuleChange SQLiteStore::setRuleEnabled(const std::string& deviceId, std::int64_t ruleId,
                                       bool enabled, double now) {
    std::lock_guard lock(mutex_);
    RuleChange change;
    Statement s(db_,
                "UPDATE mock_rules SET enabled = ?3, updated_at = ?4 "
                "WHERE device_id = ?1 AND id = ?2");
    s.bind(1, deviceId);
    s.bind(2, ruleId);
    s.bind(3, enabled);
    s.bind(4, now);
    if (!s.done()) {
        change.outcome = RuleChange::Outcome::failed;
        return change;
    }
    const auto row = ruleLocked(deviceId, ruleId);
    if (!row) {
        change.outcome = RuleChange::Outcome::notFound;
        return change;
    }
    change.row = *row;
    steeringChangedLocked(deviceId);
    return change;
}

RuleChange SQLiteStore::setRuleEnabledByUrl(const std::string& deviceId, const json::object& rule,
                                            bool enabled, double now) {
    std::lock_guard lock(mutex_);
    RuleChange change;
    const json::object normal = internal::normalRule(rule);
    const std::string url = internal::textOf(normal, "url");
    if (enabled) {
        Statement s(db_,
                    "INSERT INTO mock_rules(device_id, url, rule, enabled, created_at, updated_at) "
                    "VALUES(?1, ?2, ?3, 1, ?4, ?4) ON CONFLICT(device_id, url) DO UPDATE SET "
                    "rule = excluded.rule, enabled = 1, updated_at = excluded.updated_at");
        s.bind(1, deviceId);
        s.bind(2, url);
        s.bind(3, json::serialize(normal));
        s.bind(4, now);
        if (!s.done()) {
            change.outcome = RuleChange::Outcome::failed;
            return change;
        }
    } else {
        Statement s(db_,
                    "UPDATE mock_rules SET enabled = 0, updated_at = ?3 "
                    "WHERE device_id = ?1 AND url = ?2");
        s.bind(1, deviceId);
        s.bind(2, url);
        s.bind(3, now);
        if (!s.done() || sqlite3_changes(db_) == 0) {
            change.outcome = RuleChange::Outcome::notFound;
            return change;
        }
    }
    Statement s(db_, std::string("SELECT ") + internal::kRuleColumns +
                         " WHERE device_id = ?1 AND url = ?2");
    s.bind(1, deviceId);
    s.bind(2, url);
    if (s.step() == SQLITE_ROW) change.row = internal::readRule(s);
    steeringChangedLocked(deviceId);
    return change;
}

RuleChange SQLiteStore::deleteRule(const std::string& deviceId, std::int64_t ruleId) {
    std::lock_guard lock(mutex_);
    RuleChange change;
    const auto row = ruleLocked(deviceId, ruleId);
    if (!row) {
        change.outcome = RuleChange::Outcome::notFound;
        return change;
    }
    change.row = *row;
    Statement s(db_, "DELETE FROM mock_rules WHERE device_id = ?1 AND id = ?2");
    s.bind(1, deviceId);
    s.bind(2, ruleId);
    if (!s.done()) {
        change.outcome = RuleChange::Outcome::failed;
        return change;
    }
    steeringChangedLocked(deviceId);
    return change;
}

bool SQLiteStore::setBreakpoints(const std::string& deviceId, bool enabled) {
    std::lock_guard lock(mutex_);
    Statement s(db_, "UPDATE devices SET breakpoints = ?2 WHERE id = ?1");
    s.bind(1, deviceId);
    s.bind(2, enabled);
    if (!s.done() || sqlite3_changes(db_) == 0) return false;
    steeringChangedLocked(deviceId);
    return true;
}

}  // namespace kestro::devservice
