#pragma once

#include <boost/json/object.hpp>
#include <boost/json/value.hpp>
#include <optional>
#include <string>
#include <string_view>

namespace kestro::devservice {

/// Checks of what the SDK sends. Each returns nothing when the input is acceptable, otherwise a
/// one-line explanation naming the offending key, meant for the client's error body.

/// The "Api-Key" header: present and beginning with "kt-prod-" or "kt-dev-".
std::optional<std::string> checkApiKey(std::optional<std::string_view> key);
/// "prod" or "dev" for an acceptable key.
std::string keyKind(std::string_view key);

/// A device dictionary: an object whose "id" is a non-empty string and whose values are all
/// strings.
std::optional<std::string> checkDevice(const boost::json::value& body);

/// An item upload: a record dictionary with "eventType" at its top, every key its record type
/// requires with the right kind of value, and "device", a device dictionary.
std::optional<std::string> checkItem(const boost::json::value& body);

/// A mock rule carried by the mock commands: "url" a string; "mockedUrl" a string, "statusCode"
/// an integer, "headers" an object of strings, "body" a string, each optional or null.
std::optional<std::string> checkMockRule(const boost::json::value& rule);

}  // namespace kestro::devservice
