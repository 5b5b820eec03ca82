#include "kestro/inspector/toast_manager.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

#include "inspector/step_clock.h"

namespace kestro {
namespace {

using namespace std::chrono_literals;
using Toast = std::optional<std::string>;

// Each case: a sequence of shows and clock steps, and the toast expected after each step.
struct Step {
    std::chrono::milliseconds advance;
    const char* show;  // nullptr: no show at this step
    Toast expected;
};

TEST(ToastManagerTest, EachShowClearsItsOwnTextAfterOneAndAHalfSeconds) {
    const std::vector<std::pair<const char*, std::vector<Step>>> cases = {
        {"one toast",
         {{0ms, "Copied to clipboard", "Copied to clipboard"},
          {1499ms, nullptr, "Copied to clipboard"},
          {1ms, nullptr, std::nullopt}}},
        {"the same text twice: gone 1.5 s after the first",
         {{0ms, "Copied to clipboard", "Copied to clipboard"},
          {1000ms, "Copied to clipboard", "Copied to clipboard"},
          {500ms, nullptr, std::nullopt},
          {1000ms, nullptr, std::nullopt}}},
        {"two different texts: the second keeps its own time",
         {{0ms, "Copied to clipboard", "Copied to clipboard"},
          {1000ms, "JSON copied to clipboard", "JSON copied to clipboard"},
          {500ms, nullptr, "JSON copied to clipboard"},
          {999ms, nullptr, "JSON copied to clipboard"},
          {1ms, nullptr, std::nullopt}}},
        {"a text shown again after another comes back with its first timer",
         {{0ms, "a", "a"}, {500ms, "b", "b"}, {500ms, "a", "a"}, {500ms, nullptr, std::nullopt}}},
    };
    for (const auto& [name, steps] : cases) {
        test::StepClock clock;
        ToastManager toasts([&](auto delay, auto task) { clock.schedule(delay, std::move(task)); });
        EXPECT_EQ(toasts.currentToast(), std::nullopt);
        int index = 0;
        for (const Step& step : steps) {
            clock.advance(step.advance);
            if (step.show) toasts.show(step.show);
            EXPECT_EQ(toasts.currentToast(), step.expected) << name << ", step " << index;
            ++index;
        }
    }
}

TEST(ToastManagerTest, ObserversAreToldBeforeTheChange) {
    test::StepClock clock;
    ToastManager toasts([&](auto delay, auto task) { clock.schedule(delay, std::move(task)); });
    std::vector<Toast> seenBefore;
    toasts.setWillChange([&] { seenBefore.push_back(toasts.currentToast()); });
    toasts.show("a");
    clock.advance(2s);
    EXPECT_EQ(seenBefore, (std::vector<Toast>{std::nullopt, "a"}));
}

}  // namespace
}  // namespace kestro
