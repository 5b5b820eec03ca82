#include <gtest/gtest.h>
#include <unistd.h>

#include <boost/json/parse.hpp>
#include <filesystem>
#include <fstream>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "kestro/core/settings_store.h"
#include "kestro/facade/kestro_internal.h"

namespace kestro {
namespace {

namespace fs = std::filesystem;

const std::regex kCanonicalUUID("[0-9A-F]{8}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{12}");

// Points the process-wide settings store at a fresh file in a temporary directory.
class SettingsFixture : public ::testing::Test {
  protected:
    void SetUp() override {
        std::string tmpl = (fs::temp_directory_path() / "kestro-facade-XXXXXX").string();
        ASSERT_NE(mkdtemp(tmpl.data()), nullptr);
        dir_ = tmpl;
        getUserDefaults().reopen(file());
    }
    void TearDown() override {
        std::error_code ec;
        fs::remove_all(dir_, ec);
    }
    fs::path file() const { return dir_ / "settings.json"; }
    boost::json::value onDisk() const {
        std::ifstream in(file());
        std::stringstream ss;
        ss << in.rdbuf();
        boost::system::error_code ec;
        auto v = boost::json::parse(ss.str(), ec);
        return ec ? boost::json::value() : v;
    }

  private:
    fs::path dir_;
};

TEST(APIKeyRuleTest, OnlyTheTwoCaseSensitivePrefixesAreAccepted) {
    KestroInternal k;
    const std::vector<std::pair<std::string, bool>> cases = {
        {"kt-prod-", true},
        {"kt-dev-", true},
        {"kt-prod-0123456789abcdef", true},
        {"kt-dev-anything at all", true},
        {"KT-PROD-abc", false},
        {"kt-Dev-abc", false},
        {"kt-prod", false},
        {"kt-dev", false},
        {"kt-prodabc", false},
        {" kt-prod-abc", false},
        {"kt-staging-1", false},
        {"kt--prod-1", false},
        {"", false},
    };
    for (const auto& [key, valid] : cases) EXPECT_EQ(k.isValidAPIKey(key), valid) << "'" << key;
}

using APIKeyStorageTest = SettingsFixture;

TEST_F(APIKeyStorageTest, SaveGetAndClearUseTheStoreAndLeaveTheKeyInUseAlone) {
    KestroInternal k;
    EXPECT_EQ(k.getSavedAPIKey(), std::nullopt);

    k.saveAPIKey("kt-dev-saved");
    EXPECT_EQ(k.getSavedAPIKey(), "kt-dev-saved");
    EXPECT_EQ(k.getAPIKey(), "") << "saving does not change the key in use";
    EXPECT_EQ(onDisk().at(USER_DEFAULTS_API_KEY), "kt-dev-saved");

    // The saved key survives a restart (a store reading the file afresh).
    getUserDefaults().reopen();
    EXPECT_EQ(KestroInternal().getSavedAPIKey(), "kt-dev-saved");

    // A value of another type under the key reads as no saved key.
    getUserDefaults().setValue(USER_DEFAULTS_API_KEY, 42);
    EXPECT_EQ(k.getSavedAPIKey(), std::nullopt);

    k.saveAPIKey("kt-prod-again");
    k.clearAPIKey();
    EXPECT_EQ(k.getSavedAPIKey(), std::nullopt);
    EXPECT_EQ(k.getAPIKey(), "");
    EXPECT_FALSE(onDisk().as_object().contains(USER_DEFAULTS_API_KEY));
}

using DeviceIdentifierTest = SettingsFixture;

TEST_F(DeviceIdentifierTest, CreatedOnceKeptUntilDeletedThenReplaced) {
    const std::string first = loadOrCreateUUID();
    EXPECT_TRUE(std::regex_match(first, kCanonicalUUID)) << first;
    EXPECT_EQ(loadOrCreateUUID(), first);
    EXPECT_EQ(onDisk().at(USER_DEFAULTS_KEY_DEVICE_UUID), first.c_str());

    getUserDefaults().reopen();  // next launch
    EXPECT_EQ(loadOrCreateUUID(), first);

    KestroInternal().deleteDeviceId();
    EXPECT_FALSE(onDisk().as_object().contains(USER_DEFAULTS_KEY_DEVICE_UUID));
    const std::string second = loadOrCreateUUID();
    EXPECT_NE(second, first);
    EXPECT_TRUE(std::regex_match(second, kCanonicalUUID)) << second;

    // A stored identifier is returned as it is, whatever its form; a non-text one is replaced.
    getUserDefaults().setString(USER_DEFAULTS_KEY_DEVICE_UUID, "legacy-id");
    EXPECT_EQ(loadOrCreateUUID(), "legacy-id");
    getUserDefaults().setValue(USER_DEFAULTS_KEY_DEVICE_UUID, 7);
    EXPECT_TRUE(std::regex_match(loadOrCreateUUID(), kCanonicalUUID));
}

TEST_F(DeviceIdentifierTest, SixteenConcurrentFirstCallersGetOneIdentifier) {
    std::vector<std::string> ids(16);
    std::vector<std::thread> threads;
    for (std::size_t t = 0; t < ids.size(); ++t) {
        threads.emplace_back([&ids, t] { ids[t] = loadOrCreateUUID(); });
    }
    for (auto& th : threads) th.join();
    const std::set<std::string> distinct(ids.begin(), ids.end());
    ASSERT_EQ(distinct.size(), 1u);
    EXPECT_EQ(onDisk().at(USER_DEFAULTS_KEY_DEVICE_UUID), ids[0].c_str());
}

using InspectorSwitchTest = SettingsFixture;

TEST_F(InspectorSwitchTest, StoredSwitchIsReadLiveButTheFieldOnlyAtConstruction) {
    KestroInternal before;
    EXPECT_FALSE(before.useDebugWindowInProductionBuilds());
    EXPECT_FALSE(before.enforceKestroSheetInProductionBuilds);

    before.setDebugWindowInProductionBuilds(true);
    EXPECT_TRUE(before.useDebugWindowInProductionBuilds());
    EXPECT_FALSE(before.enforceKestroSheetInProductionBuilds);
    EXPECT_EQ(onDisk().at(USER_DEFAULTS_KEY_ENFORE_KESTRO_SHEET_IN_PRODUCTION_BUILDS), true);

    KestroInternal after;
    EXPECT_TRUE(after.enforceKestroSheetInProductionBuilds);
    after.setDebugWindowInProductionBuilds(false);
    EXPECT_FALSE(after.useDebugWindowInProductionBuilds());
    EXPECT_TRUE(after.enforceKestroSheetInProductionBuilds);

    // A text value written by other means is read by conversion.
    getUserDefaults().setString(USER_DEFAULTS_KEY_ENFORE_KESTRO_SHEET_IN_PRODUCTION_BUILDS, "YES");
    EXPECT_TRUE(after.useDebugWindowInProductionBuilds());
    getUserDefaults().setString(USER_DEFAULTS_KEY_ENFORE_KESTRO_SHEET_IN_PRODUCTION_BUILDS, "nope");
    EXPECT_FALSE(after.useDebugWindowInProductionBuilds());
}

TEST(BuildKindTest, DistributionChannelDecidesTheBuildQueries) {
    using facade::internal::buildKindOf;
    struct Row {
        const char* channel;
        bool testDistribution;
        bool store;
    };
    for (const Row& row :
         {Row{"development", false, false}, Row{"beta", true, false}, Row{"store", false, true},
          Row{"Store", false, false}, Row{"", false, false}}) {
        const auto kind = buildKindOf(row.channel);
        EXPECT_EQ(kind.testDistribution, row.testDistribution) << row.channel;
        EXPECT_EQ(kind.store, row.store) << row.channel;
    }
}

}  // namespace
}  // namespace kestro
