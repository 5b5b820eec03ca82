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

#include "kestro/core/config.h"

namespace {

void pointServiceHostsAtLoopback() {
    setenv("KESTRO_DEV_HOST", "127.0.0.1", 1);
    setenv("KESTRO_PROD_HOST", "127.0.0.1", 1);
}

TEST(TestMain, ServiceHostsPointAtLoopback) {
    using kestro::KestroEnvironment;
    EXPECT_EQ(kestro::getAPIEndpoint(KestroEnvironment::dev), "http://127.0.0.1:3007");
    EXPECT_EQ(kestro::getWSAPIEndpoint(KestroEnvironment::dev), "ws://127.0.0.1:3007");
    EXPECT_EQ(kestro::getAPIEndpoint(KestroEnvironment::prod), "https://127.0.0.1");
    EXPECT_EQ(kestro::getWSAPIEndpoint(KestroEnvironment::prod), "wss://127.0.0.1");
}

}  // namespace

int main(int argc, char** argv) {
    pointServiceHostsAtLoopback();
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
