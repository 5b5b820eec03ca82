#include "kestro/network/url_protocol.h"

#include <atomic>
#include <mutex>

#include "kestro/network/snapshot.h"

namespace kestro {

namespace {

using ClassList = std::vector<std::shared_ptr<const URLProtocolClass>>;

// Readers (every resumed task of the shared session) take an immutable snapshot without a
// lock; writers, which are rare, copy the list under a mutex and swap it in.
struct Registry {
    std::mutex writeMutex;
    network::internal::Snapshot<const ClassList> classes{std::make_shared<const ClassList>()};
};

Registry& registry() {
    static Registry* r = new Registry();  // never destroyed: tasks may consult it at exit
    return *r;
}

}  // namespace

URLProtocol::URLProtocol(URLRequest request, std::shared_ptr<URLProtocolClient> client)
    : request_(std::move(request)), client_(std::move(client)) {}

URLProtocol::~URLProtocol() = default;

void URLProtocol::registerClass(std::shared_ptr<const URLProtocolClass> cls) {
    if (!cls) return;
    Registry& r = registry();
    std::lock_guard lock(r.writeMutex);
    auto next = std::make_shared<ClassList>();
    next->push_back(cls);
    for (const auto& c : *r.classes.load()) {
        if (c != cls) next->push_back(c);
    }
    r.classes.store(std::move(next));
}

void URLProtocol::unregisterClass(const URLProtocolClass& cls) {
    Registry& r = registry();
    std::lock_guard lock(r.writeMutex);
    auto next = std::make_shared<ClassList>();
    for (const auto& c : *r.classes.load()) {
        if (c.get() != &cls) next->push_back(c);
    }
    r.classes.store(std::move(next));
}

std::shared_ptr<const ClassList> URLProtocol::registeredClasses() {
    return registry().classes.load();
}

std::optional<URLPropertyValue> URLProtocol::property(std::string_view key,
                                                      const URLRequest& request) {
    auto it = request.properties.find(key);
    if (it == request.properties.end()) return std::nullopt;
    return it->second;
}

void URLProtocol::setProperty(URLPropertyValue value, std::string_view key, URLRequest& request) {
    auto it = request.properties.find(key);
    if (it != request.properties.end()) {
        it->second = std::move(value);
    } else {
        request.properties.emplace(std::string(key), std::move(value));
    }
}

void URLProtocol::removeProperty(std::string_view key, URLRequest& request) {
    auto it = request.properties.find(key);
    if (it != request.properties.end()) request.properties.erase(it);
}

}  // namespace kestro
