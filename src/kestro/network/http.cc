#include "kestro/network/http.h"

#include <boost/json/parse.hpp>
#include <boost/json/serialize.hpp>
#include <condition_variable>
#include <mutex>

namespace kestro::http {

std::optional<boost::json::value> Result::json() const {
    boost::system::error_code ec;
    boost::json::value v = boost::json::parse(body, ec);
    if (ec) return std::nullopt;
    return v;
}

std::string Result::summary() const {
    if (error) return error->localizedDescription();
    std::string s = std::to_string(status);
    if (ok()) s += " OK";
    return s + " (" + std::to_string(body.size()) + " bytes)";
}

namespace {

Result toResult(std::optional<std::string> data, std::optional<HTTPURLResponse> response,
                std::optional<URLError> error) {
    Result r;
    if (response) {
        r.status = response->statusCode;
        r.headers = std::move(response->allHeaderFields);
    }
    if (data) r.body = std::move(*data);
    r.error = std::move(error);
    return r;
}

std::shared_ptr<URLSessionDataTask> start(URLRequest request, Callback callback,
                                          const Options& options) {
    for (const auto& [name, value] : options.headers) request.setValue(value, name);
    if (options.timeout) request.timeoutInterval = options.timeout;
    URLSession& session = options.session ? *options.session : URLSession::shared();
    auto task = session.dataTask(
        std::move(request), [cb = std::move(callback)](std::optional<std::string> data,
                                                       std::optional<HTTPURLResponse> response,
                                                       std::optional<URLError> error) {
            if (cb) cb(toResult(std::move(data), std::move(response), std::move(error)));
        });
    task->resume();
    return task;
}

URLRequest jsonPost(std::string url, const boost::json::value& body) {
    URLRequest r(std::move(url));
    r.httpMethod = "POST";
    r.httpBody = boost::json::serialize(body);
    r.setValue("application/json", "Content-Type");
    return r;
}

}  // namespace

void get(std::string url, Callback callback, Options options) {
    start(URLRequest(std::move(url)), std::move(callback), options);
}

void postJSON(std::string url, const boost::json::value& body, Callback callback, Options options) {
    start(jsonPost(std::move(url), body), std::move(callback), options);
}

void send(URLRequest request, Callback callback, Options options) {
    start(std::move(request), std::move(callback), options);
}

Result sendBlocking(URLRequest request, std::chrono::milliseconds deadline, Options options) {
    struct Slot {
        std::mutex mutex;
        std::condition_variable cv;
        std::optional<Result> result;
    };
    auto slot = std::make_shared<Slot>();
    auto task = start(
        std::move(request),
        [slot](Result r) {
            std::lock_guard lock(slot->mutex);
            slot->result = std::move(r);
            slot->cv.notify_all();
        },
        options);
    std::unique_lock lock(slot->mutex);
    if (!slot->cv.wait_for(lock, deadline, [&] { return slot->result.has_value(); })) {
        lock.unlock();
        task->cancel();
        Result r;
        r.error = URLError::make(URLErrorCode::timedOut,
                                 "no result within " + std::to_string(deadline.count()) + " ms");
        return r;
    }
    return std::move(*slot->result);
}

Result getBlocking(std::string url, std::chrono::milliseconds deadline, Options options) {
    return sendBlocking(URLRequest(std::move(url)), deadline, std::move(options));
}

Result postJSONBlocking(std::string url, const boost::json::value& body,
                        std::chrono::milliseconds deadline, Options options) {
    return sendBlocking(jsonPost(std::move(url), body), deadline, std::move(options));
}

}  // namespace kestro::http
