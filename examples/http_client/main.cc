// Making HTTP calls from a host application with Kestro's URL-loading layer.
//
//   http_client <url>                 GET the URL and print status, headers and body
//   http_client <url> '<json>'        POST the JSON text to the URL
//
// Shows the three forms: a one-line call with a callback, the blocking form with a deadline
// (for command-line tools), and a full data task with its own session configuration.

#include <boost/json/parse.hpp>
#include <condition_variable>
#include <cstdio>
#include <mutex>

#include "kestro/network/http.h"
#include "kestro/network/url_session.h"

using namespace kestro;

int main(int argc, char** argv) {
    if (argc < 2) {
        std::fprintf(stderr, "usage: %s <url> [json body]\n", argv[0]);
        return 2;
    }
    const std::string url = argv[1];

    // 1. Blocking form: at most ten seconds, then the request is cancelled.
    http::Result result;
    if (argc > 2) {
        boost::system::error_code ec;
        boost::json::value body = boost::json::parse(argv[2], ec);
        if (ec) {
            std::fprintf(stderr, "the body is not JSON: %s\n", ec.message().c_str());
            return 2;
        }
        result = http::postJSONBlocking(url, body, std::chrono::seconds(10));
    } else {
        result = http::getBlocking(url, std::chrono::seconds(10));
    }
    std::printf("%s\n", result.summary().c_str());
    for (const auto& [name, value] : result.headers) {
        std::printf("%s: %s\n", name.c_str(), value.c_str());
    }
    std::printf("\n%s\n", result.body.c_str());

    // 2. One-line call with a callback: returns at once; the callback runs on a worker thread.
    std::mutex mutex;
    std::condition_variable cv;
    bool done = false;
    http::get(url, [&](http::Result r) {
        std::printf("callback: %s\n", r.summary().c_str());
        std::lock_guard lock(mutex);
        done = true;
        cv.notify_one();
    });
    {
        std::unique_lock lock(mutex);
        cv.wait_for(lock, std::chrono::seconds(15), [&] { return done; });
    }

    // 3. A data task on a session of its own: short time-outs, a cap on the body size.
    URLSessionConfiguration config;
    config.timeoutIntervalForRequest = std::chrono::seconds(5);
    config.maximumResponseBodySize = 16 * 1024 * 1024;
    URLSession session(config);
    URLRequest request(url);
    request.httpMethod = "HEAD";
    done = false;
    auto task = session.dataTask(request, [&](std::optional<std::string>,
                                              std::optional<HTTPURLResponse> response,
                                              std::optional<URLError> error) {
        if (error) {
            std::printf("HEAD failed: %s\n", error->localizedDescription().c_str());
        } else {
            std::printf("HEAD: %lld over %s, Content-Type %s\n",
                        static_cast<long long>(response->statusCode), response->httpVersion.c_str(),
                        response->value("Content-Type").value_or("(none)").c_str());
        }
        std::lock_guard lock(mutex);
        done = true;
        cv.notify_one();
    });
    task->resume();
    std::unique_lock lock(mutex);
    cv.wait_for(lock, std::chrono::seconds(15), [&] { return done; });
    return result.error ? 1 : 0;
}
