#include "kestro/core/settings_store.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <boost/json/parse.hpp>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "support/console_capture.h"
#include "support/wait.h"

extern char** environ;

namespace kestro {
namespace {

namespace fs = std::filesystem;

// ---------------------------------------------------------------------------------------------
// Child processes. The test binary re-executes itself with KESTRO_SETTINGS_CHILD set; the child
// does its work from a static initializer, before GoogleTest (or any thread) starts, and exits.

constexpr const char* kChildMode = "KESTRO_SETTINGS_CHILD";
constexpr const char* kChildFile = "KESTRO_SETTINGS_CHILD_FILE";
constexpr const char* kChildValue = "KESTRO_SETTINGS_CHILD_VALUE";

std::string payloadText() { return std::string(4096, 'p') + "-end"; }

int runChildIfAsked() {
    const char* mode = std::getenv(kChildMode);
    if (mode == nullptr) return 0;
    const char* file = std::getenv(kChildFile);
    const char* value = std::getenv(kChildValue);
    if (file == nullptr) _exit(90);
    SettingsStore store{fs::path(file)};
    const std::string m = mode;
    if (m == "write") {
        _exit(value && store.setString("shared", value) ? 0 : 91);
    }
    if (m == "expect") {
        const auto got = store.string("shared");
        _exit(value && got && *got == value ? 0 : 92);
    }
    if (m == "write-loop") {
        // Rewrites the file as fast as it can until killed; bounded in case nobody kills it.
        store.setString("payload", payloadText());
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
        for (int i = 0; i < 1'000'000 && std::chrono::steady_clock::now() < deadline; ++i) {
            store.setString("counter", "value-" + std::to_string(i));
        }
        _exit(0);
    }
    _exit(93);
}

[[maybe_unused]] const int kChildRan = runChildIfAsked();

pid_t spawnChild(const std::string& mode, const fs::path& file, const std::string& value = "") {
    std::vector<std::string> env;
    for (char** e = environ; *e != nullptr; ++e) env.emplace_back(*e);
    env.push_back(std::string(kChildMode) + "=" + mode);
    env.push_back(std::string(kChildFile) + "=" + file.string());
    env.push_back(std::string(kChildValue) + "=" + value);
    std::vector<char*> envp;
    for (auto& s : env) envp.push_back(s.data());
    envp.push_back(nullptr);
    std::string exe = "/proc/self/exe";
    std::string filter = "--gtest_filter=-*";
    char* argv[] = {exe.data(), filter.data(), nullptr};
    pid_t pid = -1;
    if (posix_spawn(&pid, exe.c_str(), nullptr, nullptr, argv, envp.data()) != 0) return -1;
    return pid;
}

int waitExitCode(pid_t pid) {
    int status = 0;
    if (waitpid(pid, &status, 0) != pid) return -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// ---------------------------------------------------------------------------------------------

class TempDir {
  public:
    TempDir() {
        std::string tmpl = (fs::temp_directory_path() / "kestro-settings-XXXXXX").string();
        if (mkdtemp(tmpl.data()) != nullptr) path_ = tmpl;
    }
    ~TempDir() {
        std::error_code ec;
        fs::permissions(path_, fs::perms::owner_all, fs::perm_options::add, ec);
        fs::remove_all(path_, ec);
    }
    const fs::path& path() const { return path_; }

  private:
    fs::path path_;
};

std::string readFile(const fs::path& p) {
    std::ifstream in(p, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

void writeFile(const fs::path& p, const std::string& text) {
    std::ofstream out(p, std::ios::binary | std::ios::trunc);
    out << text;
}

boost::json::value parseFile(const fs::path& p) {
    boost::system::error_code ec;
    auto v = boost::json::parse(readFile(p), ec);
    if (ec) return nullptr;
    return v;
}

class SettingsStoreTest : public ::testing::Test {
  protected:
    TempDir dir;
    fs::path file() const { return dir.path() / "settings.json"; }
};

TEST_F(SettingsStoreTest, TypedReadsTreatWrongTypesAsAbsentAndConvertBooleans) {
    writeFile(file(), R"({"text":"hello","number":3,"flag":true,"list":[1],"nothing":null,
        "f0":0,"f1":1,"fd":0.5,"fneg":-2,"sYES":"YES","sno":"no","sT":"true","sf":"false",
        "s0012":" 0012","sminus":"-1","szeros":"000","sx":"x1","sempty":"","obj":{"a":1}})");
    SettingsStore store(file());

    EXPECT_EQ(store.string("text"), "hello");
    for (const char* key : {"number", "flag", "list", "nothing", "obj", "missing"}) {
        EXPECT_EQ(store.string(key), std::nullopt) << key;
    }
    EXPECT_TRUE(store.contains("number"));
    EXPECT_FALSE(store.contains("missing"));
    EXPECT_EQ(store.value("number"), boost::json::value(3));

    const std::vector<std::pair<const char*, bool>> booleans = {
        {"flag", true}, {"f0", false},      {"f1", true},     {"fd", true},
        {"fneg", true}, {"sYES", true},     {"sno", false},   {"sT", true},
        {"sf", false},  {"s0012", true},    {"sminus", true}, {"szeros", false},
        {"sx", false},  {"sempty", false},  {"list", false},  {"nothing", false},
        {"obj", false}, {"missing", false}, {"text", false},  {"number", true},
    };
    for (const auto& [key, expected] : booleans) EXPECT_EQ(store.boolean(key), expected) << key;
}

TEST_F(SettingsStoreTest, WritesReachTheFileAndASecondStoreReadsThem) {
    {
        SettingsStore store(file());
        EXPECT_FALSE(fs::exists(file())) << "reading alone must not create the file";
        EXPECT_EQ(store.string("apiKey"), std::nullopt);
        EXPECT_TRUE(store.setString("apiKey", "kt-dev-1"));
        EXPECT_TRUE(store.setBool("flag", true));
        EXPECT_TRUE(store.setString("gone", "soon"));
        EXPECT_TRUE(store.remove("gone"));
        EXPECT_TRUE(store.remove("never-there"));
        EXPECT_EQ(store.path(), file());
    }
    const auto onDisk = parseFile(file());
    ASSERT_TRUE(onDisk.is_object());
    EXPECT_EQ(onDisk, boost::json::parse(R"({"apiKey":"kt-dev-1","flag":true})"));
    EXPECT_EQ(fs::status(file()).permissions() & fs::perms::all,
              fs::perms::owner_read | fs::perms::owner_write);

    SettingsStore again(file());
    EXPECT_EQ(again.string("apiKey"), "kt-dev-1");
    EXPECT_TRUE(again.boolean("flag"));
    EXPECT_FALSE(again.contains("gone"));

    // reopen() reads the file afresh: a change made through another store becomes visible.
    SettingsStore other(file());
    ASSERT_TRUE(other.setString("apiKey", "kt-prod-2"));
    EXPECT_EQ(again.string("apiKey"), "kt-dev-1");
    again.reopen();
    EXPECT_EQ(again.string("apiKey"), "kt-prod-2");

    // No temporary files are left behind.
    int entries = 0;
    for (const auto& e : fs::directory_iterator(dir.path())) {
        ++entries;
        EXPECT_EQ(e.path().filename(), "settings.json");
    }
    EXPECT_EQ(entries, 1);
}

TEST_F(SettingsStoreTest, UnreadableContentIsEmptyWithAWarningKeptAsideAndRewritten) {
    const std::vector<std::string> bad = {
        "{not json",
        R"({"apiKey":"kt-pr)",  // truncated mid-write by something other than us
        "[1,2,3]",
        R"("just text")",
        "\x01\x02\xff",
    };
    for (const auto& content : bad) {
        SCOPED_TRACE(content);
        for (const auto& e : fs::directory_iterator(dir.path())) fs::remove(e.path());
        writeFile(file(), content);

        test::ConsoleCapture console;
        SettingsStore store(file());
        EXPECT_EQ(store.string("apiKey"), std::nullopt);
        EXPECT_FALSE(store.contains("0"));
        const std::string out = console.text();
        EXPECT_NE(out.find("⚠️ Settings file " + file().string()), std::string::npos) << out;
        EXPECT_NE(out.find("starting with empty settings"), std::string::npos) << out;

        // The unreadable bytes are kept beside the file, not destroyed.
        int aside = 0;
        for (const auto& e : fs::directory_iterator(dir.path())) {
            if (e.path().filename().string().starts_with("settings.json.corrupt-")) {
                ++aside;
                EXPECT_EQ(readFile(e.path()), content);
            }
        }
        EXPECT_EQ(aside, 1);

        ASSERT_TRUE(store.setString("apiKey", "kt-dev-new"));
        EXPECT_EQ(parseFile(file()), boost::json::parse(R"({"apiKey":"kt-dev-new"})"));
    }

    // An empty file is simply empty: no warning.
    writeFile(file(), "");
    test::ConsoleCapture console;
    SettingsStore store(file());
    EXPECT_FALSE(store.contains("apiKey"));
    EXPECT_EQ(console.text(), "");
}

TEST_F(SettingsStoreTest, UnwritableLocationKeepsValuesInMemoryAndRetriesOnTheNextWrite) {
    // A directory path that runs through a regular file cannot be written even by root.
    const fs::path blocker = dir.path() / "blocker";
    writeFile(blocker, "x");
    const fs::path unwritable = blocker / "settings.json";

    test::ConsoleCapture console;
    SettingsStore store(unwritable);
    EXPECT_FALSE(store.setString("apiKey", "kt-dev-mem"));
    EXPECT_EQ(store.string("apiKey"), "kt-dev-mem");
    EXPECT_FALSE(store.setString("apiKey", "kt-dev-mem")) << "an unsaved value is retried";
    const std::string out = console.text();
    EXPECT_NE(out.find("❌ Settings could not be saved to " + unwritable.string()),
              std::string::npos)
        << out;

    // Once the location becomes writable, the next write saves everything held in memory.
    fs::remove(blocker);
    fs::create_directory(blocker);
    EXPECT_TRUE(store.setBool("flag", true));
    EXPECT_EQ(parseFile(unwritable), boost::json::parse(R"({"apiKey":"kt-dev-mem","flag":true})"));

    // Permission bits only stop a process that is not root.
    if (geteuid() != 0) {
        const fs::path ro = dir.path() / "ro";
        fs::create_directory(ro);
        SettingsStore roStore(ro / "settings.json");
        ASSERT_TRUE(roStore.setString("k", "before"));
        fs::permissions(ro, fs::perms::owner_read | fs::perms::owner_exec);
        EXPECT_FALSE(roStore.setString("k", "after"));
        EXPECT_EQ(roStore.string("k"), "after");
        SettingsStore reader(ro / "settings.json");
        EXPECT_EQ(reader.string("k"), "before");
        fs::permissions(ro, fs::perms::owner_all);
    }
}

TEST_F(SettingsStoreTest, ConcurrentWritersAndReadersLoseNothing) {
    SettingsStore store(file());
    constexpr int kThreads = 4;
    constexpr int kWrites = 6;
    std::atomic<bool> stop{false};
    std::atomic<int> badReads{0};
    std::thread reader([&] {
        for (int i = 0; i < 100000 && !stop.load(); ++i) {
            if (auto v = store.string("t0"); v && !v->starts_with("v")) ++badReads;
        }
    });
    std::vector<std::thread> writers;
    for (int t = 0; t < kThreads; ++t) {
        writers.emplace_back([&, t] {
            for (int i = 0; i < kWrites; ++i) {
                store.setString("t" + std::to_string(t), "v" + std::to_string(i));
            }
        });
    }
    for (auto& w : writers) w.join();
    stop = true;
    reader.join();
    EXPECT_EQ(badReads.load(), 0);

    const auto onDisk = parseFile(file());
    ASSERT_TRUE(onDisk.is_object());
    for (int t = 0; t < kThreads; ++t) {
        const std::string key = "t" + std::to_string(t);
        EXPECT_EQ(onDisk.at(key), boost::json::value(("v" + std::to_string(kWrites - 1)).c_str()))
            << key;
    }

    // One value for all concurrent first callers, created once.
    std::atomic<int> made{0};
    std::vector<std::string> got(16);
    std::vector<std::thread> racers;
    for (int t = 0; t < 16; ++t) {
        racers.emplace_back([&, t] {
            got[t] = store.stringOrInsert(
                "id", [&] { return "made-" + std::to_string(made.fetch_add(1)); });
        });
    }
    for (auto& r : racers) r.join();
    EXPECT_EQ(made.load(), 1);
    for (const auto& g : got) EXPECT_EQ(g, "made-0");
    EXPECT_EQ(parseFile(file()).at("id"), "made-0");
}

TEST_F(SettingsStoreTest, ValuesPersistAcrossProcesses) {
    // Another process writes; a store opened afterwards here sees it.
    const pid_t writer = spawnChild("write", file(), "from-child");
    ASSERT_GT(writer, 0);
    ASSERT_EQ(waitExitCode(writer), 0);
    SettingsStore store(file());
    EXPECT_EQ(store.string("shared"), "from-child");

    // This process writes; another process sees it.
    ASSERT_TRUE(store.setString("shared", "from-parent"));
    const pid_t reader = spawnChild("expect", file(), "from-parent");
    ASSERT_GT(reader, 0);
    EXPECT_EQ(waitExitCode(reader), 0);
}

TEST_F(SettingsStoreTest, KillingAWriterMidLoopLeavesTheOldOrTheNewFile) {
    const std::string payload = payloadText();
    const auto counterOf = [](const boost::json::value& v) -> long {
        if (!v.is_object() || !v.as_object().contains("counter")) return -1;
        const auto& s = v.at("counter");
        if (!s.is_string()) return -2;
        const std::string text(s.get_string());
        if (!text.starts_with("value-")) return -2;
        return std::stol(text.substr(6));
    };

    for (const long killAfter : {2L, 9L, 20L}) {
        SCOPED_TRACE(killAfter);
        fs::remove(file());
        const pid_t child = spawnChild("write-loop", file());
        ASSERT_GT(child, 0);

        // Every read while the child writes sees a complete file.
        long seen = -1;
        int incomplete = 0;
        const bool reached = test::waitUntil(
            [&] {
                if (!fs::exists(file())) return false;
                const auto v = parseFile(file());
                const long c = counterOf(v);
                if (!v.is_object() || c == -2) ++incomplete;
                if (c >= 0) seen = c;
                return seen >= killAfter;
            },
            std::chrono::seconds(15));
        kill(child, SIGKILL);
        waitpid(child, nullptr, 0);
        ASSERT_TRUE(reached);
        EXPECT_EQ(incomplete, 0);

        const auto after = parseFile(file());
        ASSERT_TRUE(after.is_object()) << readFile(file()).substr(0, 200);
        EXPECT_GE(counterOf(after), seen);
        EXPECT_EQ(after.at("payload"), payload.c_str());
        SettingsStore store(file());
        EXPECT_EQ(store.string("payload"), payload);
    }
}

TEST(UserDefaultsTest, FollowsKestroHomeAtFirstUseAfterReopen) {
    TempDir dir;
    const char* old = std::getenv("KESTRO_HOME");
    const std::string saved = old ? old : "";
    setenv("KESTRO_HOME", dir.path().c_str(), 1);
    getUserDefaults().reopen();

    EXPECT_EQ(getUserDefaults().path(), dir.path() / "settings.json");
    EXPECT_TRUE(getUserDefaults().setString("probe", "here"));
    EXPECT_EQ(parseFile(dir.path() / "settings.json").at("probe"), "here");
    EXPECT_TRUE(isProductionBuild());

    if (old) {
        setenv("KESTRO_HOME", saved.c_str(), 1);
    } else {
        unsetenv("KESTRO_HOME");
    }
    getUserDefaults().reopen();
}

}  // namespace
}  // namespace kestro
