#pragma once

#include <gtest/gtest.h>
#include <sqlite3.h>
#include <stdlib.h>

#include <boost/json.hpp>
#include <filesystem>
#include <string>

#include "kestro/core/console.h"
#include "kestro/core/uuid.h"
#include "kestro/records/records.h"

namespace kestro::test {

inline TimePoint atSeconds(double seconds) { return fromSecondsSince1970(seconds); }

inline RequestEventType logRecord(std::string id, double createdAt,
                                  std::string message = "request finished",
                                  std::string level = "info") {
    return RequestTypeLog{
        std::move(id),
        "log",
        std::move(level),
        atSeconds(createdAt + 0.25),
        atSeconds(createdAt),
        {std::move(message), "com.example.app", "network", "/src/app/client.cc", "client.cc", 42}};
}

inline RequestEventType eventRecord(std::string id, double createdAt) {
    return RequestTypeEvent{
        std::move(id),
        "event",
        atSeconds(createdAt),
        atSeconds(createdAt),
        {"Checkout", "commerce",
         boost::json::parse(R"({"total":12.5,"items":[1,{"sku":"x"}],"n":null})").as_object()}};
}

inline RequestEventType networkRecord(std::string id, double createdAt, bool withResponse) {
    RequestTypeRequest r{std::move(id), "network", {}, atSeconds(createdAt), atSeconds(createdAt)};
    r.details.request = RequestTypeRequestDetailsRequest{"https://example.test/items?page=2",
                                                         "GET",
                                                         {{"Accept", "application/json"}},
                                                         atSeconds(createdAt),
                                                         ""};
    if (withResponse) {
        r.details.response = RequestTypeRequestDetailsResponse{
            200, {{"Content-Type", "application/json"}}, atSeconds(createdAt + 0.1), "[1,2,3]"};
    }
    return r;
}

/// A fresh directory under the system's temporary folder, removed with everything in it.
class TempDir {
  public:
    TempDir() {
        std::string pattern =
            (std::filesystem::temp_directory_path() / "kestro-store-XXXXXX").string();
        if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
        path_ = pattern;
    }
    ~TempDir() {
        std::error_code ec;
        std::filesystem::permissions(path_, std::filesystem::perms::owner_all,
                                     std::filesystem::perm_options::add, ec);
        std::filesystem::remove_all(path_, ec);
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::filesystem::path& path() const { return path_; }
    std::filesystem::path file(const std::string& name) const { return path_ / name; }

  private:
    std::filesystem::path path_;
};

/// Shows verbose console lines for the length of a test, so that they can be checked.
class VerboseConsole {
  public:
    VerboseConsole() : saved_(consoleLevel()) { setConsoleLevel(LogLevel::verbose); }
    ~VerboseConsole() { setConsoleLevel(saved_); }

  private:
    LogLevel saved_;
};

/// A raw connection to a database file, for arranging and checking rows behind the store's
/// back.
class RawDatabase {
  public:
    explicit RawDatabase(const std::filesystem::path& path) {
        if (sqlite3_open(path.c_str(), &db_) != SQLITE_OK) {
            ADD_FAILURE() << "cannot open " << path << ": " << sqlite3_errmsg(db_);
        }
        sqlite3_busy_timeout(db_, 5000);
    }
    ~RawDatabase() { sqlite3_close(db_); }
    RawDatabase(const RawDatabase&) = delete;
    RawDatabase& operator=(const RawDatabase&) = delete;

    void exec(const std::string& sql) {
        char* error = nullptr;
        if (sqlite3_exec(db_, sql.c_str(), nullptr, nullptr, &error) != SQLITE_OK) {
            ADD_FAILURE() << sql << ": " << (error ? error : "?");
        }
        sqlite3_free(error);
    }
    /// The first column of the first row as text ("" when there is none or it is NULL).
    std::string text(const std::string& sql) {
        sqlite3_stmt* s = nullptr;
        std::string out;
        if (sqlite3_prepare_v2(db_, sql.c_str(), -1, &s, nullptr) == SQLITE_OK &&
            sqlite3_step(s) == SQLITE_ROW && sqlite3_column_text(s, 0) != nullptr) {
            out = reinterpret_cast<const char*>(sqlite3_column_text(s, 0));
        }
        sqlite3_finalize(s);
        return out;
    }
    sqlite3* get() const { return db_; }

  private:
    sqlite3* db_ = nullptr;
};

}  // namespace kestro::test
