// Logs one line through the facade and waits for its record, and exports an exchange: a use of
// the SDK that needs neither a network nor a service.
#include <atomic>
#include <chrono>
#include <cstdio>
#include <string>

#include "kestro/kestro.h"

int main() {
    using namespace kestro;
    std::atomic<int> records{0};
    PrintInterceptor::startIntercepting([&](const RequestTypeLog& record) {
        if (record.details.message == "consumer 1") ++records;
    });
    Kestro().i("consumer", 1);
    const bool flushed = PrintInterceptor::flush(std::chrono::seconds(10));
    PrintInterceptor::stopIntercepting();
    if (!flushed || records.load() != 1) {
        std::fprintf(stderr, "consumer: the log record did not arrive\n");
        return 1;
    }
    // The exports come with the umbrella too.
    RequestTypeRequest exchange;
    exchange.details.request = RequestTypeRequestDetailsRequest{};
    exchange.details.request->url = "http://127.0.0.1/";
    if (curlCommand(exchange) != "curl 'http://127.0.0.1/'" ||
        harDocument({&exchange, 1}).find("\"version\":\"1.2\"") == std::string::npos) {
        std::fprintf(stderr, "consumer: the exports did not give what they should\n");
        return 1;
    }
    std::printf("consumer: Kestro %s captured its record\n", Kestro().getVersion().c_str());
    return 0;
}
