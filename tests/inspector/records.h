#pragma once

// Small builders of captured items for the inspector's tests.

#include <optional>
#include <string>

#include "kestro/records/records.h"

namespace kestro::test {

inline TimePoint at(double seconds) { return fromSecondsSince1970(seconds); }

inline RequestEventType log(std::string id, std::string message, std::string level = "info",
                            std::string file = "", std::string subsystem = "",
                            std::string category = "", std::int64_t line = 0) {
    return RequestTypeLog{std::move(id),
                          "log",
                          std::move(level),
                          at(1714566896.5),
                          at(1714566896.25),
                          {std::move(message), std::move(subsystem), std::move(category),
                           "/src/" + file, file, line}};
}

inline RequestEventType event(std::string id, std::string name, std::string category = "",
                              JSONDictionary payload = {}) {
    return RequestTypeEvent{std::move(id),
                            "event",
                            at(1714566896.5),
                            at(1714566896.25),
                            {std::move(name), std::move(category), std::move(payload)}};
}

inline RequestEventType network(std::string id, std::optional<std::string> url,
                                std::string method = "GET",
                                std::optional<std::int64_t> status = std::nullopt) {
    RequestTypeRequest r{std::move(id), "network", {}, at(1714566896.5), at(1714566896.25)};
    if (url) {
        r.details.request =
            RequestTypeRequestDetailsRequest{*url, std::move(method), {}, at(1714566896.25), ""};
    }
    if (status) {
        r.details.response =
            RequestTypeRequestDetailsResponse{*status, {}, at(1714566896.37345), ""};
    }
    return r;
}

}  // namespace kestro::test
