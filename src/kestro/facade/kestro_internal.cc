#include "kestro/facade/kestro_internal.h"

#include <mutex>

#include "kestro/core/console.h"

namespace kestro {

struct KestroInternal::Impl {
    mutable std::mutex mutex;
    KestroConfig config;  // logs off, network off, events off, debug, no environment
};

KestroInternal::KestroInternal() : impl_(std::make_unique<Impl>()) {}
KestroInternal::~KestroInternal() = default;

KestroInternal& KestroInternal::shared() {
    static KestroInternal* instance = new KestroInternal();
    return *instance;
}

KestroInternal& Kestro() {
    // Created thread-safely on first use and never destroyed: capture work on other threads
    // may still reach it while the process exits.
    static KestroInternal* instance = [] {
        auto* k = new KestroInternal();
        setConsoleLevel(k->getConfig().logLevel);
        return k;
    }();
    return *instance;
}

KestroConfig KestroInternal::getConfig() const {
    std::lock_guard lock(impl_->mutex);
    return impl_->config;
}

void KestroInternal::setConfig(const KestroConfig& config) {
    {
        std::lock_guard lock(impl_->mutex);
        impl_->config = config;
    }
    // Only the process-wide facade owns the console threshold.
    if (this == &Kestro()) setConsoleLevel(config.logLevel);
}

bool KestroInternal::isEnabled() const {
    std::lock_guard lock(impl_->mutex);
    return impl_->config.logs || impl_->config.network;
}

void KestroInternal::printI(std::string_view text, LogLevel level) const {
    if (consoleAllows(getConfig().logLevel, level)) writeConsoleLine(text);
}

}  // namespace kestro
