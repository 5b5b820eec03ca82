#pragma once

// Internal to the network subsystem: tasks that a protocol handler loads.

#include <memory>
#include <vector>

#include "kestro/network/url_protocol.h"
#include "kestro/network/url_session.h"

namespace kestro::network::internal {

struct TaskCore;

/// Offers the task's request to `classes` in order and starts a handler of the first that
/// admits it, with a client that completes the task from what the handler reports; when none
/// admits it, hands the task to the network. Runs on the thread that resumes the task when
/// every class starts on the calling thread, otherwise on a worker of the global executor. A
/// handler that throws while it is made or started fails the task with one console line.
void startWithHandlers(const std::shared_ptr<TaskCore>& core,
                       const std::vector<std::shared_ptr<const URLProtocolClass>>& classes);

/// For a handler that loads its request through a task of its own (`inner`, not yet resumed):
/// bytes moving on that task count as signs of life of the task that `client` reports to, so
/// that the handler's request does not reach its idle time-out while the load it waits for is
/// still receiving. Does nothing for a client that is not the layer's own.
void relayActivity(URLSessionDataTask& inner, const URLProtocolClient& client);

}  // namespace kestro::network::internal
