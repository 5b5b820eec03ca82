#pragma once

// Helpers shared by the files of the router (api.cc, control_api.cc, steering_api.cc,
// sample_api.cc).

#include <boost/beast/http/field.hpp>
#include <boost/beast/http/verb.hpp>
#include <boost/json/value.hpp>
#include <charconv>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "devservice/api.h"

namespace kestro::devservice::internal {

/// A JSON answer.
Reply jsonReply(unsigned status, const boost::json::value& body, unsigned version);

/// A parsed request target: its path segments and query items, percent-decoded. Targets such
/// as "?api-key=…" (an empty path) count as "/".
struct Target {
    std::vector<std::string> segments;
    std::vector<std::pair<std::string, std::string>> query;
    bool ok = false;

    std::optional<std::string> param(std::string_view key) const;
};
Target parseTarget(std::string_view text);

/// "/" followed by the segments from `from` on.
std::string joinPath(const std::vector<std::string>& segments, std::size_t from);

template <typename T>
std::optional<T> parseInt(std::string_view text) {
    T value{};
    auto [ptr, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (ec != std::errc() || ptr != text.data() + text.size()) return std::nullopt;
    return value;
}

std::optional<std::string_view> header(const Request& r, std::string_view name);

/// 405 naming what is allowed, with "Allow".
Reply methodNotAllowed(const char* allowed, std::string_view path, unsigned version);

}  // namespace kestro::devservice::internal
