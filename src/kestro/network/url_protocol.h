#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "kestro/core/export.h"
#include "kestro/network/url_request.h"

namespace kestro {

class URLProtocol;

/// Whether a handler's response may be kept in a cache. The layer keeps no cache; the value is
/// passed through for handlers that report it.
enum class URLCacheStoragePolicy : std::uint8_t {
    allowed = 0,
    allowedInMemoryOnly = 1,
    notAllowed = 2
};

/// What a protocol handler reports to: the data task that it loads for. A handler calls
/// didReceiveResponse (at most once), didLoadData (any number of times), then exactly one of
/// didFinishLoading or didFailWithError. Calls after the end, or after the task was cancelled,
/// are ignored.
///
/// Thread safety: every member may be called from any thread, but the calls of one handler
/// must not overlap (make them from one thread or one chain of asynchronous steps).
class KESTRO_API URLProtocolClient {
  public:
    virtual ~URLProtocolClient() = default;
    virtual void didReceiveResponse(URLProtocol& protocol, const HTTPURLResponse& response,
                                    URLCacheStoragePolicy policy) = 0;
    virtual void didLoadData(URLProtocol& protocol, std::string_view data) = 0;
    virtual void didFinishLoading(URLProtocol& protocol) = 0;
    virtual void didFailWithError(URLProtocol& protocol, const URLError& error) = 0;
};

/// A handler class, as the registry sees it: the class-level admission test, the class-level
/// canonical form, and the making of one handler object per admitted request. Use
/// URLProtocolClass::of<T>() for a URLProtocol subclass T; implement this interface directly
/// only for handler classes assembled at run time.
///
/// The registry knows a class by its class object: of<T>() is one object per T, so registering
/// T again moves it to the front and unregistering T removes it; two class objects assembled
/// at run time are two registrations, each added and removed on its own.
class KESTRO_API URLProtocolClass {
  public:
    virtual ~URLProtocolClass() = default;
    /// Whether the class takes over this request. Called on a worker of the global executor
    /// (on the resuming thread when startsOnCallingThread() allows); must be quick and must
    /// not block.
    virtual bool canInit(const URLRequest& request) const = 0;
    /// The form of the request that the handler object is made with.
    virtual URLRequest canonicalRequest(const URLRequest& request) const = 0;
    virtual std::shared_ptr<URLProtocol> create(
        const URLRequest& request, std::shared_ptr<URLProtocolClient> client) const = 0;
    /// True when canInit(), create() and the handler's startLoading() are quick, never block
    /// and never call code of the application: requests are then offered to the class on the
    /// thread that resumes them, saving a thread hop. When any class a session consults says
    /// false, every class is consulted on a worker of the global executor.
    virtual bool startsOnCallingThread() const { return false; }

    /// The one class object of a URLProtocol subclass T. T provides
    ///   static bool canInit(const URLRequest&);
    ///   T(const URLRequest&, std::shared_ptr<URLProtocolClient>);
    /// and may hide URLProtocol::canonicalRequest with a static of its own.
    template <typename T>
    static std::shared_ptr<const URLProtocolClass> of();
};

/// The base of protocol handlers: objects that answer a request instead of the network (or
/// before passing it on). The loading layer makes one handler object per admitted request,
/// calls startLoading() once and, if the task is cancelled before the handler ended it,
/// stopLoading() once.
///
/// Threads: startLoading() and stopLoading() are called on workers of the global executor (or
/// startLoading() on the resuming thread, for classes whose startsOnCallingThread() is true)
/// and must return promptly. A handler that waits (for a breakpoint, for its own network load)
/// does so asynchronously and reports to client() later from whatever thread it is on; it
/// keeps itself alive meanwhile with shared_from_this().
///
/// Time-outs: the task's own apply while a handler loads it. The handler's request carries
/// the idle time-out in timeoutInterval (its session's when the application set none); a
/// handler whose client hears nothing for that long, or that runs past the session's resource
/// time-out, is told stopLoading() and the task fails with URLErrorCode::timedOut.
///
/// Ownership: the data task owns its handler object until the task has completed.
class KESTRO_API URLProtocol : public std::enable_shared_from_this<URLProtocol> {
  public:
    URLProtocol(URLRequest request, std::shared_ptr<URLProtocolClient> client);
    virtual ~URLProtocol();
    URLProtocol(const URLProtocol&) = delete;
    URLProtocol& operator=(const URLProtocol&) = delete;

    const URLRequest& request() const { return request_; }
    const std::shared_ptr<URLProtocolClient>& client() const { return client_; }

    virtual void startLoading() = 0;
    virtual void stopLoading() = 0;

    /// Default canonical form: the request unchanged.
    static URLRequest canonicalRequest(const URLRequest& request) { return request; }

    // The registry of handler classes that the shared session consults for every new request,
    // most recently registered first. Any thread; a change applies to requests resumed after
    // it.

    /// Adds a class (or moves it to the front when that class object is already registered).
    static void registerClass(std::shared_ptr<const URLProtocolClass> cls);
    template <typename T>
    static void registerClass() {
        registerClass(URLProtocolClass::of<T>());
    }
    static void unregisterClass(const URLProtocolClass& cls);
    template <typename T>
    static void unregisterClass() {
        unregisterClass(*URLProtocolClass::of<T>());
    }
    /// The registered classes, most recent first (a snapshot).
    static std::shared_ptr<const std::vector<std::shared_ptr<const URLProtocolClass>>>
    registeredClasses();

    // The property bag of a request. Properties travel with the request and its copies and are
    // never sent on the wire.

    static std::optional<URLPropertyValue> property(std::string_view key,
                                                    const URLRequest& request);
    static void setProperty(URLPropertyValue value, std::string_view key, URLRequest& request);
    static void removeProperty(std::string_view key, URLRequest& request);

  private:
    URLRequest request_;
    std::shared_ptr<URLProtocolClient> client_;
};

namespace network::internal {
template <typename T>
class ProtocolClassOf final : public URLProtocolClass {
  public:
    bool canInit(const URLRequest& request) const override { return T::canInit(request); }
    URLRequest canonicalRequest(const URLRequest& request) const override {
        return T::canonicalRequest(request);
    }
    std::shared_ptr<URLProtocol> create(const URLRequest& request,
                                        std::shared_ptr<URLProtocolClient> client) const override {
        return std::make_shared<T>(request, std::move(client));
    }
};
}  // namespace network::internal

template <typename T>
std::shared_ptr<const URLProtocolClass> URLProtocolClass::of() {
    static_assert(std::is_base_of_v<URLProtocol, T>, "a handler class derives from URLProtocol");
    static const std::shared_ptr<const URLProtocolClass> cls =
        std::make_shared<network::internal::ProtocolClassOf<T>>();
    return cls;
}

}  // namespace kestro
