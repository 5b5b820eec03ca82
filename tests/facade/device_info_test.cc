#include "kestro/facade/device_info.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <thread>
#include <vector>

#include "kestro/core/settings_store.h"
#include "kestro/facade/kestro_internal.h"
#include "support/console_capture.h"
#include "support/wait.h"

namespace kestro {
namespace {

namespace fs = std::filesystem;

constexpr const char* kMachineId = "0123456789abcdef0123456789abcdef";
// HMAC-SHA256(key = the machine id's bytes, message = application id), first 16 bytes marked
// as a version-4 UUID; computed independently of Kestro.
constexpr const char* kAppOneId = "EED58C0D-6D9D-4B60-B99E-6DCA4F8647C7";
constexpr const char* kAppTwoId = "0FF6D486-4AF1-412A-9233-6E59F31E545C";
constexpr const char* kOtherMachineAppOneId = "86A76F65-22EE-4E9B-991E-FF351BD4A0A2";

// A temporary directory of fake system files, and sources that point only into it.
class FakeSystem : public ::testing::Test {
  protected:
    void SetUp() override {
        std::string tmpl = (fs::temp_directory_path() / "kestro-device-XXXXXX").string();
        ASSERT_NE(mkdtemp(tmpl.data()), nullptr);
        dir_ = tmpl;
        sources.hostName = dir_ / "hostname";
        sources.osRelease = dir_ / "os-release";
        sources.osReleaseFallback = dir_ / "usr-lib-os-release";
        sources.kernelRelease = dir_ / "osrelease";
        sources.machineId = dir_ / "machine-id";
        sources.machineIdFallback = dir_ / "dbus-machine-id";
        sources.dmiProductName = dir_ / "product_name";
        sources.deviceTreeModel = dir_ / "model";
        sources.machine = "x86_64";
        getUserDefaults().reopen(dir_ / "settings.json");
        facade::internal::resetSharedDeviceInfo();
    }
    void TearDown() override {
        facade::internal::resetSharedDeviceInfo();
        std::error_code ec;
        fs::remove_all(dir_, ec);
    }
    void put(const fs::path& path, const std::string& text) {
        std::ofstream out(path, std::ios::binary | std::ios::trunc);
        out << text;
    }
    void putFullSystem() {
        put(sources.hostName, "build-host\n");
        put(sources.osRelease,
            "# comment line\nPRETTY_NAME=\"Debian GNU/Linux 12 (bookworm)\"\n"
            "NAME=\"Debian GNU/Linux\"\nVERSION_ID=\"12\"\nID=debian\n");
        put(sources.machineId, std::string(kMachineId) + "\n");
        put(sources.dmiProductName, "iPhone15,2\n");
    }

    DeviceFactSources sources;

