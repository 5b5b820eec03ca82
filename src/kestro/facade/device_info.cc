#include "kestro/facade/device_info.h"

#include "kestro/network/tls_runtime.h"

#include <fcntl.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <climits>
#include <cstdint>
#include <mutex>
#include <utility>

#include "kestro/core/config.h"
#include "kestro/core/console.h"
#include "kestro/core/data_directory.h"

namespace kestro {
namespace facade::internal {
namespace {

// Every fact file is a line or a few dozen lines; a bound keeps a strange file (a FIFO, a
// huge file put there by mistake) from stalling or bloating the gathering.
constexpr std::size_t kMaxFactFileSize = 64 * 1024;

std::optional<std::string> readFactFile(const std::filesystem::path& path) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0) return std::nullopt;
    std::string out;
    char buf[4096];
    while (out.size() < kMaxFactFileSize) {
        const ssize_t n = ::read(fd, buf, sizeof buf);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        out.append(buf, static_cast<std::size_t>(n));
    }
    ::close(fd);
    if (out.size() > kMaxFactFileSize) out.resize(kMaxFactFileSize);
    return out;
}

// Trims white space and NUL bytes (device-tree strings end with one).
std::string trimmed(std::string_view s) {
    const auto junk = [](char c) {
        return c == '\0' || std::isspace(static_cast<unsigned char>(c));
    };
    while (!s.empty() && junk(s.front())) s.remove_prefix(1);
    while (!s.empty() && junk(s.back())) s.remove_suffix(1);
    return std::string(s);
}

std::string firstLine(std::string_view s) {
    const auto nl = s.find('\n');
    return trimmed(nl == std::string_view::npos ? s : s.substr(0, nl));
}

// One os-release value: unquoted, or in single or double quotes with backslash escapes.
std::string osReleaseValue(std::string_view raw) {
    std::string v = trimmed(raw);
    if (v.size() >= 2 && (v.front() == '"' || v.front() == '\'') && v.back() == v.front()) {
        const std::string_view inner(v.data() + 1, v.size() - 2);
        std::string out;
        for (std::size_t i = 0; i < inner.size(); ++i) {
            if (inner[i] == '\\' && i + 1 < inner.size()) ++i;
            out += inner[i];
        }
        return out;
    }
    return v;
}

std::optional<std::string> osReleaseField(const std::string& text, std::string_view key) {
    std::size_t pos = 0;
    std::optional<std::string> found;
    while (pos <= text.size()) {
        auto end = text.find('\n', pos);
        if (end == std::string::npos) end = text.size();
        const std::string line = trimmed(std::string_view(text).substr(pos, end - pos));
        pos = end + 1;
        if (line.empty() || line.front() == '#') continue;
        const auto eq = line.find('=');
        if (eq == std::string::npos || std::string_view(line).substr(0, eq) != key) continue;
        found = osReleaseValue(std::string_view(line).substr(eq + 1));  // the last one counts
    }
    return found;
}

std::string hostName(const DeviceFactSources& sources) {
    if (auto text = readFactFile(sources.hostName)) {
        if (auto name = firstLine(*text); !name.empty()) return name;
    }
    char buf[HOST_NAME_MAX + 1] = {};
    if (::gethostname(buf, sizeof buf - 1) == 0 && buf[0] != '\0') return buf;
    return "localhost";
}

int hexDigit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

std::optional<std::string> machineIdHex(const DeviceFactSources& sources) {
    for (const auto* path : {&sources.machineId, &sources.machineIdFallback}) {
        if (auto text = readFactFile(*path)) {
            auto id = firstLine(*text);
            // A machine that has not finished its first boot reads "uninitialized".
            if (id.size() == 32 &&
                std::all_of(id.begin(), id.end(), [](char c) { return hexDigit(c) >= 0; })) {
                return id;
            }
        }
    }
    return std::nullopt;
}

bool isPlaceholderProductName(std::string_view name) {
    static constexpr std::array<std::string_view, 9> kPlaceholders = {"to be filled by o.e.m.",
                                                                      "system product name",
                                                                      "default string",
                                                                      "not applicable",
                                                                      "none",
                                                                      "not specified",
                                                                      "system name",
                                                                      "type1productconfigid",
                                                                      "o.e.m."};
    std::string lower;
    for (char c : name) lower += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    for (auto p : kPlaceholders)
        if (lower == p) return true;
    return false;
}

// The process-wide description lives for the whole process and is never destroyed: the
// registration gathers it on the executor, which may still be at it while the process exits
// and destroys its statics.
struct SharedDeviceInfo {
    std::mutex mutex;
    std::optional<DeviceInfo> instance;  // guarded by mutex
};
SharedDeviceInfo& sharedDeviceInfo() {
    static auto* shared = new SharedDeviceInfo;
    return *shared;
}

}  // namespace

void resetSharedDeviceInfo() {
    auto& shared = sharedDeviceInfo();
    std::lock_guard lock(shared.mutex);
    shared.instance.reset();
}

}  // namespace facade::internal

using namespace facade::internal;

DeviceInfo::DeviceInfo(std::string name, std::string model, std::string systemName,
                       std::string systemVersion, std::optional<std::string> identifierForVendor,
                       bool isSimulator)
    : name(std::move(name)),
      model(std::move(model)),
      systemName(std::move(systemName)),
      systemVersion(std::move(systemVersion)),
      identifierForVendor(std::move(identifierForVendor)),
      isSimulator(isSimulator) {}

