#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <mutex>
#include <regex>
#include <set>
#include <sstream>
#include <thread>

#include "kestro/core/describe.h"
#include "kestro/core/uuid.h"

namespace kestro {
namespace {

TEST(UUIDTest, CanonicalUpperCaseVersion4AndDistinctAcrossThreadsAndForks) {
    const std::regex canonical("[0-9A-F]{8}-[0-9A-F]{4}-4[0-9A-F]{3}-[89AB][0-9A-F]{3}-[0-9A-F]{12}");
    std::set<std::string> ids;
    std::mutex mutex;
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&] {
            std::vector<std::string> mine;
            for (int i = 0; i < 2000; ++i) mine.push_back(newUUIDString());
            std::lock_guard lock(mutex);
            ids.insert(mine.begin(), mine.end());
        });
    }
    for (auto& th : threads) th.join();
    EXPECT_EQ(ids.size(), 8000u);
    for (const auto& id : ids) ASSERT_TRUE(std::regex_match(id, canonical)) << id;

    // A forked child must not repeat the parent's next id.
    newUUIDString();  // make sure this thread has a partly used block
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    const pid_t pid = fork();
    if (pid == 0) {
        const std::string id = newUUIDString();
        (void)!write(fds[1], id.data(), id.size());
        _exit(0);
    }
    const std::string parentNext = newUUIDString();
    char buf[36];
    ASSERT_EQ(read(fds[0], buf, 36), 36);
    waitpid(pid, nullptr, 0);
    close(fds[0]);
    close(fds[1]);
    EXPECT_NE(std::string(buf, 36), parentNext);
}

struct Streamable {
    int v;
};
std::ostream& operator<<(std::ostream& os, const Streamable& s) { return os << "S(" << s.v << ")"; }
struct Opaque {};

TEST(DescribeTest, ItemsUseFmtThenStreamThenTypeName) {
    EXPECT_EQ(describe(), "");
    EXPECT_EQ(describe(42, "word", std::string("two words"), 1.5, true),
              "42 word two words 1.5 true");
    EXPECT_EQ(describe(Streamable{3}), "S(3)");
    EXPECT_EQ(describe(Opaque{}), "<kestro::(anonymous namespace)::Opaque>");
    const char* nullText = "c-string";
    EXPECT_EQ(describe(nullText, 'x'), "c-string x");
}

}  // namespace
}  // namespace kestro
