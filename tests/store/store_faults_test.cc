#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <iterator>
#include <set>
#include <sstream>

#include "kestro/store/request_store_sqlite.h"
#include "store/store_fixtures.h"
#include "support/console_capture.h"

extern char** environ;

namespace kestro {
namespace {

namespace fs = std::filesystem;
using test::ConsoleCapture;
using test::logRecord;
using test::RawDatabase;
using test::TempDir;

std::string readFile(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

std::vector<fs::path> asideFiles(const fs::path& dir) {
    std::vector<fs::path> out;
    for (const auto& entry : fs::directory_iterator(dir)) {
        const std::string name = entry.path().filename().string();
        if (name.rfind("requests.sqlite.corrupt-", 0) == 0 &&
            name.find("-wal") == std::string::npos)
            out.push_back(entry.path());
    }
    return out;
}

class StoreFaultsTest : public ::testing::Test {
  protected:
    fs::path dbPath() const { return dir.file("requests.sqlite"); }
    TempDir dir;
};

TEST_F(StoreFaultsTest, AFileThatIsNoDatabaseIsMovedAsideAndAFreshOneStarted) {
    const std::string garbage(10000, 'x');
    std::ofstream(dbPath(), std::ios::binary) << garbage;
    ConsoleCapture console;
    RequestStoreSQLite store(dbPath());
    const std::string text = console.text();
    EXPECT_NE(text.find("could not be read (file is not a database); it was moved aside as "
                        "requests.sqlite.corrupt-"),
              std::string::npos)
        << text;
    const auto aside = asideFiles(dir.path());
    ASSERT_EQ(aside.size(), 1u);
    EXPECT_EQ(readFile(aside[0]), garbage);  // kept byte for byte
    EXPECT_TRUE(store.isOpen());
    store.add(logRecord("after", 1));
    EXPECT_EQ(store.getAll().size(), 1u);
    EXPECT_EQ(RawDatabase(dbPath()).text("PRAGMA integrity_check"), "ok");
}

TEST_F(StoreFaultsTest, ATruncatedDatabaseKeepsWhatCanBeReadAndTheOriginalFile) {
    {
        test::ConsoleSilence quiet;
        RequestStoreSQLite store(dbPath());
        for (int i = 0; i < 400; ++i)
            store.add(logRecord("R" + std::to_string(i), i, std::string(300, 'a' + i % 26)));
    }
    // Closing checkpointed everything into the file; cut it short.
    const auto fullSize = fs::file_size(dbPath());
    ASSERT_GT(fullSize, 40000u);
    fs::resize_file(dbPath(), fullSize / 3);
    const std::string truncated = readFile(dbPath());

    ConsoleCapture console;
    RequestStoreSQLite store(dbPath());
    const std::string text = console.text();
    EXPECT_NE(text.find("it was moved aside as requests.sqlite.corrupt-"), std::string::npos)
        << text;
    const auto aside = asideFiles(dir.path());
    ASSERT_EQ(aside.size(), 1u);
    EXPECT_EQ(readFile(aside[0]), truncated);

    // Items read before the damage carried over; all of them are genuine.
    const auto items = store.getAll();
    EXPECT_LT(items.size(), 400u);
    for (const auto& item : items) {
        const int i = std::stoi(item.id().substr(1));
        EXPECT_EQ(item, logRecord(item.id(), i, std::string(300, 'a' + i % 26)));
    }
    EXPECT_EQ(store.requests().size(), items.size());
    store.add(logRecord("after", 1000));
    EXPECT_EQ(store.getById("after")->id(), "after");
    EXPECT_EQ(RawDatabase(dbPath()).text("PRAGMA integrity_check"), "ok");
}

TEST_F(StoreFaultsTest, AnUnopenableDatabaseIsReportedAndEveryOperationSurvives) {
    // The database's folder cannot exist: a plain file is in its way.
    std::ofstream(dir.file("blocker")) << "x";
    ConsoleCapture console;
    RequestStoreSQLite store(dir.file("blocker") / "requests.sqlite");
    EXPECT_FALSE(store.isOpen());
    store.add(logRecord("a", 1));
    EXPECT_TRUE(store.getAll().empty());
    EXPECT_FALSE(store.getById("a").has_value());
    store.update("a", logRecord("a", 1));
    store.deleteById("a");
    store.deleteAll();
    store.debugPrintAllRows();
    EXPECT_TRUE(store.requests().empty());
    const std::string text = console.text();
    for (const char* line :
         {"❌ Unable to open database", "❌ Prepare failed: Unknown error",
          "❌ Select failed: Unknown error", "❌ getById query failed: Unknown error",
          "❌ Failed to prepare debug query: Unknown error"}) {
        EXPECT_NE(text.find(line), std::string::npos) << line << "\n" << text;
    }
}

TEST_F(StoreFaultsTest, AFullDatabaseRefusesAddsAndKeepsEverythingStoredBefore) {
    std::vector<std::string> stored;
    {
        ConsoleCapture console;
        RequestStoreSQLite store(dbPath(), 64 * 1024);
        bool full = false;
        for (int i = 0; i < 2000 && !full; ++i) {
            const std::string id = "R" + std::to_string(i);
            store.add(logRecord(id, i, std::string(1000, 'z')));
            full = store.requests().size() == stored.size();
            if (!full) stored.push_back(id);
        }
        ASSERT_TRUE(full) << "the cap was never reached";
        EXPECT_NE(console.text().find("❌ Insert failed: database or disk is full"),
                  std::string::npos)
            << console.text();
        EXPECT_EQ(store.getAll().size(), stored.size());
        // Room made by deleting is usable again.
        store.deleteById(stored.front());
        store.add(logRecord("fits-again", 5000));
        EXPECT_EQ(store.requests().front().id(), "fits-again");
        stored.erase(stored.begin());
        stored.push_back("fits-again");
    }
    test::ConsoleSilence quiet;
    RequestStoreSQLite reopened(dbPath());
    std::set<std::string> found;
    for (const auto& item : reopened.requests()) found.insert(item.id());
    EXPECT_EQ(found, std::set<std::string>(stored.begin(), stored.end()));
}

// --- Child processes -------------------------------------------------------------------------

struct Child {
    pid_t pid = -1;
    int out = -1;  // the read end of the child's report pipe
};

// Starts the helper program with args; its report descriptor (or its standard output, for
// reportFd < 0) is a pipe the test reads. Nothing but the exec happens in the child.
Child spawnChild(const std::vector<std::string>& args, int reportFd) {
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0) return {};
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    const int target = reportFd >= 0 ? reportFd : STDOUT_FILENO;
    posix_spawn_file_actions_adddup2(&actions, fds[1], target);
    if (reportFd >= 0)
        posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    std::vector<char*> argv;
    std::vector<std::string> all = {KESTRO_STORE_TEST_CHILD};
    all.insert(all.end(), args.begin(), args.end());
    for (auto& a : all) argv.push_back(a.data());
    argv.push_back(nullptr);
    Child child;
    if (posix_spawn(&child.pid, argv[0], &actions, nullptr, argv.data(), environ) != 0)
        child.pid = -1;
    posix_spawn_file_actions_destroy(&actions);
    close(fds[1]);
    child.out = fds[0];
    return child;
}

enum class Read { data, timeout, end };

// Reads what is available within the time-out.
Read readSome(int fd, std::string& into, std::chrono::milliseconds timeout) {
    pollfd p{fd, POLLIN, 0};
    if (poll(&p, 1, static_cast<int>(timeout.count())) <= 0) return Read::timeout;
    char buf[4096];
    const ssize_t n = read(fd, buf, sizeof buf);
    if (n <= 0) return Read::end;
    into.append(buf, static_cast<std::size_t>(n));
    return Read::data;
}

std::vector<std::string> completeLines(const std::string& text) {
    std::vector<std::string> lines;
    std::size_t start = 0;
    for (std::size_t end; (end = text.find('\n', start)) != std::string::npos; start = end + 1)
        lines.push_back(text.substr(start, end - start));
    return lines;  // a last line without its line feed was not reported whole
}

TEST_F(StoreFaultsTest, EveryAddThatReturnedSurvivesTheProcessBeingKilled) {
    Child child = spawnChild({"add", dbPath().string(), "3"}, 3);
    ASSERT_GT(child.pid, 0);
    std::string reported;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(8);
    // A child built with sanitizers takes a while to start: wait for reports until the deadline.
    while (completeLines(reported).size() < 300 && std::chrono::steady_clock::now() < deadline) {
        if (readSome(child.out, reported, std::chrono::milliseconds(200)) == Read::end) break;
    }
    ASSERT_EQ(kill(child.pid, SIGKILL), 0);
    int status = 0;
    ASSERT_EQ(waitpid(child.pid, &status, 0), child.pid);
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL);
    // Whatever the child wrote before it died is still in the pipe.
    for (int i = 0; i < 10000; ++i) {
        if (readSome(child.out, reported, std::chrono::milliseconds(0)) != Read::data) break;
    }
    close(child.out);
    const auto ids = completeLines(reported);
    ASSERT_GE(ids.size(), 50u) << "the child reported too few adds";