std::optional<std::string> appSpecificMachineId(std::string_view machineIdHex,
                                                std::string_view applicationId) {
    if (machineIdHex.size() != 32) return std::nullopt;
    std::array<unsigned char, 16> key{};
    for (std::size_t i = 0; i < 16; ++i) {
        const int hi = hexDigit(machineIdHex[2 * i]);
        const int lo = hexDigit(machineIdHex[2 * i + 1]);
        if (hi < 0 || lo < 0) return std::nullopt;
        key[i] = static_cast<unsigned char>(hi * 16 + lo);
    }
    initTLSRuntime();
    std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
    unsigned int digestLength = 0;
    if (HMAC(EVP_sha256(), key.data(), static_cast<int>(key.size()),
             reinterpret_cast<const unsigned char*>(applicationId.data()), applicationId.size(),
             digest.data(), &digestLength) == nullptr ||
        digestLength < 16) {
        return std::nullopt;
    }
    // Mark the truncated digest as a random (version 4, RFC 4122 variant) UUID, as systemd
    // does for its application-specific machine ids.
    digest[6] = static_cast<unsigned char>((digest[6] & 0x0F) | 0x40);
    digest[8] = static_cast<unsigned char>((digest[8] & 0x3F) | 0x80);
    static constexpr char kHex[] = "0123456789ABCDEF";
    std::string out;
    out.reserve(36);
    for (std::size_t i = 0; i < 16; ++i) {
        if (i == 4 || i == 6 || i == 8 || i == 10) out += '-';
        out += kHex[digest[i] >> 4];
        out += kHex[digest[i] & 0x0F];
    }
    return out;
}

std::string getDeviceModelIdentifier(const DeviceFactSources& sources) {
    if (auto text = readFactFile(sources.dmiProductName)) {
        if (auto name = firstLine(*text); !name.empty() && !isPlaceholderProductName(name)) {
            return name;
        }
    }
    if (auto text = readFactFile(sources.deviceTreeModel)) {
        if (auto name = trimmed(*text); !name.empty()) return name;
    }
    if (sources.machine) return *sources.machine;
    utsname u{};
    if (::uname(&u) == 0 && u.machine[0] != '\0') return u.machine;
    return "unknown";
}

std::string marketingNameForIdentifier(std::string_view identifier) {
    // The simulator rows name a simulator running on a desktop; a Linux machine reporting the
    // same architecture is real hardware and keeps its identifier.
    if (identifier == "i386" || identifier == "x86_64" || identifier == "arm64") {
        return std::string(identifier);
    }
    const auto& map = deviceModelMap();
    if (auto it = map.find(identifier); it != map.end()) return it->second;
    return std::string(identifier);
}

std::string getDeviceMarketingName(const DeviceFactSources& sources) {
    return marketingNameForIdentifier(getDeviceModelIdentifier(sources));
}

DeviceInfo gatherDeviceInfo(const DeviceFactSources& sources, const std::string& applicationId) {
    std::optional<std::string> osRelease = readFactFile(sources.osRelease);
    if (!osRelease) osRelease = readFactFile(sources.osReleaseFallback);
    const std::string releaseText = osRelease.value_or("");

    // os-release's own default for a missing NAME is "Linux".
    std::string systemName = osReleaseField(releaseText, "NAME").value_or("");
    if (systemName.empty()) systemName = "Linux";
    std::string systemVersion = osReleaseField(releaseText, "VERSION_ID").value_or("");
    if (systemVersion.empty()) {
        if (auto kernel = readFactFile(sources.kernelRelease)) systemVersion = firstLine(*kernel);
    }
    if (systemVersion.empty()) {
        utsname u{};
        if (::uname(&u) == 0) systemVersion = u.release;
    }

    std::optional<std::string> vendorId;
    if (auto machineId = machineIdHex(sources)) {
        vendorId = appSpecificMachineId(*machineId, applicationId);
    }

    return DeviceInfo(hostName(sources), getDeviceMarketingName(sources), std::move(systemName),
                      std::move(systemVersion), std::move(vendorId), /*isSimulator=*/false);
}

void DeviceInfo::initialize() { initialize(DeviceFactSources{}, applicationId()); }

void DeviceInfo::initialize(const DeviceFactSources& sources, const std::string& applicationId) {
    auto& shared = sharedDeviceInfo();
    {
        std::lock_guard lock(shared.mutex);
        if (shared.instance) return;
    }
    // Gathered outside the lock (it reads files); the first one stored wins.
    DeviceInfo gathered = gatherDeviceInfo(sources, applicationId);
    std::lock_guard lock(shared.mutex);
    if (!shared.instance) shared.instance = std::move(gathered);
}

DeviceInfo DeviceInfo::shared() {
    auto& shared = sharedDeviceInfo();
    std::lock_guard lock(shared.mutex);
    if (shared.instance) return *shared.instance;
    return DeviceInfo("NOT_SET", "", "", "", std::string(), false);
}

void DeviceInfo::setDeviceName(std::string name) {
    auto& shared = sharedDeviceInfo();
    std::lock_guard lock(shared.mutex);
    if (shared.instance) shared.instance->name = std::move(name);
}

void registerDevice(const std::string& endpoint, const DeviceDictionary& body,
                    const std::string& apiKey, const DeviceUpload& upload) {
    const std::string url = endpoint + "/v1/devices";
    auto onDone = [url](RegistrationResult error) {
        if (error) printI("❌ Error: " + *error + " Url: " + url, LogLevel::error);
    };
    if (!upload) {
        onDone(std::string("no upload is available"));
        return;
    }
    try {
        upload(url, body, apiKey, std::move(onDone));
    } catch (const std::exception& e) {
        printI("❌ Error: " + std::string(e.what()) + " Url: " + url, LogLevel::error);
    } catch (...) {
        printI("❌ Error: the upload failed Url: " + url, LogLevel::error);
    }
}

}  // namespace kestro
