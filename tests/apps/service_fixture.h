#pragma once

#include <gtest/gtest.h>

#include <boost/json.hpp>
#include <memory>
#include <string>

#include "devservice/service.h"
#include "test_client.h"

namespace kestro::test {

/// A development service on a free loopback port over a temporary data directory.
class ServiceFixture : public ::testing::Test {
  protected:
    void SetUp() override { startService(); }
    void TearDown() override { service_.reset(); }

    void startService(std::size_t maxBodyBytes = 10 * 1024 * 1024, bool logRequests = false) {
        devservice::DevServiceOptions options;
        options.port = 0;
        options.dataDirectory = dir_.path();
        options.maxBodyBytes = maxBodyBytes;
        options.logRequests = logRequests;
        options.maxSlowMs = 2000;
        service_ = std::make_unique<devservice::DevService>(options);
        std::string error;
        ASSERT_TRUE(service_->start(&error)) << error;
        port_ = service_->port();
        ASSERT_NE(port_, 0);
    }

    HttpResult get(const std::string& target) { return httpRequest(port_, "GET", target); }
    HttpResult post(const std::string& target, const boost::json::value& body) {
        return httpRequest(port_, "POST", target, boost::json::serialize(body),
                           {{"Content-Type", "application/json"}});
    }

    TempDir dir_;
    std::unique_ptr<devservice::DevService> service_;
    std::uint16_t port_ = 0;
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
