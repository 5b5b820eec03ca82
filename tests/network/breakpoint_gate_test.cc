#include <gtest/gtest.h>

#include <atomic>

#include "kestro/core/executor.h"
#include "kestro/network/breakpoint_gate.h"
#include "support/wait.h"

namespace kestro {
namespace {

using namespace std::chrono_literals;

TEST(BreakpointGateTest, OneReleaseLetsEveryHeldRequestGo) {
    auto gate = BreakpointGate::create();
    test::Recorder<bool> resumed;
    // More held requests than the executor has threads: none of them occupies one.
    for (int i = 0; i < 64; ++i) gate->hold([&](bool ok) { resumed.add(ok); }, 300s);
    EXPECT_EQ(gate->heldCount(), 64u);
    EXPECT_EQ(resumed.size(), 0u);
    gate->release();
    ASSERT_TRUE(resumed.waitFor(64));
    for (bool ok : resumed.values()) EXPECT_TRUE(ok);
    EXPECT_EQ(gate->heldCount(), 0u);
    EXPECT_EQ(gate->sparePermits(), 0);  // releasing held requests stores no permit
}

TEST(BreakpointGateTest, ReleaseWithNothingHeldStoresOnePermitForTheNextRequest) {
    auto gate = BreakpointGate::create();
    gate->release();
    EXPECT_EQ(gate->sparePermits(), 1);
    test::Recorder<int> resumed;
    gate->hold([&](bool ok) { resumed.add(ok ? 1 : 0); }, 300s);  // passes on the permit
    ASSERT_TRUE(resumed.waitFor(1));
    gate->hold([&](bool ok) { resumed.add(ok ? 2 : -2); }, 300s);  // held
    EXPECT_EQ(gate->heldCount(), 1u);
    EXPECT_EQ(gate->sparePermits(), 0);
    gate->release();
    ASSERT_TRUE(resumed.waitFor(2));
    EXPECT_EQ(resumed.values(), (std::vector<int>{1, 2}));
}

TEST(BreakpointGateTest, TimeOutAndCancelResumeOnceWithFalse) {
    auto gate = BreakpointGate::create();
    std::atomic<int> calls{0};
    test::Recorder<bool> results;
    gate->hold([&](bool ok) { ++calls, results.add(ok); }, 20ms);
    auto ticket = gate->hold([&](bool ok) { ++calls, results.add(ok); }, 300s);
    ticket.cancel();
    ASSERT_TRUE(results.waitFor(2));
    EXPECT_EQ(results.values(), (std::vector<bool>{false, false}));
    gate->release();  // nothing held any more: a spare permit, no second call
    EXPECT_EQ(gate->sparePermits(), 1);
    EXPECT_EQ(calls.load(), 2);
}

TEST(BreakpointGateTest, GateGoingAwayResumesHeldRequestsOnce) {
    test::Recorder<bool> results;
    {
        auto gate = BreakpointGate::create();
        gate->hold([&](bool ok) { results.add(ok); }, 10ms);
    }
    ASSERT_TRUE(results.waitFor(1));
    // The time-out finds no gate: a later timer proves it had its chance, and no second call.
    test::Recorder<int> later;
    auto t = runAfter(40ms, [&] { later.add(1); });
    ASSERT_TRUE(later.waitFor(1));
    EXPECT_EQ(results.values(), std::vector<bool>{false});
}

}  // namespace
}  // namespace kestro