    test::ConsoleSilence quiet;
    {
        RawDatabase raw(dbPath());
        EXPECT_EQ(raw.text("PRAGMA integrity_check"), "ok");
    }
    RequestStoreSQLite reopened(dbPath());
    std::set<std::string> stored;
    for (const auto& item : reopened.getAll()) stored.insert(item.id());
    for (const auto& id : ids) EXPECT_TRUE(stored.count(id)) << id << " was lost";
    // At most the add in progress when the child died is there without its report.
    EXPECT_LE(stored.size(), ids.size() + 1);
}

TEST_F(StoreFaultsTest, AReadOnlyDirectoryLosesNothingAndIsReported) {
    {
        test::ConsoleSilence quiet;
        RequestStoreSQLite store(dbPath());
        for (int i = 0; i < 5; ++i) store.add(logRecord("R" + std::to_string(i), i));
    }
    // The folder loses its owner's write bit; the child, whatever its user, keeps no capability
    // that would write through it.
    fs::permissions(dir.path(), fs::perms::owner_all | fs::perms::group_read |
                                    fs::perms::group_exec | fs::perms::others_read |
                                    fs::perms::others_exec);
    fs::permissions(dbPath(), fs::perms::owner_read | fs::perms::owner_write |
                                  fs::perms::group_read | fs::perms::others_read);
    fs::permissions(dir.path(), fs::perms::owner_write, fs::perm_options::remove);

    Child child = spawnChild({"readonly", dbPath().string()}, -1);
    ASSERT_GT(child.pid, 0);
    std::string output;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(8);
    while (std::chrono::steady_clock::now() < deadline &&
           readSome(child.out, output, std::chrono::milliseconds(200)) != Read::end) {
    }
    close(child.out);
    int status = 0;
    ASSERT_EQ(waitpid(child.pid, &status, 0), child.pid);
    ASSERT_TRUE(WIFEXITED(status));
    ASSERT_EQ(WEXITSTATUS(status), 0) << output;
    // The host ran to the end; the add was refused with a console line.
    EXPECT_NE(output.find("listed "), std::string::npos) << output;
    EXPECT_TRUE(output.find("❌ Insert failed: ") != std::string::npos ||
                output.find("❌ Prepare failed: ") != std::string::npos)
        << output;

    fs::permissions(dir.path(), fs::perms::owner_all, fs::perm_options::add);
    test::ConsoleSilence quiet;
    RequestStoreSQLite reopened(dbPath());
    EXPECT_EQ(reopened.getAll().size(), 5u);
    EXPECT_EQ(RawDatabase(dbPath()).text("PRAGMA integrity_check"), "ok");
}

}  // namespace
}  // namespace kestro
