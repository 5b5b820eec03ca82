// Uploads per second that the development service accepts while a dashboard follows the live
// list, against the same with no dashboard: two clients post item uploads over keep-alive
// connections to a service on loopback; the dashboard is a push-channel client that reads and
// parses every message, as the page does. An iteration ends when every upload is answered and,
// with a dashboard, when it has seen the last item. Also reported: the same with fifty pages
// following (reading every frame without parsing it, so that the pages' own work does not take
// the machine's two cores from the service), and the delay from an upload to its message at a
// page at 1,000 uploads a second.

#include <benchmark/benchmark.h>
#include <stdlib.h>

#include <algorithm>
#include <atomic>
#include <boost/asio/connect.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/websocket.hpp>
#include <boost/json.hpp>
#include <condition_variable>
#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <thread>

#include "bench/ratio.h"
#include "devservice/service.h"

namespace {

namespace net = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
namespace websocket = beast::websocket;
using tcp = net::ip::tcp;
using Clock = std::chrono::steady_clock;

constexpr int kClients = 2;
constexpr int kUploadsPerClient = 1000;
constexpr int kUploadsPerIteration = kClients * kUploadsPerClient;

struct Environment {
    std::filesystem::path dir;
    std::unique_ptr<kestro::devservice::DevService> service;
    std::string key;
    std::string token;
    std::uint16_t port = 0;
};

Environment& environment() {
    static Environment env = [] {
        Environment e;
        char tmpl[] = "/tmp/kestro-bench-dashboard-XXXXXX";
        e.dir = mkdtemp(tmpl);
        kestro::devservice::DevServiceOptions options;
        options.port = 0;
        options.dataDirectory = e.dir;
        options.logRequests = false;
        e.service = std::make_unique<kestro::devservice::DevService>(options);
        std::string error;
        if (!e.service->start(&error)) {
            std::fprintf(stderr, "the development service did not start: %s\n", error.c_str());
            std::exit(1);
        }
        e.key = *e.service->made().apiKey;
        e.token = e.service->dashboardToken();
        e.port = e.service->port();
        return e;
    }();
    return env;
}

// One SDK-like client: item uploads, one after the other, on a keep-alive connection.
class Uploader {
  public:
    explicit Uploader(int client)
        : socket_(ioc_), device_("BENCH-DEVICE-" + std::to_string(client)) {
        socket_.connect(tcp::endpoint(net::ip::address_v4::loopback(), environment().port));
        socket_.set_option(tcp::no_delay(true));
    }

    // Posts `count` log records; false when one was not accepted.
    bool post(int count) {
        for (int i = 0; i < count; ++i) {
            if (!postOne()) return false;
        }
        return true;
    }

    // Posts one log record; gives its id, or nothing when it was not accepted.
    std::optional<std::string> postOne() {
        http::request<http::string_body> request(http::verb::post, "/v1/requests", 11);
        request.set(http::field::host, "127.0.0.1");
        request.set("Api-Key", environment().key);
        request.set(http::field::content_type, "application/json");
        request.body() = body(++n_);
        request.prepare_payload();
        http::write(socket_, request);
        http::response<http::string_body> response;
        http::read(socket_, buffer_, response);
        if (response.result_int() != 200) return std::nullopt;
        return device_ + "-" + std::to_string(n_);
    }

  private:
    std::string body(long n) const {
        boost::json::object record{
            {"eventType", "log"},
            {"id", device_ + "-" + std::to_string(n)},
            {"type", "log"},
            {"level", "info"},
            {"sentAt", 1.8e9},
            {"createdAt", 1.8e9},
            {"details",
             {{"message", "checkout step " + std::to_string(n) + " took 12 ms"},
              {"subsystem", "dev.kestro.bench"},
              {"category", "checkout"},
              {"filePath", "/src/app/checkout.cc"},
              {"file", "checkout.cc"},
              {"line", 42}}},
            {"device",
             {{"id", device_},
              {"name", "bench"},
              {"platform", "linux"},
              {"sdkVersion", "1.4.402"}}}};
        return boost::json::serialize(record);
    }

