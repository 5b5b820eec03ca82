#include "kestro/core/json_numbers.h"

#include <cmath>
#include <limits>

namespace kestro {

namespace json = boost::json;

std::optional<std::int64_t> jsonInteger(const json::value& v) {
    if (v.is_int64()) return v.get_int64();
    if (v.is_uint64()) {
        if (v.get_uint64() > static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max()))
            return std::nullopt;
        return static_cast<std::int64_t>(v.get_uint64());
    }
    if (v.is_double()) {
        // In range before converting: a double outside int64's range (or NaN) has no conversion.
        const double x = v.get_double();
        if (!std::isfinite(x) || std::trunc(x) != x || x < -9223372036854775808.0 ||
            x >= 9223372036854775808.0)
            return std::nullopt;
        return static_cast<std::int64_t>(x);
    }
    return std::nullopt;
}

bool allNumbersFinite(const json::value& v) {
    switch (v.kind()) {
        case json::kind::double_:
            return std::isfinite(v.get_double());
        case json::kind::array:
            for (const auto& e : v.get_array())
                if (!allNumbersFinite(e)) return false;
            return true;
        case json::kind::object:
            return allNumbersFinite(v.get_object());
        default:
            return true;
    }
}

bool allNumbersFinite(const json::object& o) {
    for (const auto& kv : o)
        if (!allNumbersFinite(kv.value())) return false;
    return true;
}

}  // namespace kestro
