#include "kestro/network/internal/handler_tasks.h"

#include <cstdlib>
#include <exception>
#include <mutex>
#include <optional>
#include <string>

#include "kestro/core/console.h"
#include "kestro/network/internal/loading_loop.h"
#include "kestro/network/internal/task_core.h"

namespace kestro::network::internal {

namespace {

// The client a handler reports to: gathers the response and the bytes, and completes the task
// at the end.
class TaskClient final : public URLProtocolClient {
  public:
    explicit TaskClient(std::shared_ptr<TaskCore> core) : core_(std::move(core)) {}

    const std::shared_ptr<TaskCore>& task() const { return core_; }

    // A response head and body bytes are signs of life for the task's idle time-out.
    void didReceiveResponse(URLProtocol&, const HTTPURLResponse& response,
                            URLCacheStoragePolicy) override {
        core_->markActive(Clock::now());
        if (core_->stream) core_->stream->setHead(response);
        std::lock_guard lock(mutex_);
        if (core_->done.load()) return;
        response_ = response;
        // A declared length within the limit is reserved in one piece, as the network path
        // does: a large body then grows without copies (and without a peak of one and a half
        // times its size while the last copy is made).
        if (!core_->stream && data_.empty()) {
            const auto length = response.allHeaderFields.find("Content-Length");
            if (length != response.allHeaderFields.end()) {
                const std::uint64_t declared = std::strtoull(length->second.c_str(), nullptr, 10);
                if (declared > 0 &&
                    declared <= core_->session->configuration.maximumResponseBodySize)
                    data_.reserve(static_cast<std::size_t>(declared));
            }
        }
    }
    void didLoadData(URLProtocol&, std::string_view data) override {
        core_->markActive(Clock::now());
        if (core_->stream) {
            // Handed on at once, on the handler's thread: nothing is collected.
            if (!core_->done.load()) core_->stream->deliverHere(*core_, data);
            return;
        }
        bool over = false;
        {
            std::lock_guard lock(mutex_);
            if (core_->done.load()) return;
            const auto max = core_->session->configuration.maximumResponseBodySize;
            if (data_.size() + data.size() > max) {
                over = true;
            } else {
                data_.append(data);
            }
        }
        if (over && core_->claim()) {
            core_->deliver(std::nullopt, takeResponse(),
                           URLError::make(URLErrorCode::dataLengthExceedsMaximum));
            core_->releaseHandler(true);
        }
    }
    void didFinishLoading(URLProtocol&) override {
        if (!core_->claim()) return;
        if (core_->stream) return completeStream(std::nullopt);
        std::string data;
        {
            std::lock_guard lock(mutex_);
            data = std::move(data_);
        }
        core_->deliver(std::move(data), takeResponse(), std::nullopt);
        core_->releaseHandler(false);
    }
    void didFailWithError(URLProtocol&, const URLError& error) override {
        if (!core_->claim()) return;
        if (core_->stream) return completeStream(error);
        core_->deliver(std::nullopt, takeResponse(), error);
        core_->releaseHandler(false);
    }

  private:
    // A streamed task ends after the bytes handed on before.
    void completeStream(std::optional<URLError> error) {
        std::optional<HTTPURLResponse> response = takeResponse();
        if (!core_->stream->completeAfterData(response, error)) {
            std::optional<std::string> body;
            if (!error) body.emplace();
            core_->deliver(std::move(body), std::move(response), std::move(error));
        }
        core_->releaseHandler(false);
    }
    std::optional<HTTPURLResponse> takeResponse() {
        std::lock_guard lock(mutex_);
        return std::move(response_);
    }
    std::shared_ptr<TaskCore> core_;
    std::mutex mutex_;
    std::optional<HTTPURLResponse> response_;
    std::string data_;
};

}  // namespace

void startWithHandlers(const std::shared_ptr<TaskCore>& core,
                       const std::vector<std::shared_ptr<const URLProtocolClass>>& classes) {
    if (core->done.load()) return;
    // The handler (if it was made) holds the task through its client: letting it go breaks
    // that cycle.
    auto failToStart = [&](const std::string& detail) {
        printI("❌ A protocol handler failed to start: " + detail, LogLevel::error);
        core->releaseHandler(false);
        if (core->claim()) {
            core->deliver(std::nullopt, std::nullopt,
                          URLError::make(URLErrorCode::unknown, detail));
        }
    };
    for (const auto& cls : classes) {
        bool admitted = false;
        runReportingThrows("A protocol handler's admission test",
                           [&] { admitted = cls->canInit(core->request); });
        if (!admitted) continue;
        try {
            URLRequest canonical = cls->canonicalRequest(core->request);
            // The handler sees the idle time-out its task runs under, the session's when the
            // request sets none, so that a load it makes for the request can keep to it.
            if (!canonical.timeoutInterval) {
                canonical.timeoutInterval =
                    std::chrono::duration_cast<std::chrono::milliseconds>(core->idleTimeout);
            }
            auto client = std::make_shared<TaskClient>(core);
            std::shared_ptr<URLProtocol> handler = cls->create(canonical, std::move(client));
            if (!handler) continue;
            // The task's time-outs apply whoever loads it: from here on the loop times it.
            core->timedAsHandled.store(true);
            timeHandledTask(core);
            std::lock_guard lock(core->handlerMutex);
            if (core->done.load()) return;
            core->handler = handler;
            handler->startLoading();
        } catch (const std::exception& e) {
            failToStart(e.what());
        } catch (...) {
            // Nothing may reach the caller, which may be the application's thread.
            failToStart("unknown exception");
        }
        return;
    }
    core->onLoop.store(true);
    loadOnNetwork(core);
}

void relayActivity(URLSessionDataTask& inner, const URLProtocolClient& client) {
    if (const auto* taskClient = dynamic_cast<const TaskClient*>(&client)) {
        TaskAccess::core(inner)->activityAlsoOf = taskClient->task();
    }
}

}  // namespace kestro::network::internal
