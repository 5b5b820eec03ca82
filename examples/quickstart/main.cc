// The smallest Kestro host: install a log handler, log at every level through the facade and
// the structured logger, and print each captured record's dictionary as JSON.
#include <boost/json/serialize.hpp>

#include <cstdio>
#include <mutex>

#include "kestro/kestro.h"

int main() {
    using namespace kestro;

    // Records are built and delivered on Kestro's worker threads, possibly concurrently.
    std::mutex printMutex;
    PrintInterceptor::startIntercepting([&](const RequestTypeLog& record) {
        const std::string json = boost::json::serialize(RequestEventType(record).encode());
        std::lock_guard lock(printMutex);
        std::printf("captured: %s\n", json.c_str());
    });

    // The facade's six logging calls.
    Kestro().l("application started, pid", 4242);
    Kestro().i("user signed in:", "ada@example.com");
    Kestro().w("cache is", 93.5, "% full");
    Kestro().e("payment failed with code", 402);
    Kestro().n("feature flag", "new-checkout", "is", true);
    Kestro().f("database unreachable");

    // The structured logger writes to the systemd journal as well.
    const KestroLogger logger("com.example.quickstart", "checkout");
    logger.l(OSLogType::info, "basket has", 3, "items");
    logger.i("checkout opened");
    logger.w("slow response:", 1.2, "s");
    logger.d("cart id", "C-17");
    logger.e("card declined");
    logger.n("coupon applied");
    logger.f("inventory out of sync");
    logger.c("order lost");
    logger.t("leaving checkout");

    // Wait for the worker threads to hand over every record before leaving.
    PrintInterceptor::flush();
    PrintInterceptor::stopIntercepting();
    std::printf("quickstart: %llu records captured\n",
                static_cast<unsigned long long>(PrintInterceptor::stats().delivered));
    return 0;
}
