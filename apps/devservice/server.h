#pragma once

// The network side of a running service: the io_context and its threads, the listening
// socket, the TLS context, and the thread that applies retention. Internal to the service.

#include <atomic>
#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ssl/context.hpp>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

#include "devservice/api.h"
#include "devservice/context.h"

namespace kestro::devservice::internal {

/// Everything a running service owns. Members are declared so that the io_context is destroyed
/// before what its pending handlers refer to (context, router): sessions hold a reference to
/// the core, never ownership.
struct ServiceCore {
    std::unique_ptr<Context> context;
    std::unique_ptr<ApiRouter> router;
    std::optional<boost::asio::ssl::context> tls;
    boost::asio::io_context ioc;
    std::optional<boost::asio::ip::tcp::acceptor> acceptor;
    std::optional<boost::asio::executor_work_guard<boost::asio::io_context::executor_type>> work;
    std::vector<std::thread> threads;
    std::atomic<bool> running{false};
    std::atomic<std::uint16_t> port{0};
    std::mutex stopMutex;

    // Retention runs on a thread of its own, woken by its interval or the stop.
    std::thread maintenance;
    std::mutex maintenanceMutex;
    std::condition_variable maintenanceWake;
    std::atomic<bool> maintenanceStopping{false};
};

/// Accepts connections until the acceptor closes; each becomes an HTTP session (TLS when the
/// core has a TLS context).
void acceptNext(ServiceCore& core);

/// One round of retention: marks what the policy deletes, then removes the deleted rows in
/// small batches. Any thread but a service thread.
void applyRetention(ServiceCore& core);

}  // namespace kestro::devservice::internal
