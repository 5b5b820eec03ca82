#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>

#include "kestro/core/export.h"

namespace kestro {

/// Recognises a shake from what a desktop has instead of a phone's motion sensor: a keyboard
/// chord (reported by the host integration), a mouse shaken from side to side (several fast
/// reversals of horizontal direction), and an accelerometer where there is one (several strong
/// jolts in a short time). Each recognised shake calls onShake once. Headless: the host
/// integration feeds it events with their times. Main queue (the host's UI thread).
class KESTRO_API ShakeDetector {
  public:
    using Clock = std::chrono::steady_clock;

    /// Reversals of horizontal mouse direction that make a shake, within kWindow.
    static constexpr int kReversals = 4;
    /// Travel a stroke needs, in pixels, before its reversal counts.
    static constexpr double kStrokePixels = 40;
    static constexpr std::chrono::milliseconds kWindow{900};
    /// Jolts (acceleration beyond kJoltMetresPerSecond2 away from gravity) that make a shake.
    static constexpr int kJolts = 3;
    static constexpr double kJoltMetresPerSecond2 = 12.0;
    /// After a shake, new ones are ignored for this long (one gesture, one call).
    static constexpr std::chrono::milliseconds kQuietPeriod{1000};

    std::function<void()> onShake;

    /// The keyboard chord was pressed.
    void chord(Clock::time_point at);
    /// The pointer is at x (pixels, any origin) at this time.
    void mouseMoved(double x, Clock::time_point at);
    /// An accelerometer reading in m/s², gravity included.
    void acceleration(double x, double y, double z, Clock::time_point at);

    /// Shakes recognised so far.
    std::uint64_t shakes() const { return shakes_; }

  private:
    void shake(Clock::time_point at);
    static void dropBefore(std::deque<Clock::time_point>& times, Clock::time_point from);

    // Mouse: the current stroke's direction, where it turned last, and the turns in the window.
    int direction_ = 0;
    double strokeStart_ = 0;
    double lastX_ = 0;
    bool hasLast_ = false;
    std::deque<Clock::time_point> reversals_;
    std::deque<Clock::time_point> jolts_;
    bool jolting_ = false;
    Clock::time_point quietUntil_{};
    std::uint64_t shakes_ = 0;
};

}  // namespace kestro
