// The Kestro demo host. It initialises Kestro against the development service, then every few
// seconds logs through each logging call, calls the service's sample API through Kestro's
// URL-loading layer (a sign-in among them, whose secrets its redaction policy hides) and records
// a custom event. It prints what happens to it — answers, the
// dashboard link going up and down, commands arriving — and runs until Ctrl+C (or for
// --rounds rounds).
//
//   kestro-demo [--rounds N] [--interval-ms MS] [--key KEY] [--verbose]
//
// The key defaults to $KESTRO_API_KEY, else "kt-dev-demo"; the service accepts only keys it
// made (`kestro-devservice keys`), and scripts/run.sh passes one. The service is found where the
// SDK's development endpoint points (127.0.0.1:3007, or $KESTRO_DEV_HOST).

#include <signal.h>

#include <atomic>
#include <boost/json.hpp>
#include <charconv>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>

#include "kestro/core/notification_center.h"
#include "kestro/kestro.h"
#include "kestro/network/http.h"
#include "kestro/network/mock_cache.h"
#include "kestro/network/network_interceptor.h"
#include "kestro/remote/websocket_manager.h"
#include "kestro/store/request_store_sqlite.h"

namespace {

using namespace kestro;
using Clock = std::chrono::steady_clock;

struct Options {
    long rounds = 0;  // 0: until stopped
    long intervalMs = 3000;
    std::string key;
    bool verbose = false;
};

bool parseNumber(std::string_view text, long* out) {
    long value = 0;
    const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (ec != std::errc() || end != text.data() + text.size() || value < 0) return false;
    *out = value;
    return true;
}

bool parseOptions(int argc, char** argv, Options* o) {
    const char* envKey = std::getenv("KESTRO_API_KEY");
    o->key = envKey && *envKey ? envKey : "kt-dev-demo";
    for (int i = 1; i < argc; ++i) {
        const std::string_view arg = argv[i];
        const bool hasValue = i + 1 < argc;
        if (arg == "--rounds" && hasValue) {
            if (!parseNumber(argv[++i], &o->rounds)) return false;
        } else if (arg == "--interval-ms" && hasValue) {
            if (!parseNumber(argv[++i], &o->intervalMs)) return false;
        } else if (arg == "--key" && hasValue) {
            o->key = argv[++i];
        } else if (arg == "--verbose") {
            o->verbose = true;
        } else {
            return false;
        }
    }
    return true;
}

// The demo's own lines, whole even when answers arrive on several threads at once.
template <typename... Args>
void say(const char* format, Args... args) {
    static std::mutex mutex;
    std::lock_guard lock(mutex);
    std::printf("demo │ ");
    std::printf(format, args...);
    std::printf("\n");
    std::fflush(stdout);
}

// Ctrl+C and SIGTERM end the run; a thread waits for them so that no handler runs inside
// Kestro's threads.
class StopSignal {
  public:
    StopSignal() {
        sigemptyset(&set_);
        sigaddset(&set_, SIGINT);
        sigaddset(&set_, SIGTERM);
        pthread_sigmask(SIG_BLOCK, &set_, nullptr);  // before any other thread starts
    }
    void startWaiting() {
        std::thread([this] {
            int signal = 0;
            sigwait(&set_, &signal);
            stop();
        }).detach();
    }
    void stop() {
        std::lock_guard lock(mutex_);
        stopped_ = true;
        cv_.notify_all();
    }
    // Waits up to `period`; true when the run should end.
    bool waitFor(std::chrono::milliseconds period) {
        std::unique_lock lock(mutex_);
        return cv_.wait_for(lock, period, [&] { return stopped_; });
    }

  private:
    sigset_t set_;
    std::mutex mutex_;
    std::condition_variable cv_;
    bool stopped_ = false;
};

// Calls the sample API and reports each answer with its time, so a request held at a
// breakpoint shows how long it was held and a mocked one shows the rule's answer.
std::atomic<int> inFlight{0};

void call(const std::string& base, const std::string& method, const std::string& path,
          std::optional<boost::json::value> body = std::nullopt, http::Options options = {}) {
    const auto started = Clock::now();
    inFlight.fetch_add(1);
    auto report = [method, path, started](http::Result r) {
        const double ms = std::chrono::duration<double, std::milli>(Clock::now() - started).count();
        std::string detail = r.summary();
        if (r.ok() && r.body.size() <= 60 && !r.body.empty() && r.body.front() == '{') {
            detail += " " + r.body;
        }
        say("%s %s → %s in %.0f ms", method.c_str(), path.c_str(), detail.c_str(), ms);
        inFlight.fetch_sub(1);
    };
    if (body) {
        http::postJSON(base + path, *body, report, std::move(options));
    } else {
        http::get(base + path, report, std::move(options));
    }
}

void logEverywhere(long round) {
    static const KestroLogger logger("dev.kestro.demo", "rounds");
    switch (round % 6) {
        case 0:
            Kestro().l("round", round, "begins");
            break;
        case 1:
            Kestro().i("user", "ada@example.com", "opened the basket");
            break;
        case 2:
            Kestro().w("cache is", 93.5, "% full");
            break;
        case 3:
            Kestro().e("payment failed with code", 402);
            break;
        case 4:
            Kestro().n("feature flag", "new-checkout", "is", true);
            break;
        default:
            Kestro().f("database unreachable, retrying");
            break;
    }
    logger.i("round", round, "of the structured logger");
}

// The demo's own secrets, kept out of everything Kestro stores and uploads by its policy.
constexpr const char* kDemoBearer = "Bearer demo-bearer-7f3a";
constexpr const char* kDemoSession = "demo-session-7f3a";
constexpr const char* kDemoPassword = "demo-password-7f3a";

void runRound(const std::string& base, long round) {
    logEverywhere(round);
    call(base, "GET", "/sample/users");
    call(base, "GET", "/sample/users/" + std::to_string(round % 5 + 1));
    call(base, "POST", "/sample/echo",
         boost::json::object{{"round", round}, {"items", boost::json::array{"apple", "pear"}}});
    // A sign-in carrying secrets in a header, a query item and the JSON both ways; the demo's
    // redaction policy hides each of them in what Kestro keeps and sends.
    http::Options signIn;
    signIn.headers["Authorization"] = kDemoBearer;
    call(base, "POST", std::string("/sample/login?session=") + kDemoSession,
         boost::json::object{{"user", "demo"}, {"password", kDemoPassword}}, std::move(signIn));
    if (round % 3 == 0) {
        call(base, "GET", "/sample/image.png");
        call(base, "GET", "/sample/status/404");
        call(base, "GET", "/sample/slow?ms=400");
    }
    Kestro().logEvent(
        "round_completed", "demo",
        {{"round", round}, {"stored", RequestStoreSQLite::shared().requests().size()}});
}

}  // namespace

