#pragma once

#include <boost/json/value.hpp>
#include <filesystem>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "kestro/core/export.h"

namespace kestro {

/// Keys of the settings Kestro keeps across launches.
inline constexpr const char* USER_DEFAULTS_API_KEY = "apiKey";
inline constexpr const char* USER_DEFAULTS_KEY_DEVICE_UUID = "kestroDeviceUUID";
inline constexpr const char* USER_DEFAULTS_KEY_DEVICE_NAME = "kestroDeviceName";
inline constexpr const char* USER_DEFAULTS_KEY_ENFORE_KESTRO_SHEET_IN_PRODUCTION_BUILDS =
    "enforceKestroSheetInProductionBuilds";

/// A small persistent key-value store: one JSON object in one file.
///
/// The file is read once, on first use, and its values are kept in memory; every read is
/// answered from memory. Every write updates memory and then replaces the file atomically
/// (a temporary file in the same directory is written, flushed to disk, renamed over the file,
/// and the directory is flushed), so a crash at any moment leaves either the old or the new
/// file, never a mix. Files are created readable by the owner only (they hold the API key).
///
/// Bad files and failures never throw and never lose what is in memory:
/// - a file that is not valid JSON, or whose top level is not an object, is reported with one
///   console line, set aside as "<file>.corrupt-<unix time>" when possible, and read as empty;
///   the next write creates a fresh file;
/// - a write that cannot reach the disk (read-only directory, full disk) is reported with a
///   console line; the value stays in memory, and the next write tries again.
///
/// Several processes may use the same file; each reads it once, and the last writer's file is
/// the one that stays.
///
/// Thread safety: every member may be called from any thread. Reads never wait for a write's
/// disk flush; writes are serialised, so the file always reflects the writes in the order they
/// reached memory.
class KESTRO_API SettingsStore {
  public:
    /// A store whose file is "settings.json" in dataDirectory(), resolved at first use (so
    /// KESTRO_HOME set before that use takes effect).
    SettingsStore();
    /// A store on an explicit file. Its directory is created at the first write if missing.
    explicit SettingsStore(std::filesystem::path file);
    ~SettingsStore();
    SettingsStore(const SettingsStore&) = delete;
    SettingsStore& operator=(const SettingsStore&) = delete;

    /// The file this store reads and writes.
    std::filesystem::path path() const;

    /// The text stored under key; absent if nothing or a value of another type is stored.
    std::optional<std::string> string(std::string_view key) const;
    /// The value under key read as a boolean: a boolean as it is; a number is true when it is
    /// not zero; a text is true when, after leading spaces, an optional sign and leading zeros,
    /// it starts with 'Y', 'y', 'T', 't' or a digit 1-9; anything else (or nothing) is false.
    bool boolean(std::string_view key) const;
    /// The raw JSON value under key, if any.
    std::optional<boost::json::value> value(std::string_view key) const;
    bool contains(std::string_view key) const;

    /// Writers. Each returns whether the file now holds the change (memory always does).
    bool setString(std::string_view key, std::string_view text);
    bool setBool(std::string_view key, bool flag);
    bool setValue(std::string_view key, boost::json::value value);
    bool remove(std::string_view key);

    /// The text under key if one is stored; otherwise stores make() under key and returns it.
    /// The look-up, the creation and the write happen under one lock, so concurrent callers on
    /// a store without the key all get the same text and make() runs once.
    std::string stringOrInsert(std::string_view key, const std::function<std::string()>& make);

    /// Forgets the values in memory; the next use reads the file again. The no-argument form
    /// keeps the file this store was made for (for the default store: dataDirectory() again,
    /// resolved at the next use); the other points the store at another file.
    void reopen();
    void reopen(std::filesystem::path file);

  private:
    // Applies change to the values under the locks and, if it changed anything (or an earlier
    // write did not reach the disk), replaces the file. change returns whether it changed.
    bool mutate(const std::function<bool(boost::json::object&)>& change);
    void ensureLoadedLocked() const;

    // Lock order: writeMutex_ before mutex_. mutex_ is never held during disk writes.
    std::mutex writeMutex_;
    mutable std::mutex mutex_;
    std::optional<std::filesystem::path> configuredPath_;  // absent: follow dataDirectory()
    mutable std::filesystem::path path_;
    mutable bool loaded_ = false;
    mutable boost::json::value values_;  // always an object once loaded
    bool dirty_ = false;                 // memory holds changes the file does not
};

/// The process-wide settings store (the application's "settings.json" in dataDirectory()).
/// Lives for the whole process. Any thread.
KESTRO_API SettingsStore& getUserDefaults();

/// The persistent device identifier: the text stored under "kestroDeviceUUID" if there is one
/// (returned as stored, whatever its form); otherwise a new random UUID in canonical
/// upper-case text, stored and returned. Atomic: concurrent first calls all return the same
/// identifier. Any thread.
KESTRO_API std::string loadOrCreateUUID();

/// Always true: Kestro has no separate debug flavour of its own.
KESTRO_API bool isProductionBuild();

}  // namespace kestro
