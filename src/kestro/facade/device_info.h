#pragma once

#include <filesystem>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "kestro/core/export.h"

namespace kestro {

/// The device dictionary sent with every upload and at registration ("id", "sdkVersion",
/// "platform", "name", "model", "osName", "osVersion", "identifierForVendor").
using DeviceDictionary = std::map<std::string, std::string>;

/// Where the device facts are read from. The defaults are the system's files; tests point them
/// at fake files. A path that cannot be read counts as absent and the next source is tried.
struct KESTRO_API DeviceFactSources {
    /// Kernel host name (same as gethostname(), which is the fallback).
    std::filesystem::path hostName = "/proc/sys/kernel/hostname";
    /// Operating-system identification; the second is read when the first is missing.
    std::filesystem::path osRelease = "/etc/os-release";
    std::filesystem::path osReleaseFallback = "/usr/lib/os-release";
    /// Kernel release, the version when os-release has no VERSION_ID (rolling distributions).
    std::filesystem::path kernelRelease = "/proc/sys/kernel/osrelease";
    /// 128-bit machine id as 32 hexadecimal digits; the second is the older location.
    std::filesystem::path machineId = "/etc/machine-id";
    std::filesystem::path machineIdFallback = "/var/lib/dbus/machine-id";
    /// Hardware model: the firmware's product name, then the device-tree model.
    std::filesystem::path dmiProductName = "/sys/class/dmi/id/product_name";
    std::filesystem::path deviceTreeModel = "/proc/device-tree/model";
    /// The machine architecture used when neither model file names the hardware; absent means
    /// uname()'s machine field.
    std::optional<std::string> machine;
};

/// What Kestro tells the service about the device it runs on. A plain value.
///
/// On Linux: name = host name; model = marketing name of the model identifier (see
/// getDeviceMarketingName()); systemName / systemVersion = NAME / VERSION_ID of os-release;
/// identifierForVendor = an identifier derived from the machine id and the application id, the
/// same for every run of this application on this machine, different for other applications
/// and not revealing the machine id; isSimulator = false (Kestro never runs in a simulator).
///
/// The process-wide description (shared()) is gathered once by initialize(); reading it,
/// gathering it and renaming it are safe from any thread (one lock; copies are handed out).
struct KESTRO_API DeviceInfo {
    std::string name;
    std::string model;
    std::string systemName;
    std::string systemVersion;
    std::optional<std::string> identifierForVendor;
    bool isSimulator = false;

    DeviceInfo(std::string name, std::string model, std::string systemName,
               std::string systemVersion, std::optional<std::string> identifierForVendor,
               bool isSimulator);

    /// Gathers the description from the system once per process; later calls do nothing (the
    /// first gathering wins). Any thread; the registration calls it on the global executor.
    static void initialize();
    /// Same, reading the facts from the given sources and for the given application id.
    static void initialize(const DeviceFactSources& sources, const std::string& applicationId);
    /// The gathered description, or, before the first gathering, the placeholder: name
    /// "NOT_SET", empty model, system name and version, identifierForVendor present and empty.
    static DeviceInfo shared();
    /// Renames the gathered description; does nothing before the first gathering.
    static void setDeviceName(std::string name);

    bool operator==(const DeviceInfo&) const = default;
};

/// Reads a fresh description from the sources without touching the shared one.
KESTRO_API DeviceInfo gatherDeviceInfo(const DeviceFactSources& sources,
                                       const std::string& applicationId);

/// The hardware model identifier: the firmware's product name, else the device-tree model, else
/// the machine architecture (uname's machine field, e.g. "x86_64"). Placeholder product names
/// that firmware vendors leave unfilled ("To Be Filled By O.E.M.", "System Product Name", ...)
/// count as absent.
KESTRO_API std::string getDeviceModelIdentifier(const DeviceFactSources& sources = {});

/// The marketing name for the model identifier from the model table, or the identifier itself
/// when the table has no entry. The table's simulator rows never apply, because Kestro is never
/// built for a simulator: an "x86_64" or "arm64" machine reports its architecture.
KESTRO_API std::string getDeviceMarketingName(const DeviceFactSources& sources = {});
KESTRO_API std::string marketingNameForIdentifier(std::string_view identifier);

/// The model table: hardware model identifier → marketing name (214 entries). Built once,
/// thread-safely, on first use; read-only afterwards.
KESTRO_API const std::map<std::string, std::string, std::less<>>& deviceModelMap();

/// The application-specific machine identifier: HMAC-SHA256 keyed with the 16 bytes of the
/// machine id over the application id's bytes, the first 16 bytes of the digest marked as a
/// version-4 UUID, in canonical upper-case text. Absent when machineIdHex is not 32 hexadecimal
/// digits (or the digest cannot be computed).
KESTRO_API std::optional<std::string> appSpecificMachineId(std::string_view machineIdHex,
                                                           std::string_view applicationId);

/// The result of one registration upload: nothing on success, else a description of the error.
using RegistrationResult = std::optional<std::string>;

/// The operation that posts one device dictionary: (URL, body, API key, completion). The
/// completion may be called on any thread, at most once.
using DeviceUpload =
    std::function<void(const std::string& url, const DeviceDictionary& body,
                       const std::string& apiKey, std::function<void(RegistrationResult)>)>;

/// One device registration: posts body to endpoint + "/v1/devices" through upload with apiKey;
/// a failure is printed as "❌ Error: <description> Url: <url>" at error level, success is
/// silent. Never throws (an upload that throws counts as a failure).
KESTRO_API void registerDevice(const std::string& endpoint, const DeviceDictionary& body,
                               const std::string& apiKey, const DeviceUpload& upload);

namespace facade::internal {
/// Drops the shared description so that a test can gather it again.
KESTRO_API void resetSharedDeviceInfo();
}  // namespace facade::internal

}  // namespace kestro
