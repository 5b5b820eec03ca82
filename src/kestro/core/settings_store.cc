#include "kestro/core/settings_store.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <boost/json/parse.hpp>
#include <boost/json/serialize.hpp>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstring>
#include <system_error>
#include <utility>

#include "kestro/core/console.h"
#include "kestro/core/data_directory.h"
#include "kestro/core/uuid.h"

namespace kestro {
namespace core::internal {
namespace {

// Settings are a handful of short texts; anything far larger is not ours.
constexpr off_t kMaxFileSize = 4 * 1024 * 1024;

std::string errnoText(int err) { return std::error_code(err, std::generic_category()).message(); }

enum class ReadOutcome { missing, ok, failed };

ReadOutcome readWholeFile(const std::filesystem::path& file, std::string& out, std::string& error) {
    const int fd = ::open(file.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        if (errno == ENOENT || errno == ENOTDIR) return ReadOutcome::missing;
        error = errnoText(errno);
        return ReadOutcome::failed;
    }
    struct stat st {};
    if (::fstat(fd, &st) != 0) {
        error = errnoText(errno);
        ::close(fd);
        return ReadOutcome::failed;
    }
    if (st.st_size > kMaxFileSize) {
        error = "file too large (" + std::to_string(st.st_size) + " bytes)";
        ::close(fd);
        return ReadOutcome::failed;
    }
    out.clear();
    char buf[16384];
    for (;;) {
        const ssize_t n = ::read(fd, buf, sizeof buf);
        if (n < 0) {
            if (errno == EINTR) continue;
            error = errnoText(errno);
            ::close(fd);
            return ReadOutcome::failed;
        }
        if (n == 0) break;
        out.append(buf, static_cast<std::size_t>(n));
        if (out.size() > static_cast<std::size_t>(kMaxFileSize)) {
            error = "file too large";
            ::close(fd);
            return ReadOutcome::failed;
        }
    }
    ::close(fd);
    return ReadOutcome::ok;
}

bool writeAll(int fd, std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t n = ::write(fd, bytes.data(), bytes.size());
        if (n < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        bytes.remove_prefix(static_cast<std::size_t>(n));
    }
    return true;
}

// Replaces file with text so that readers (and a crash at any point) see either the old or
// the new content: write a temporary file beside it, flush it, rename it over the file, then
// flush the directory so the rename itself survives a power loss.
bool replaceFileAtomically(const std::filesystem::path& file, std::string_view text,
                           std::string& error) {
    std::filesystem::path dir = file.parent_path();
    if (dir.empty()) dir = ".";
    std::error_code ec;
    std::filesystem::create_directories(dir, ec);  // a failure shows up at mkostemp

    std::string tmp = (dir / ("." + file.filename().string() + ".XXXXXX")).string();
    const int fd = ::mkostemp(tmp.data(), O_CLOEXEC);  // mode 0600
    if (fd < 0) {
        error = "cannot create a temporary file in " + dir.string() + ": " + errnoText(errno);
        return false;
    }
    const auto fail = [&](const char* what) {
        error = std::string(what) + ": " + errnoText(errno);
        ::unlink(tmp.c_str());
        return false;
    };
    if (!writeAll(fd, text)) {
        const int err = errno;
        ::close(fd);
        errno = err;
        return fail("cannot write");
    }
    if (::fsync(fd) != 0) {
        const int err = errno;
        ::close(fd);
        errno = err;
        return fail("cannot flush");
    }
    if (::close(fd) != 0) return fail("cannot close");
    if (::rename(tmp.c_str(), file.c_str()) != 0) return fail("cannot rename");

    // Some file systems refuse fsync on a directory; the rename is done either way.
    const int dirFd = ::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (dirFd >= 0) {
        (void)::fsync(dirFd);
        ::close(dirFd);
    }
    return true;
}

bool textReadsTrue(std::string_view s) {
    std::size_t i = 0;
    while (i < s.size() && (s[i] == ' ' || s[i] == '\t' || s[i] == '\n' || s[i] == '\r')) ++i;
    if (i < s.size() && (s[i] == '+' || s[i] == '-')) ++i;
    while (i < s.size() && s[i] == '0') ++i;
    if (i == s.size()) return false;
    const char c = s[i];
    return c == 'Y' || c == 'y' || c == 'T' || c == 't' || (c >= '1' && c <= '9');
}

}  // namespace
}  // namespace core::internal

using namespace core::internal;

SettingsStore::SettingsStore() = default;
SettingsStore::SettingsStore(std::filesystem::path file) : configuredPath_(std::move(file)) {}
SettingsStore::~SettingsStore() = default;

void SettingsStore::ensureLoadedLocked() const {
    if (loaded_) return;
    loaded_ = true;
    values_ = boost::json::object();
    path_ = configuredPath_ ? *configuredPath_ : dataDirectory() / "settings.json";

    std::string text;
    std::string error;
    switch (readWholeFile(path_, text, error)) {
        case ReadOutcome::missing:
            return;
        case ReadOutcome::failed:
            printI("❌ Settings could not be read from " + path_.string() + ": " + error +
                       "; starting with empty settings",
                   LogLevel::error);
            return;
        case ReadOutcome::ok:
            break;
    }
    if (text.empty()) return;  // an empty file holds no settings; not worth a warning

    boost::system::error_code ec;
    boost::json::value parsed;
    try {
        parsed = boost::json::parse(text, ec);
    } catch (const std::exception&) {  // allocation failure on absurd input
        ec = boost::json::make_error_code(boost::json::error::exception);
    }
    if (!ec && parsed.is_object()) {
        values_ = std::move(parsed);
        return;
    }

    // Keep the unreadable file for inspection instead of silently overwriting it later.
    const auto stamp = std::chrono::duration_cast<std::chrono::seconds>(
                           std::chrono::system_clock::now().time_since_epoch())
                           .count();
    const std::filesystem::path aside = path_.string() + ".corrupt-" + std::to_string(stamp);
    std::string keptAs;
    if (::rename(path_.c_str(), aside.c_str()) == 0) keptAs = "; kept as " + aside.string();
    const std::string reason =
        ec ? "not valid JSON (" + ec.message() + ")" : std::string("not a JSON object");
    printI("⚠️ Settings file " + path_.string() + " is " + reason + keptAs +
               "; starting with empty settings",
           LogLevel::warning);
}

std::filesystem::path SettingsStore::path() const {
    std::lock_guard lock(mutex_);
    ensureLoadedLocked();
    return path_;
}

std::optional<boost::json::value> SettingsStore::value(std::string_view key) const {
    std::lock_guard lock(mutex_);
    ensureLoadedLocked();
    const auto& obj = values_.get_object();
    if (auto it = obj.find(key); it != obj.end()) return it->value();
    return std::nullopt;
}

std::optional<std::string> SettingsStore::string(std::string_view key) const {
    std::lock_guard lock(mutex_);
    ensureLoadedLocked();
    const auto& obj = values_.get_object();
    auto it = obj.find(key);
    if (it == obj.end() || !it->value().is_string()) return std::nullopt;
    const auto& s = it->value().get_string();
    return std::string(s.data(), s.size());
}

bool SettingsStore::boolean(std::string_view key) const {
    std::lock_guard lock(mutex_);
    ensureLoadedLocked();
    const auto& obj = values_.get_object();
    auto it = obj.find(key);
    if (it == obj.end()) return false;
    const auto& v = it->value();
    switch (v.kind()) {
        case boost::json::kind::bool_:
            return v.get_bool();
        case boost::json::kind::int64:
            return v.get_int64() != 0;
        case boost::json::kind::uint64:
            return v.get_uint64() != 0;
        case boost::json::kind::double_:
            return !std::isnan(v.get_double()) && v.get_double() != 0.0;
        case boost::json::kind::string:
            return textReadsTrue(std::string_view(v.get_string().data(), v.get_string().size()));
        default:
            return false;
    }
}

bool SettingsStore::contains(std::string_view key) const {
    std::lock_guard lock(mutex_);
    ensureLoadedLocked();
    return values_.get_object().contains(key);
}

bool SettingsStore::mutate(const std::function<bool(boost::json::object&)>& change) {
    std::lock_guard writeLock(writeMutex_);
    std::string text;
    std::filesystem::path file;
    {
        std::lock_guard lock(mutex_);
        ensureLoadedLocked();
        const bool changed = change(values_.get_object());
        if (!changed && !dirty_) return true;
        dirty_ = true;
        text = boost::json::serialize(values_);
        file = path_;
    }
    std::string error;
    const bool ok = replaceFileAtomically(file, text, error);
    if (!ok) {
        printI("❌ Settings could not be saved to " + file.string() + ": " + error +
                   " (kept in memory for this run)",
               LogLevel::error);
    }
    // writeMutex_ is still held, so no other write or reopen slipped in since the snapshot.
    std::lock_guard lock(mutex_);
    dirty_ = !ok;
    return ok;
}

bool SettingsStore::setValue(std::string_view key, boost::json::value value) {
    try {
        return mutate([&](boost::json::object& obj) {
            auto it = obj.find(key);
            if (it != obj.end() && it->value() == value) return false;
            obj[key] = std::move(value);
            return true;
        });
    } catch (const std::exception& e) {
        printI(std::string("❌ Settings could not be changed: ") + e.what(), LogLevel::error);
        return false;
    }
}

bool SettingsStore::setString(std::string_view key, std::string_view text) {
    return setValue(key, boost::json::value(boost::json::string(text)));
}

bool SettingsStore::setBool(std::string_view key, bool flag) {
    return setValue(key, boost::json::value(flag));
}

bool SettingsStore::remove(std::string_view key) {
    try {
        return mutate([&](boost::json::object& obj) { return obj.erase(key) > 0; });
    } catch (const std::exception& e) {
        printI(std::string("❌ Settings could not be changed: ") + e.what(), LogLevel::error);
        return false;
    }
}

std::string SettingsStore::stringOrInsert(std::string_view key,
                                          const std::function<std::string()>& make) {
    if (auto existing = string(key)) return *existing;  // the common case: no write lock
    std::string result;
    try {
        mutate([&](boost::json::object& obj) {
            // Another caller may have stored it while this one waited for the write lock.
            if (auto it = obj.find(key); it != obj.end() && it->value().is_string()) {
                const auto& s = it->value().get_string();
                result.assign(s.data(), s.size());
                return false;
            }
            result = make();
            obj[key] = boost::json::string(result);
            return true;
        });
    } catch (const std::exception& e) {
        printI(std::string("❌ Settings could not be changed: ") + e.what(), LogLevel::error);
    }
    return result;
}

void SettingsStore::reopen() {
    std::lock_guard writeLock(writeMutex_);
    std::lock_guard lock(mutex_);
    loaded_ = false;
    dirty_ = false;
    values_ = nullptr;
}

void SettingsStore::reopen(std::filesystem::path file) {
    std::lock_guard writeLock(writeMutex_);
    std::lock_guard lock(mutex_);
    configuredPath_ = std::move(file);
    loaded_ = false;
    dirty_ = false;
    values_ = nullptr;
}

SettingsStore& getUserDefaults() {
    // Never destroyed: capture work on other threads may still use it while the process exits.
    static SettingsStore* store = new SettingsStore();
    return *store;
}

std::string loadOrCreateUUID() {
    return getUserDefaults().stringOrInsert(USER_DEFAULTS_KEY_DEVICE_UUID,
                                            [] { return newUUIDString(); });
}

bool isProductionBuild() { return true; }

}  // namespace kestro
