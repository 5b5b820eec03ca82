#pragma once

#include <gtest/gtest.h>

#include <boost/json.hpp>
#include <filesystem>
#include <memory>
#include <string>

#include "devservice/service.h"
#include "test_client.h"

namespace kestro::test {

/// The options of a development service on a free loopback port over `dir`.
inline devservice::DevServiceOptions serviceOptions(const std::filesystem::path& dir) {
    devservice::DevServiceOptions options;
    options.port = 0;
    options.dataDirectory = dir;
    options.logRequests = false;
    options.maxSlowMs = 2000;
    return options;
}

/// The key the service made at its first start (the only one there is then).
inline std::string firstKey(std::uint16_t port, const std::string& token) {
    const auto keys =
        httpRequest(port, "GET", "/api/keys", {}, {{"Authorization", "Bearer " + token}}).json();
    return std::string(keys.at("keys").as_array().at(0).at("key").as_string());
}

/// A development service on a free loopback port over a temporary data directory, with its
/// dashboard token and first API key at hand.
class ServiceFixture : public ::testing::Test {
  protected:
    void SetUp() override { startService(); }
    void TearDown() override { service_.reset(); }

    void startService(std::size_t maxBodyBytes = 10 * 1024 * 1024, bool logRequests = false) {
        auto options = serviceOptions(dir_.path());
        options.maxBodyBytes = maxBodyBytes;
        options.logRequests = logRequests;
        startWith(options);
    }

    void startWith(const devservice::DevServiceOptions& options) {
        service_ = std::make_unique<devservice::DevService>(options);
        std::string error;
        ASSERT_TRUE(service_->start(&error)) << error;
        port_ = service_->port();
        ASSERT_NE(port_, 0);
        token_ = service_->dashboardToken();
        key_ = firstKey(port_, token_);
    }

    /// A dashboard API request with the token.
    HttpResult api(const std::string& method, const std::string& target,
                   const std::string& body = {}) {
        return httpRequest(
            port_, method, target, body,
            {{"Authorization", "Bearer " + token_}, {"Content-Type", "application/json"}});
    }
    HttpResult get(const std::string& target) { return api("GET", target); }
    HttpResult post(const std::string& target, const boost::json::value& body) {
        return api("POST", target, boost::json::serialize(body));
    }
    /// An SDK upload with the service's first key (or `key`).
    HttpResult put(const std::string& path, const boost::json::value& body,
                   const std::string& key = {}) {
        return upload(port_, path, boost::json::serialize(body), key.empty() ? key_ : key);
    }

    TempDir dir_;
    std::unique_ptr<devservice::DevService> service_;
    std::uint16_t port_ = 0;
    std::string token_;
    std::string key_;
};

/// Record dictionaries as the SDK uploads them.
inline boost::json::object deviceDictionary(const std::string& id,
                                            const std::string& name = "build-box") {
    return {{"id", id},          {"sdkVersion", "1.4.402"},  {"platform", "linux"},
            {"name", name},      {"model", "x86_64"},        {"osName", "Debian GNU/Linux"},
            {"osVersion", "12"}, {"identifierForVendor", ""}};
}

inline boost::json::object requestHalf(const std::string& id, const std::string& device,
                                       const std::string& url = "http://127.0.0.1/sample/users") {
    return {{"eventType", "networkRequest"},
            {"id", id},
            {"type", "network"},
            {"details",
             {{"request",
               {{"url", url},
                {"method", "GET"},
                {"headers", {{"Accept", "application/json"}}},
                {"startedAt", 1714566896.5},
                {"body", ""}}}}},
            {"sentAt", 1714566896.5},
            {"createdAt", 1714566896.5},
            {"device", deviceDictionary(device)}};
}

inline boost::json::object responseHalf(const std::string& id, const std::string& device,
                                        std::int64_t status = 200) {
    return {{"eventType", "networkRequest"},
            {"id", id},
            {"type", "network"},
            {"details",
             {{"response",
               {{"statusCode", status},
                {"headers", {{"Content-Type", "application/json"}}},
                {"receivedAt", 1714566896.75},
                {"body", "[]"}}}}},
            {"sentAt", 1714566896.75},
            {"createdAt", 1714566896.75},
            {"device", deviceDictionary(device)}};
}

inline boost::json::object logRecord(const std::string& id, const std::string& device,
                                     const std::string& message = "hello") {
    return {{"eventType", "log"},
            {"id", id},
            {"type", "log"},
            {"level", "info"},
            {"sentAt", 1714566897.0},
            {"createdAt", 1714566897.0},
            {"details",
             {{"message", message},
              {"subsystem", ""},
              {"category", ""},
              {"filePath", "/src/app/main.cc"},
              {"file", "main.cc"},
              {"line", 42}}},
            {"device", deviceDictionary(device)}};
}

inline boost::json::object eventRecord(const std::string& id, const std::string& device) {
    return {{"eventType", "customEvent"},
            {"id", id},
            {"type", "event"},
            {"sentAt", 1714566898.0},
            {"createdAt", 1714566898.0},
            {"details",
             {{"name", "Ping"}, {"category", "GENERAL"}, {"payload", boost::json::object()}}},
            {"device", deviceDictionary(device)}};
}

}  // namespace kestro::test
