// The main() of every test executable. Before any test runs it points both service hosts at
// loopback, whatever the environment says, so that no way of starting a test (ctest, the
// binary by hand, a debugger) can send a registration, an upload or a WebSocket link to a
// service elsewhere. It is compiled into each test executable rather than taken from a
// library, so that it cannot be left out of a link unnoticed: without it there is no main().
//
// TestMain.ServiceHostsPointAtLoopback checks the result; CTest runs it once more per
// executable with foreign hosts in the environment (tests/CMakeLists.txt).

#include <gtest/gtest.h>
#include <stdlib.h>

#include <string>

#include "kestro/core/config.h"

namespace {

void pointServiceHostsAtLoopback() {
    setenv("KESTRO_DEV_HOST", "127.0.0.1", 1);
    setenv("KESTRO_PROD_HOST", "127.0.0.1", 1);
}

// The host of a base URL ("scheme://host[:port]").
std::string hostOf(const std::string& endpoint) {
    const auto start = endpoint.find("://");
    if (start == std::string::npos) return {};
    const std::string authority = endpoint.substr(start + 3);
    return authority.substr(0, authority.find(':'));
}

// Tests may point a host at a loopback server of their own (a port of 127.0.0.1).
TEST(TestMain, ServiceHostsPointAtLoopback) {
    using kestro::KestroEnvironment;
    for (const KestroEnvironment env : {KestroEnvironment::dev, KestroEnvironment::prod}) {
        EXPECT_EQ(hostOf(kestro::getAPIEndpoint(env)), "127.0.0.1");
        EXPECT_EQ(hostOf(kestro::getWSAPIEndpoint(env)), "127.0.0.1");
    }
}

}  // namespace

int main(int argc, char** argv) {
    pointServiceHostsAtLoopback();
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
