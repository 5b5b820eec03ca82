// Feeds arbitrary JSON texts to the record decoding that reads stored rows and dashboard data.
// For every text that decodes into a record it checks what the store and the upload rely on:
// the record survives its dictionary (decode(encode()) gives it back), and the text written
// directly by toJSON() parses to that dictionary and decodes to the same record.

#include <boost/json/parse.hpp>
#include <boost/json/value.hpp>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "kestro/core/json_numbers.h"
#include "kestro/records/records.h"

namespace {

namespace json = boost::json;

// Equal, except that doubles may differ in their last bits: Boost.JSON 1.81 does not always
// read a number back to the exact double it was written from.
bool sameJSON(const json::value& a, const json::value& b) {
    if (a.kind() != b.kind()) return false;
    switch (a.kind()) {
        case json::kind::double_: {
            const double x = a.get_double(), y = b.get_double();
            return x == y || std::abs(x - y) <= 4e-16 * std::max(std::abs(x), std::abs(y));
        }
        case json::kind::array: {
            const auto &p = a.get_array(), &q = b.get_array();
            if (p.size() != q.size()) return false;
            for (std::size_t i = 0; i < p.size(); ++i)
                if (!sameJSON(p[i], q[i])) return false;
            return true;
        }
        case json::kind::object: {
            const auto &p = a.get_object(), &q = b.get_object();
            if (p.size() != q.size()) return false;
            for (auto i = p.begin(), j = q.begin(); i != p.end(); ++i, ++j)
                if (i->key() != j->key() || !sameJSON(i->value(), j->value())) return false;
            return true;
        }
        default:
            return a == b;
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    json::error_code ec;
    const json::value parsed = json::parse(text, ec);
    if (ec || !parsed.is_object()) return 0;
    const auto record = kestro::RequestEventType::decode(parsed.as_object());
    if (!record) return 0;

    // A number with no JSON form (Boost.JSON reads a literal too large for a double as an
    // infinity, and "0E3000" as NaN) makes the record unwritable: the store refuses it and the
    // upload sends no body. NaN is not even equal to itself.
    const json::object dictionary = record->encode();
    if (!kestro::allNumbersFinite(dictionary)) return 0;
    const auto again = kestro::RequestEventType::decode(dictionary);
    if (!again || *again != *record) std::abort();

    const json::value written = json::parse(record->toJSON(), ec);
    if (ec || !sameJSON(written, json::value(dictionary))) std::abort();
    const auto fromText = kestro::RequestEventType::decode(written.as_object());
    if (!fromText || !sameJSON(json::value(fromText->encode()), json::value(dictionary)))
        std::abort();
    return 0;
}
