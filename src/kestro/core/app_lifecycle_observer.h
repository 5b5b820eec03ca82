#pragma once

#include <functional>
#include <memory>

#include "kestro/core/export.h"
#include "kestro/core/notification_center.h"

namespace kestro {

/// Names of the application life-cycle notifications on NotificationCenter::defaultCenter().
/// The host integration posts them (postApplicationWillEnterForeground() and
/// postApplicationDidEnterBackground()); neither carries an object.
inline constexpr const char* kApplicationWillEnterForeground = "applicationWillEnterForeground";
inline constexpr const char* kApplicationDidEnterBackground = "applicationDidEnterBackground";

/// Tells the SDK that the application is about to come back to the foreground. The host
/// integration calls it when its window regains focus or the application is restored (the SDL
/// integration maps SDL's application and window-focus events to it). Any thread; observers
/// run on the main queue.
KESTRO_API void postApplicationWillEnterForeground();
/// Tells the SDK that the application went to the background (window hidden or minimised, focus
/// lost, the system suspends it). Any thread; observers run on the main queue.
KESTRO_API void postApplicationDidEnterBackground();

/// Turns the two life-cycle notifications into two optional callbacks.
///
/// From construction to destruction the observer is subscribed to both notifications on the
/// default notification centre; a notification calls the matching callback, if one is set, on
/// the main queue. Destroying the observer unsubscribes it and releases both callbacks; a
/// notification already on its way is not delivered afterwards. The facade owns one observer
/// at a time.
///
/// Threads: the callbacks may be set and read from any thread; they are called on the main
/// queue, never while the observer's internal lock is held, so a callback may set callbacks or
/// destroy other observers. Destroy the observer on the main queue (or when no notification
/// can be in delivery) if its callbacks refer to objects that die with it.
class KESTRO_API AppLifecycleObserver {
  public:
    using Callback = std::function<void()>;

    AppLifecycleObserver();
    ~AppLifecycleObserver();
    AppLifecycleObserver(const AppLifecycleObserver&) = delete;
    AppLifecycleObserver& operator=(const AppLifecycleObserver&) = delete;

    Callback onMoveToForeground() const;
    void setOnMoveToForeground(Callback callback);
    Callback onMoveToBackground() const;
    void setOnMoveToBackground(Callback callback);

    struct State;

  private:
    std::shared_ptr<State> state_;
    ObserverToken foreground_;
    ObserverToken background_;
};

}  // namespace kestro
