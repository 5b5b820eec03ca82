#pragma once

#include <cstdint>

namespace kestro {

/// Log types of the system log.
enum class OSLogType : std::uint8_t { debug, info, default_, error, fault };

/// Privacy of a message. Accepted by KestroLogger::i and not used: i always logs in full.
enum class OSLogPrivacy : std::uint8_t { automatic, publicValue, privateValue };

}  // namespace kestro
