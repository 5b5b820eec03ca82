#pragma once

#include <boost/json/object.hpp>
#include <chrono>
#include <memory>
#include <string>
#include <string_view>

#include "devservice/commands.h"
#include "devservice/device_links.h"
#include "devservice/live.h"
#include "devservice/options.h"
#include "devservice/store.h"

namespace kestro::devservice {

/// What the service's parts share while it runs: its options and dashboard token, the store,
/// the device links, the command log, the steering state and the push channel's hub, wired
/// together (store writes, link changes and command outcomes publish to the hub). Built by
/// DevService::start(); everything in it may be used from any thread.
struct Context {
    Context(DevServiceOptions options, std::unique_ptr<DevStore> store, std::string token);
    Context(const Context&) = delete;
    Context& operator=(const Context&) = delete;

    /// Seconds since 1970 now, by the configured clock.
    double now() const;
    /// The push channel's first message, or the one that replaces what a slow page missed.
    boost::json::object snapshot(std::string_view reason);
    /// A console line, when the service writes them.
    void log(std::string_view line) const;

    const DevServiceOptions options;
    const std::unique_ptr<DevStore> store;
    const std::string token;
    const std::chrono::steady_clock::time_point started;
    LiveHub hub;
    DeviceLinks links;
    CommandLog commands;
    Steering steering;
};

/// Seconds since 1970 now, by the system clock, as the records write points in time.
double nowSeconds();

}  // namespace kestro::devservice
