#include "kestro/inspector/shake_detector.h"

#include <cmath>

namespace kestro {

void ShakeDetector::dropBefore(std::deque<Clock::time_point>& times, Clock::time_point from) {
    while (!times.empty() && times.front() < from) times.pop_front();
}

void ShakeDetector::shake(Clock::time_point at) {
    reversals_.clear();
    jolts_.clear();
    if (at < quietUntil_) return;
    quietUntil_ = at + kQuietPeriod;
    ++shakes_;
    if (onShake) onShake();
}

void ShakeDetector::chord(Clock::time_point at) { shake(at); }

void ShakeDetector::mouseMoved(double x, Clock::time_point at) {
    if (!hasLast_) {
        hasLast_ = true;
        lastX_ = strokeStart_ = x;
        return;
    }
    const double dx = x - lastX_;
    lastX_ = x;
    if (dx == 0) return;
    const int direction = dx > 0 ? 1 : -1;
    if (direction != direction_) {
        // A turn counts when the stroke it ends was long enough; jitter does not.
        if (direction_ != 0 && std::abs(x - dx - strokeStart_) >= kStrokePixels) {
            dropBefore(reversals_, at - kWindow);
            reversals_.push_back(at);
            if (static_cast<int>(reversals_.size()) >= kReversals) {
                shake(at);
            }
        }
        direction_ = direction;
        strokeStart_ = x - dx;
    }
}

void ShakeDetector::acceleration(double x, double y, double z, Clock::time_point at) {
    const double g = 9.80665;
    const bool strong = std::abs(std::sqrt(x * x + y * y + z * z) - g) >= kJoltMetresPerSecond2;
    // One jolt per excursion beyond the threshold.
    if (strong && !jolting_) {
        dropBefore(jolts_, at - kWindow);
        jolts_.push_back(at);
        if (static_cast<int>(jolts_.size()) >= kJolts) shake(at);
    }
    jolting_ = strong;
}

}  // namespace kestro