int main(int argc, char** argv) {
    StopSignal stop;  // first: every thread started later inherits the blocked signals
    Options options;
    if (!parseOptions(argc, argv, &options)) {
        std::fprintf(stderr,
                     "usage: kestro-demo [--rounds N] [--interval-ms MS] [--key KEY] "
                     "[--verbose]\n");
        return 2;
    }
    stop.startWaiting();

    // What the dashboard does to this application.
    auto linkToken = NotificationCenter::defaultCenter().addObserver(
        kWebsocketConnectionChange, [](const Notification& n) {
            const auto* status = std::any_cast<WebsocketConnectionStatus>(&n.object);
            const bool up = status && *status == WebsocketConnectionStatus::connected;
            say("%s", up ? "dashboard link is up" : "dashboard link is down");
        });
    auto sheetToken = NotificationCenter::defaultCenter().addObserver(
        kOpenKestroSheet,
        [](const Notification&) { say("the dashboard asked to open the inspector"); });

    const LogLevel level = options.verbose ? LogLevel::verbose : LogLevel::info;
    KestroConfig config(true, true, true, level, "dev");
    // Beside the default credential headers: the sign-in's password and token, and the
    // session query item.
    config.redaction.jsonKeys = {"password", "token"};
    config.redaction.queryItems = {"session"};
    Kestro().initialize(options.key, config);
    const std::string base = Kestro().getAPIEndpoint();
    const std::string device = Kestro().deviceUUID();
    if (device.empty()) return 1;  // the key was refused; initialize said why

    say("Kestro %s, device %s, service %s", Kestro().getVersion().c_str(), device.c_str(),
        base.c_str());
    say("try in another terminal:");
    say("  kestro-devservice items --device %s", device.c_str());
    say("  kestro-devservice send %s enable_break_point     (then disable_break_point)",
        device.c_str());
    say("  kestro-devservice send %s enable_mock_request "
        "'{\"url\":\"%s/sample/users/*\",\"statusCode\":418,\"body\":\"{\\\"mocked\\\":true}\"}'",
        device.c_str(), base.c_str());
    say("  kestro-devservice send %s send_ping", device.c_str());

    // The link comes up in the background; give it a moment so that the first round already
    // reports to the dashboard (the demo goes on without it after two seconds).
    const auto linkDeadline = Clock::now() + std::chrono::seconds(2);
    while (!Kestro().isConnectedToWs() && Clock::now() < linkDeadline &&
           !stop.waitFor(std::chrono::milliseconds(50))) {
    }

    std::atomic<bool> breakpointWasOn{false};
    long round = 0;
    do {
        ++round;
        const bool breakpointOn = Kestro().getNetworkInterceptor().isBreakPointEnabled();
        if (breakpointOn != breakpointWasOn.exchange(breakpointOn)) {
            say("%s", breakpointOn ? "breakpoints are on: requests wait until they are switched off"
                                   : "breakpoints are off");
        }
        say("round %ld: %zu items stored here, %zu mock rules, link %s", round,
            RequestStoreSQLite::shared().requests().size(), Kestro().getMockCache().getSize(),
            Kestro().isConnectedToWs() ? "up" : "down");
        runRound(base, round);
    } while ((options.rounds == 0 || round < options.rounds) &&
             !stop.waitFor(std::chrono::milliseconds(options.intervalMs)));

    // Let the answers in flight arrive (a few seconds at most), then leave; log records still
    // queued are delivered first.
    const auto deadline = Clock::now() + std::chrono::seconds(5);
    while (inFlight.load() > 0 && Clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    PrintInterceptor::flush();
    say("stopped after %ld rounds", round);
    return 0;
}