  private:
    fs::path dir_;
};

using DeviceFactsTest = FakeSystem;

TEST_F(DeviceFactsTest, GathersEveryFactFromTheSystemFiles) {
    putFullSystem();
    const DeviceInfo info = gatherDeviceInfo(sources, "app.one");
    EXPECT_EQ(info, DeviceInfo("build-host", "iPhone 14 Pro", "Debian GNU/Linux", "12",
                               std::string(kAppOneId), false));
}

TEST_F(DeviceFactsTest, ApplicationIdentifierIsStableAndSeparatesApplicationsAndMachines) {
    EXPECT_EQ(appSpecificMachineId(kMachineId, "app.one"), kAppOneId);
    EXPECT_EQ(appSpecificMachineId(kMachineId, "app.one"), kAppOneId);
    EXPECT_EQ(appSpecificMachineId("0123456789ABCDEF0123456789ABCDEF", "app.one"), kAppOneId);
    EXPECT_EQ(appSpecificMachineId(kMachineId, "app.two"), kAppTwoId);
    EXPECT_EQ(appSpecificMachineId("fedcba9876543210fedcba9876543210", "app.one"),
              kOtherMachineAppOneId);
    for (const char* bad :
         {"", "uninitialized", "0123456789abcdef0123456789abcde",
          "0123456789abcdef0123456789abcdeg", "0123456789abcdef0123456789abcdef0"}) {
        EXPECT_EQ(appSpecificMachineId(bad, "app.one"), std::nullopt) << bad;
    }

    // Through the gathering: the id follows the application id, never the raw machine id.
    put(sources.machineId, kMachineId);
    EXPECT_EQ(gatherDeviceInfo(sources, "app.two").identifierForVendor, kAppTwoId);
}

TEST_F(DeviceFactsTest, MissingOrUnusableFilesFallBackSensibly) {
    // Nothing at all: kernel host name, "Linux", kernel release, the machine architecture
    // (never the simulator's marketing name), no identifier.
    {
        const DeviceInfo info = gatherDeviceInfo(sources, "app.one");
        EXPECT_FALSE(info.name.empty());
        EXPECT_EQ(info.systemName, "Linux");
        EXPECT_FALSE(info.systemVersion.empty());
        EXPECT_EQ(info.model, "x86_64");
        EXPECT_EQ(info.identifierForVendor, std::nullopt);
        EXPECT_FALSE(info.isSimulator);
    }
    // Second locations and partial contents.
    put(sources.osReleaseFallback, "NAME='Arch Linux'\nID=arch\nBUILD_ID=rolling\n");
    put(sources.kernelRelease, "6.9.1-arch1-1\n");
    put(sources.machineId, "uninitialized\n");
    put(sources.machineIdFallback, std::string(kMachineId));
    put(sources.dmiProductName, "To Be Filled By O.E.M.\n");
    put(sources.deviceTreeModel, std::string("Raspberry Pi 4 Model B Rev 1.4\0", 31));
    {
        const DeviceInfo info = gatherDeviceInfo(sources, "app.one");
        EXPECT_EQ(info.systemName, "Arch Linux");
        EXPECT_EQ(info.systemVersion, "6.9.1-arch1-1");
        EXPECT_EQ(info.identifierForVendor, kAppOneId);
        EXPECT_EQ(info.model, "Raspberry Pi 4 Model B Rev 1.4");
    }
    // The first os-release wins over the second; escapes inside quotes are undone; an empty
    // product name is as good as none; an unknown model is reported unchanged.
    put(sources.osRelease, "NAME=\"My \\\"Own\\\" OS\"\nVERSION_ID=2024.1\n");
    put(sources.dmiProductName, "\n");
    put(sources.deviceTreeModel, "");
    sources.machine = "aarch64";
    EXPECT_EQ(getDeviceModelIdentifier(sources), "aarch64");
    put(sources.dmiProductName, "ThinkCentre M70q\n");
    {
        const DeviceInfo info = gatherDeviceInfo(sources, "app.one");
        EXPECT_EQ(info.systemName, "My \"Own\" OS");
        EXPECT_EQ(info.systemVersion, "2024.1");
        EXPECT_EQ(info.model, "ThinkCentre M70q");
    }
}

TEST(DeviceModelMapTest, HoldsEveryFamilyAndTheMarketingNames) {
    const auto& map = deviceModelMap();
    ASSERT_EQ(map.size(), 214u);
    std::map<std::string, int> families;
    for (const auto& [key, value] : map) {
        EXPECT_FALSE(value.empty()) << key;
        const std::string family = key.substr(0, key.find_first_of("0123456789,"));
        ++families[key == "i386" || key == "x86_64" || key == "arm64" ? "Simulator" : family];
    }
    EXPECT_EQ(families,
              (std::map<std::string, int>{
                  {"Simulator", 3}, {"iPhone", 58}, {"iPod", 7}, {"iPad", 98}, {"Watch", 48}}));

    const std::vector<std::pair<std::string, std::string>> rows = {
        {"i386", "iPhone Simulator"},          {"x86_64", "iPhone Simulator"},
        {"arm64", "iPhone Simulator"},         {"iPhone1,1", "iPhone"},
        {"iPhone3,2", "iPhone 4 GSM Rev A"},   {"iPhone5,1", "iPhone 5 (GSM)"},
        {"iPhone10,3", "iPhone X Global"},     {"iPhone12,8", "iPhone SE 2nd Gen"},
        {"iPhone17,5", "iPhone 16e"},          {"iPod1,1", "1st Gen iPod"},
        {"iPad4,1", "iPad Air (WiFi)"},        {"iPad6,11", "iPad (2017)"},
        {"iPad6,12", "iPad (2017)"},           {"iPad8,2", "iPad Pro 11 inch 3rd Gen (1TB, WiFi)"},
        {"Watch1,1", "Apple Watch 38mm case"}, {"Watch6,18", "Apple Watch Ultra"},
        {"Watch7,5", "Apple Watch Ultra 2"},
    };
    for (const auto& [key, value] : rows) {
        ASSERT_TRUE(map.contains(key)) << key;
        EXPECT_EQ(map.at(key), value) << key;
    }

    // Lookup: real hardware identifiers get their names; the simulator rows never apply on a
    // real machine; identifiers newer than the table come back unchanged.
    EXPECT_EQ(marketingNameForIdentifier("Watch7,5"), "Apple Watch Ultra 2");
    EXPECT_EQ(marketingNameForIdentifier("x86_64"), "x86_64");
    EXPECT_EQ(marketingNameForIdentifier("arm64"), "arm64");
    EXPECT_EQ(marketingNameForIdentifier("iPhone99,1"), "iPhone99,1");
}

using SharedDeviceInfoTest = FakeSystem;

TEST_F(SharedDeviceInfoTest, PlaceholderUntilGatheredThenFirstGatheringWins) {
    const DeviceInfo placeholder("NOT_SET", "", "", "", std::string(), false);
    EXPECT_EQ(DeviceInfo::shared(), placeholder);
    DeviceInfo::setDeviceName("ignored");
    EXPECT_EQ(DeviceInfo::shared(), placeholder);

    putFullSystem();
    // Readers on other threads while the description is gathered see one or the other whole.
    std::atomic<bool> stop{false};
    std::atomic<int> torn{0};
    std::thread reader([&] {
        for (int i = 0; i < 200000 && !stop.load(); ++i) {
            const DeviceInfo d = DeviceInfo::shared();
            if (!(d == placeholder) && d.name != "build-host") ++torn;
        }
    });
    DeviceInfo::initialize(sources, "app.one");
    stop = true;
    reader.join();
    EXPECT_EQ(torn.load(), 0);
    EXPECT_EQ(DeviceInfo::shared().model, "iPhone 14 Pro");

    put(sources.hostName, "other-host\n");
    DeviceInfo::initialize(sources, "app.two");
    EXPECT_EQ(DeviceInfo::shared().name, "build-host");
    EXPECT_EQ(DeviceInfo::shared().identifierForVendor, kAppOneId);

    DeviceInfo::setDeviceName("renamed");
    EXPECT_EQ(DeviceInfo::shared(), DeviceInfo("renamed", "iPhone 14 Pro", "Debian GNU/Linux", "12",
                                               std::string(kAppOneId), false));
}

using DeviceDictionaryTest = FakeSystem;

TEST_F(DeviceDictionaryTest, EightKeysWithADescriptionSixWithout) {
    KestroInternal k;
    const std::string id = loadOrCreateUUID();
    const DeviceInfo described("host-a", "iPad (2017)", "Debian GNU/Linux", "12", std::nullopt,
                               false);

    EXPECT_EQ(k.getDeviceInfo(described), (DeviceDictionary{
                                              {"id", id},
                                              {"sdkVersion", "1.4.402"},
                                              {"platform", "linux"},
                                              {"name", "host-a"},
                                              {"model", "iPad (2017)"},
                                              {"osName", "Debian GNU/Linux"},
                                              {"osVersion", "12"},
                                              {"identifierForVendor", ""},
                                          }));
    const DeviceDictionary sixKeys = {
        {"id", id},          {"sdkVersion", "1.4.402"}, {"model", "Unknown"},
        {"name", "Unknown"}, {"osName", "Unknown"},     {"osVersion", "Unknown"},
    };
    EXPECT_EQ(k.getDeviceInfo(std::nullopt), sixKeys);

    // A custom name replaces the description's name, but not in the six-key form.
    getUserDefaults().setString(USER_DEFAULTS_KEY_DEVICE_NAME, "Team phone");
    EXPECT_EQ(k.getCustomDeviceName(), "Team phone");
    EXPECT_EQ(k.getDeviceInfo(described).at("name"), "Team phone");
    EXPECT_EQ(k.getDeviceInfo(std::nullopt), sixKeys);

    // Before the first gathering the placeholder goes out, with the custom name if stored.
    const DeviceDictionary early = k.getDeviceInfo(DeviceInfo::shared());
    EXPECT_EQ(early.at("name"), "Team phone");
    EXPECT_EQ(early.at("model"), "");
    EXPECT_EQ(early.at("osName"), "");
    EXPECT_EQ(early.at("osVersion"), "");
    EXPECT_EQ(early.at("identifierForVendor"), "");
    EXPECT_EQ(early.at("platform"), "linux");

    // The identifier is read anew for every dictionary.
    k.deleteDeviceId();
    const DeviceDictionary renewed = k.getDeviceInfo(described);
    EXPECT_NE(renewed.at("id"), id);
    EXPECT_EQ(renewed.at("id"), loadOrCreateUUID());

    // The host's own description slot is independent of the shared one.
    EXPECT_EQ(k.deviceInfo(), std::nullopt);
    k.setDeviceInfo(described);
    EXPECT_EQ(k.deviceInfo(), described);
}

TEST_F(DeviceDictionaryTest, CustomNameIsStoredAndRegisteredWhileTheGatheredNameStays) {
    KestroInternal k;
    using Sent = std::pair<std::string, DeviceDictionary>;
    auto sent = std::make_shared<test::Recorder<Sent>>();
    facade::internal::setDeviceUpload(
        k, [sent](const std::string& url, const DeviceDictionary& body, const std::string&,
                  std::function<void(RegistrationResult)> done) {
            sent->add({url, body});
            done(std::nullopt);
        });

    // Before the first gathering: stored, registered, and the gathering keeps the system's name.
    k.setCustomDeviceName("Team phone");
    EXPECT_EQ(k.getCustomDeviceName(), "Team phone");
    ASSERT_TRUE(sent->waitFor(1));
    const auto [url, body] = sent->values()[0];
    EXPECT_EQ(url, getAPIEndpoint(KestroEnvironment::dev) + "/v1/devices");
    EXPECT_EQ(body.size(), 8u);
    EXPECT_EQ(body.at("name"), "Team phone");
    EXPECT_EQ(body.at("id"), loadOrCreateUUID());
    const DeviceInfo gathered = DeviceInfo::shared();
    EXPECT_NE(gathered.name, "NOT_SET");
    EXPECT_NE(gathered.name, "Team phone");
    EXPECT_EQ(body.at("model"), gathered.model);

    // After it: the shared description is renamed too, and the device registers again.
    k.setCustomDeviceName("Second name");
    EXPECT_EQ(DeviceInfo::shared().name, "Second name");
    ASSERT_TRUE(sent->waitFor(2));
    EXPECT_EQ(sent->values()[1].second.at("name"), "Second name");
}

TEST(DeviceRegistrationTest, PostsToDevicesAndPrintsOnlyFailures) {
    struct Call {
        std::string url;
        DeviceDictionary body;
        std::string apiKey;
    };
    std::vector<Call> calls;
    const DeviceDictionary body = {{"id", "X"}, {"name", "n"}};

    test::ConsoleCapture console;
    registerDevice("http://127.0.0.1:3007", body, "kt-dev-key",
                   [&](const std::string& url, const DeviceDictionary& b, const std::string& key,
                       std::function<void(RegistrationResult)> done) {
                       calls.push_back({url, b, key});
                       done(std::nullopt);
                   });
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0].url, "http://127.0.0.1:3007/v1/devices");
    EXPECT_EQ(calls[0].body, body);
    EXPECT_EQ(calls[0].apiKey, "kt-dev-key");
    EXPECT_EQ(console.text(), "") << "success is silent";

    registerDevice("http://127.0.0.1:3007", body, "kt-dev-key",
                   [](const std::string&, const DeviceDictionary&, const std::string&,
                      std::function<void(RegistrationResult)> done) {
                       done(std::string("Could not connect to the server."));
                   });
    registerDevice("https://example.invalid", body, "",
                   [](const std::string&, const DeviceDictionary&, const std::string&,
                      std::function<void(RegistrationResult)>) {
                       throw std::runtime_error("upload exploded");
                   });
    const std::string out = console.text();
    EXPECT_NE(out.find("❌ Error: Could not connect to the server. Url: "
                       "http://127.0.0.1:3007/v1/devices"),
              std::string::npos)
        << out;
    EXPECT_NE(out.find("❌ Error: upload exploded Url: https://example.invalid/v1/devices"),
              std::string::npos)
        << out;
}

}  // namespace
}  // namespace kestro