    net::io_context ioc_;
    tcp::socket socket_;
    beast::flat_buffer buffer_;
    std::string device_;
    long n_ = 0;
};

// A page following the push channel on a thread of its own; counts the items it is told of.
class Follower {
  public:
    explicit Follower(bool parse) : parse_(parse), ws_(ioc_) {
        ws_.next_layer().connect(
            tcp::endpoint(net::ip::address_v4::loopback(), environment().port));
        ws_.set_option(websocket::stream_base::decorator([](websocket::request_type& r) {
            r.set(http::field::sec_websocket_protocol,
                  "kestro.v1, kestro.token." + environment().token);
        }));
        ws_.handshake("127.0.0.1", "/api/live");
        thread_ = std::thread([this] { run(); });
    }
    ~Follower() {
        beast::error_code ignored;
        ws_.next_layer().shutdown(tcp::socket::shutdown_both, ignored);
        thread_.join();
    }

    // Waits until `target` items in all were seen, at most a minute.
    bool waitFor(long target) {
        std::unique_lock lock(mutex_);
        return cv_.wait_for(lock, std::chrono::minutes(1), [&] { return items_ >= target; });
    }
    long items() {
        std::lock_guard lock(mutex_);
        return items_;
    }
    // From now on, when each item's message arrives (parsing followers only).
    void recordArrivals() {
        std::lock_guard lock(mutex_);
        recording_ = true;
    }
    std::map<std::string, Clock::time_point> arrivals() {
        std::lock_guard lock(mutex_);
        return arrivals_;
    }

  private:
    void run() {
        beast::flat_buffer buffer;
        for (;;) {
            beast::error_code ec;
            ws_.read(buffer, ec);
            if (ec) return;
            const std::string_view frame(static_cast<const char*>(buffer.data().data()),
                                         buffer.size());
            long added = 0;
            std::size_t start = 0;
            while (start < frame.size()) {
                const auto end = std::min(frame.find('\n', start), frame.size());
                const auto line = frame.substr(start, end - start);
                if (parse_) {
                    const auto message = boost::json::parse(line);
                    if (message.at("type") == "item") {
                        ++added;
                        std::lock_guard lock(mutex_);
                        if (recording_) {
                            arrivals_.emplace(message.at("item").at("id").as_string(),
                                              Clock::now());
                        }
                    }
                } else if (line.starts_with(R"({"type":"item")")) {
                    ++added;
                }
                start = end + 1;
            }
            buffer.consume(buffer.size());
            if (added > 0) {
                std::lock_guard lock(mutex_);
                items_ += added;
                cv_.notify_all();
            }
        }
    }

