#include "devservice/service.h"

#include <fmt/format.h>

#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/strand.hpp>

#include "devservice/auth.h"
#include "devservice/server.h"
#include "devservice/sqlite_store.h"

namespace kestro::devservice {
namespace net = boost::asio;
namespace ssl = boost::asio::ssl;
using tcp = net::ip::tcp;

namespace internal {

constexpr auto kStopGrace = std::chrono::milliseconds(300);
// Deleted rows are removed this many at a time, each batch its own transaction, so that an
// upload waits at most for one batch.
constexpr std::int64_t kPurgeBatch = 500;

void applyRetention(ServiceCore& core) {
    auto& context = *core.context;
    const auto& o = context.options;
    std::optional<double> cutoff;
    if (o.keepDays > 0) cutoff = context.now() - static_cast<double>(o.keepDays) * 86400.0;
    std::optional<std::int64_t> maxItems;
    if (o.maxItemsPerDevice > 0) maxItems = o.maxItemsPerDevice;
    if (cutoff || maxItems) context.store->applyRetention(cutoff, maxItems);
    // Also removes what the dashboard deleted since the last round.
    while (!core.maintenanceStopping && context.store->purgeDeleted(kPurgeBatch) > 0) {
    }
}

namespace {

void maintain(ServiceCore& core) {
    applyRetention(core);
    std::unique_lock lock(core.maintenanceMutex);
    while (!core.maintenanceStopping) {
        core.maintenanceWake.wait_for(lock, core.context->options.retentionInterval,
                                      [&] { return core.maintenanceStopping.load(); });
        if (core.maintenanceStopping) break;
        lock.unlock();
        applyRetention(core);
        lock.lock();
    }
}

}  // namespace
}  // namespace internal

DevService::DevService(DevServiceOptions options) : options_(std::move(options)) {}

DevService::~DevService() { stop(); }

bool DevService::start(std::string* error) {
    if (running()) return true;
    made_ = Made{};
    auto fail = [&](std::string message) {
        if (error) *error = std::move(message);
        core_.reset();
        return false;
    };
    core_ = std::make_shared<internal::ServiceCore>();
    auto& core = *core_;

    std::string problem;
    const auto file = options_.dataDirectory / kDatabaseFileName;
    auto store = SQLiteStore::open(file, &problem);
    if (!store) return fail("cannot open the database " + file.string() + ": " + problem);
    const auto token = loadOrCreateToken(options_.dataDirectory, &made_.token, &problem);
    if (!token) return fail(problem);
    if (store->keys().empty()) {
        const double now = options_.clock ? options_.clock() : nowSeconds();
        const auto key = store->addKey(newApiKey(), "default", now, &problem);
        if (!key) return fail("cannot store the first API key: " + problem);
        made_.apiKey = key->key;
    }
    core.context = std::make_unique<Context>(options_, std::move(store), *token);
    core.router = std::make_unique<ApiRouter>(*core.context);

    if (options_.tls()) {
        core.tls.emplace(ssl::context::tls_server);
        boost::system::error_code ec;
        core.tls->set_options(ssl::context::default_workarounds | ssl::context::no_sslv2 |
                                  ssl::context::no_sslv3 | ssl::context::no_tlsv1 |
                                  ssl::context::no_tlsv1_1,
                              ec);
        core.tls->use_certificate_chain_file(options_.tlsCert.string(), ec);
        if (ec)
            return fail("cannot use the certificate " + options_.tlsCert.string() + ": " +
                        ec.message());
        core.tls->use_private_key_file(options_.tlsKey.string(), ssl::context::pem, ec);
        if (ec)
            return fail("cannot use the private key " + options_.tlsKey.string() + ": " +
                        ec.message());
    }

    boost::system::error_code ec;
    const auto address = net::ip::make_address(options_.address, ec);
    if (ec) return fail("\"" + options_.address + "\" is not an IP address");
    const tcp::endpoint endpoint(address, options_.port);
    core.acceptor.emplace(net::make_strand(core.ioc));
    auto& acceptor = *core.acceptor;
    if (acceptor.open(endpoint.protocol(), ec); !ec) {
        acceptor.set_option(net::socket_base::reuse_address(true), ec);
        acceptor.bind(endpoint, ec);
    }
    if (!ec) acceptor.listen(net::socket_base::max_listen_connections, ec);
    if (ec) {
        return fail(fmt::format("cannot listen on {}:{}: {}", options_.address, options_.port,
                                ec.message()));
    }
    core.port = acceptor.local_endpoint().port();
    core.running = true;
    internal::acceptNext(core);
    core.work.emplace(core.ioc.get_executor());
    for (unsigned i = 0; i < std::max(1u, options_.threads); ++i) {
        core.threads.emplace_back([&core] { core.ioc.run(); });
    }
    core.maintenance = std::thread([&core] { internal::maintain(core); });
    return true;
}

void DevService::stop() {
    if (!core_) return;
    auto& core = *core_;
    {
        std::lock_guard lock(core.stopMutex);
        if (!core.running.exchange(false)) return;
        {
            std::lock_guard wake(core.maintenanceMutex);
            core.maintenanceStopping = true;
        }
        core.maintenanceWake.notify_all();
        core.maintenance.join();
        net::post(core.acceptor->get_executor(), [&core] {
            boost::system::error_code ignored;
            core.acceptor->close(ignored);
        });
        // Close handshakes get a moment to complete; then the loop ends regardless. Plain
        // HTTP exchanges are short and are not waited for.
        const auto open = core.context->links.closeAll("the service is stopping") +
                          core.context->hub.closeAll("the service is stopping");
        auto timer = std::make_shared<net::steady_timer>(
            core.ioc, open > 0 ? internal::kStopGrace : std::chrono::milliseconds(0));
        timer->async_wait([&core, timer](boost::system::error_code) { core.ioc.stop(); });
        core.work.reset();
        for (auto& t : core.threads) t.join();
        core.threads.clear();
    }
    core_.reset();
}

void DevService::applyRetention() {
    if (core_ && core_->running) internal::applyRetention(*core_);
}

bool DevService::running() const { return core_ && core_->running; }

std::uint16_t DevService::port() const { return core_ ? core_->port.load() : 0; }

std::string DevService::dashboardToken() const { return core_ ? core_->context->token : ""; }

std::string DevService::httpURL() const {
    const bool v6 = options_.address.find(':') != std::string::npos;
    return fmt::format("{}://{}{}{}:{}", options_.tls() ? "https" : "http", v6 ? "[" : "",
                       options_.address, v6 ? "]" : "", port());
}

std::string DevService::webSocketURL() const {
    const std::string http = httpURL();
    return (options_.tls() ? "wss" : "ws") + http.substr(http.find(':'));
}

}  // namespace kestro::devservice
