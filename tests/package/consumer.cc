// Logs one line through the facade and waits for its record: a use of the SDK that needs
// neither a network nor a service.
#include <atomic>
#include <chrono>
#include <cstdio>

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
    std::printf("consumer: Kestro %s captured its record\n", Kestro().getVersion().c_str());
    return 0;
}
