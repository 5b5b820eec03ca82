#include "kestro/remote/local_network_probe.h"

#include <gtest/gtest.h>

#include <atomic>
#include <sys/stat.h>

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <chrono>

#include "kestro/core/console.h"
#include "support/console_capture.h"
#include "support/wait.h"

namespace kestro {
namespace {

using namespace std::chrono_literals;
namespace net = boost::asio;

// A loopback port that is listening (while the acceptor lives) and one that is not.
struct Listener {
    net::io_context ioc;
    net::ip::tcp::acceptor acceptor{ioc, {net::ip::make_address("127.0.0.1"), 0}};
    std::uint16_t port() const { return acceptor.local_endpoint().port(); }
};

std::uint16_t closedPort() {
    Listener once;
    return once.port();  // released when `once` goes
}

LocalNetworkTarget loopback(std::uint16_t port) {
    LocalNetworkTarget target;
    target.address = "127.0.0.1";
    target.port = port;
    target.timeout = 5s;
    return target;
}

TEST(LocalNetworkAccessTest, AnswersOnceTrueForAnOpenPortAndFalseForAClosedOne) {
    Listener open;
    test::Recorder<bool> toOpen;
    testLocalNetworkAccess([&](bool ok) { toOpen.add(ok); }, loopback(open.port()));
    test::Recorder<bool> toClosed;
    testLocalNetworkAccess([&](bool ok) { toClosed.add(ok); }, loopback(closedPort()));

    ASSERT_TRUE(toOpen.waitFor(1));
    ASSERT_TRUE(toClosed.waitFor(1));
    EXPECT_EQ(toOpen.values(), std::vector<bool>{true});
    EXPECT_EQ(toClosed.values(), std::vector<bool>{false});
    // No second answer follows the first (the connection is closed, the timer cancelled).
    EXPECT_FALSE(toOpen.waitFor(2, 200ms));
    EXPECT_FALSE(toClosed.waitFor(2, 1ms));
}

TEST(LocalNetworkAccessTest, ATargetThatIsNotAnAddressAnswersFalseWithALine) {
    test::ConsoleCapture console;
    test::Recorder<bool> answers;
    LocalNetworkTarget target = loopback(80);
    target.address = "router.local";  // names are not resolved
    testLocalNetworkAccess([&](bool ok) { answers.add(ok); }, target);
    ASSERT_TRUE(answers.waitFor(1));
    EXPECT_EQ(answers.values(), std::vector<bool>{false});
    EXPECT_NE(console.text().find("❌ Local network access: \"router.local\" is not an IP address"),
              std::string::npos);
}

TEST(LocalNetworkAccessTest, DefaultTargetIsAPrivateAddressOnPort80) {
    const LocalNetworkTarget target;
    EXPECT_EQ(target.port, 80);
    const auto address = net::ip::make_address_v4(target.address);
    EXPECT_TRUE((address.to_uint() >> 16) == 0xC0A8 || (address.to_uint() >> 24) == 10 ||
                (address.to_uint() >> 20) == 0xAC1)
        << target.address;
}

bool avahiDaemonRuns() {
    struct stat info {};
    return stat("/run/avahi-daemon/socket", &info) == 0;
}

TEST(BonjourClientTest, WithoutADaemonTheBrowseAnswersFalseAtOnceAndOnlyOnce) {
    if (avahiDaemonRuns()) GTEST_SKIP() << "an Avahi daemon runs on this machine";
    test::ConsoleCapture console;
    test::Recorder<bool> answers;
    // A long answer time: a false that arrives at all arrives because the browse failed.
    BonjourClient client(60s);
    client.setOnPermissionChecked([&](bool found) { answers.add(found); });
    const auto start = std::chrono::steady_clock::now();
    client.checkLocalNetworkPermission();
    ASSERT_TRUE(answers.waitFor(1, 5s));
    EXPECT_LT(std::chrono::steady_clock::now() - start, 5s);
    EXPECT_EQ(answers.values(), std::vector<bool>{false});
    EXPECT_NE(console.text().find("❌ Local network browse failed: "), std::string::npos)
        << console.text();

    // A second probe answers again, once.
    client.checkLocalNetworkPermission();
    ASSERT_TRUE(answers.waitFor(2, 5s));
    EXPECT_FALSE(answers.waitFor(3, 200ms));
}

TEST(BonjourClientTest, NoAnswerTimeAnswersFalseWhenNothingIsFound) {
    // With or without a daemon, an immediate time-out answers false exactly once.
    test::ConsoleSilence quiet;
    test::Recorder<bool> answers;
    BonjourClient client(0ms);
    client.setOnPermissionChecked([&](bool found) { answers.add(found); });
    client.checkLocalNetworkPermission();
    ASSERT_TRUE(answers.waitFor(1, 5s));
    EXPECT_EQ(answers.values(), std::vector<bool>{false});
    EXPECT_FALSE(answers.waitFor(2, 200ms));
}

TEST(BonjourClientTest, AReleasedClientNeverCallsBack) {
    // With no answer time the answer may come before the release; none may come after it. An
    // answer running while the client is released finishes before the release returns.
    test::ConsoleSilence quiet;
    auto released = std::make_shared<std::atomic<bool>>(false);
    auto answersAfterRelease = std::make_shared<test::Recorder<bool>>();
    for (int round = 0; round < 20; ++round) {
        released->store(false);
        {
            BonjourClient client(0ms);
            client.setOnPermissionChecked([released, answersAfterRelease](bool found) {
                if (released->load()) answersAfterRelease->add(found);
            });
            client.checkLocalNetworkPermission();
        }
        released->store(true);
    }
    EXPECT_FALSE(answersAfterRelease->waitFor(1, 300ms));
}

}  // namespace
}  // namespace kestro
