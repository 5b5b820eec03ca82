#pragma once

#include <optional>
#include <string>
#include <thread>

#include "kestro/network/url_session.h"
#include "support/wait.h"

namespace kestro::test {

/// What one data task's completion received, and on which thread.
struct Outcome {
    std::optional<std::string> data;
    std::optional<HTTPURLResponse> response;
    std::optional<URLError> error;
    std::thread::id thread;
};

/// Starts a task that records its completions; wait() returns the first.
class Fetch {
  public:
    Fetch(URLSession& session, URLRequest request) {
        task_ =
            session.dataTask(std::move(request), [rec = recorder_](std::optional<std::string> d,
                                                                   std::optional<HTTPURLResponse> r,
                                                                   std::optional<URLError> e) {
                rec->add({std::move(d), std::move(r), std::move(e), std::this_thread::get_id()});
            });
    }
    Fetch& resume() {
        task_->resume();
        return *this;
    }
    /// The first completion; fails the test when none arrives within the deadline.
    Outcome wait(std::chrono::milliseconds timeout = std::chrono::seconds(10)) {
        if (!recorder_->waitFor(1, timeout)) {
            ADD_FAILURE() << "no completion within " << timeout.count() << " ms";
            return {};
        }
        return recorder_->values().front();
    }
    std::size_t completions() const { return recorder_->size(); }
    URLSessionDataTask& task() { return *task_; }

  private:
    std::shared_ptr<Recorder<Outcome>> recorder_ = std::make_shared<Recorder<Outcome>>();
    std::shared_ptr<URLSessionDataTask> task_;
};

inline Outcome load(URLSession& session, URLRequest request,
                    std::chrono::milliseconds timeout = std::chrono::seconds(10)) {
    Fetch f(session, std::move(request));
    return f.resume().wait(timeout);
}

inline Outcome load(URLSession& session, std::string url) {
    return load(session, URLRequest(std::move(url)));
}

}  // namespace kestro::test