    bool parse_;
    net::io_context ioc_;
    websocket::stream<tcp::socket> ws_;
    std::thread thread_;
    std::mutex mutex_;
    std::condition_variable cv_;
    long items_ = 0;
    bool recording_ = false;
    std::map<std::string, Clock::time_point> arrivals_;
};

// One iteration: every client posts its uploads at once; with followers, until each has seen
// them all.
void uploadAll(benchmark::State& state, std::vector<std::unique_ptr<Uploader>>& uploaders,
               std::vector<std::unique_ptr<Follower>>& followers) {
    std::vector<long> targets;
    for (auto& f : followers) targets.push_back(f->items() + kUploadsPerIteration);
    std::atomic<bool> ok{true};
    std::vector<std::thread> threads;
    for (auto& u : uploaders) {
        threads.emplace_back([&, u = u.get()] {
            if (!u->post(kUploadsPerClient)) ok = false;
        });
    }
    for (auto& t : threads) t.join();
    for (std::size_t i = 0; i < followers.size(); ++i) {
        if (!followers[i]->waitFor(targets[i])) ok = false;
    }
    if (!ok) state.SkipWithError("an upload was refused or a page missed items");
}

void runUploads(benchmark::State& state, int pages, bool parse) {
    environment();
    std::vector<std::unique_ptr<Uploader>> uploaders;
    for (int c = 0; c < kClients; ++c) uploaders.push_back(std::make_unique<Uploader>(c));
    std::vector<std::unique_ptr<Follower>> followers;
    for (int p = 0; p < pages; ++p) followers.push_back(std::make_unique<Follower>(parse));
    for (auto _ : state) uploadAll(state, uploaders, followers);
    state.SetItemsProcessed(state.iterations() * kUploadsPerIteration);
}

void BM_UploadsAlone(benchmark::State& state) { runUploads(state, 0, false); }
void BM_UploadsWithDashboard(benchmark::State& state) { runUploads(state, 1, true); }
void BM_UploadsWithFiftyPages(benchmark::State& state) { runUploads(state, 50, false); }
BENCHMARK(BM_UploadsAlone)->Apply(kestro::bench::comparedByMedians);
BENCHMARK(BM_UploadsWithDashboard)->Apply(kestro::bench::comparedByMedians);
BENCHMARK(BM_UploadsWithFiftyPages)->Apply(kestro::bench::comparedByMedians);

// The delay from an upload leaving its client to its item's message reaching a page that
// follows, at `perSecond` uploads a second for `seconds`: p50 and p99 in milliseconds.
std::pair<double, double> pushDelay(int perSecond, int seconds) {
    Uploader uploader(9);
    Follower page(true);
    page.recordArrivals();
    std::map<std::string, Clock::time_point> sent;
    const auto period = std::chrono::nanoseconds(1'000'000'000 / perSecond);
    auto next = Clock::now();
    for (int i = 0; i < perSecond * seconds; ++i) {
        std::this_thread::sleep_until(next);
        next += period;
        const auto at = Clock::now();
        if (auto id = uploader.postOne()) sent.emplace(*id, at);
    }
    page.waitFor(static_cast<long>(sent.size()));
    const auto arrived = page.arrivals();
    std::vector<double> delays;
    for (const auto& [id, at] : sent) {
        if (auto it = arrived.find(id); it != arrived.end()) {
            delays.push_back(std::chrono::duration<double, std::milli>(it->second - at).count());
        }
    }
    if (delays.size() != sent.size()) return {-1, -1};
    std::sort(delays.begin(), delays.end());
    return {delays[delays.size() / 2], delays[delays.size() * 99 / 100]};
}

// One round of uploads with `pages` pages following and nothing else, for counting
// instructions: valgrind --tool=callgrind bench_dashboard --once=0 (or =1, =50). The pages
// read without parsing, so that what differs between the counts is the service's own work.
int once(int pages) {
    std::vector<std::unique_ptr<Uploader>> uploaders;
    for (int c = 0; c < kClients; ++c) uploaders.push_back(std::make_unique<Uploader>(c));
    std::vector<std::unique_ptr<Follower>> followers;
    for (int p = 0; p < pages; ++p) followers.push_back(std::make_unique<Follower>(false));
    std::vector<std::thread> threads;
    for (auto& u : uploaders) threads.emplace_back([u = u.get()] { u->post(kUploadsPerClient); });
    for (auto& t : threads) t.join();
    for (auto& f : followers) f->waitFor(kUploadsPerIteration);
    followers.clear();
    environment().service->stop();
    std::filesystem::remove_all(environment().dir);
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 2 && std::string_view(argv[1]).starts_with("--once=")) {
        return once(std::atoi(argv[1] + 7));
    }
    kestro::bench::CollectingReporter reporter;
    kestro::bench::runBenchmarks(argc, argv, reporter, {kestro::bench::kInterleaved});
    const double alone = reporter.time("BM_UploadsAlone");
    const double dashboard = reporter.time("BM_UploadsWithDashboard");
    const double fifty = reporter.time("BM_UploadsWithFiftyPages");
    auto perSecond = [](double ns) { return ns > 0 ? kUploadsPerIteration / (ns / 1e9) : 0.0; };
    std::printf("\n");
    kestro::bench::printRatio("uploads/s with a dashboard following / with none",
                              dashboard > 0 ? alone / dashboard : 0.0, ">= 0.9");
    kestro::bench::printRatio("uploads/s with fifty pages following / with none",
                              fifty > 0 ? alone / fifty : 0.0, "reported");
    std::printf("UPLOADS/S none %.0f, one dashboard %.0f, fifty pages %.0f (medians)\n",
                perSecond(alone), perSecond(dashboard), perSecond(fifty));
    const auto [p50, p99] = pushDelay(1000, 3);
    std::printf("DELAY upload to its push message at 1,000 uploads/s: p50 %.1f ms, p99 %.1f ms\n",
                p50, p99);
    std::fflush(stdout);
    environment().service->stop();
    std::filesystem::remove_all(environment().dir);
    std::_Exit(0);
}
