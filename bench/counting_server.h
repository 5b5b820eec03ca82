#pragma once

// The loopback servers of the network benchmarks: requests are answered and counted, not kept,
// so that a long run neither grows the server nor spends its time copying requests.

#include <utility>

#include "support/http_server.h"

namespace kestro::bench {

/// A server for the rest of the program (the benchmark programs end with std::_Exit).
inline test::HttpServer& countingServer(test::HttpServer::Handler handler) {
    auto* server = new test::HttpServer(std::move(handler));
    server->keepRequests(false);
    return *server;
}

}  // namespace kestro::bench
