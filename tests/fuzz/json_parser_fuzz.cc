// Feeds arbitrary bytes to the tolerant JSON parser. Besides crashes and sanitizer reports it
// checks what must hold for every input: parse() returns, the tree is equal to its copy, and
// every text in the tree is well-formed UTF-8.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "kestro/jsonview/json_parser.h"

namespace {

bool validUTF8(std::string_view s) {
    const auto* p = reinterpret_cast<const unsigned char*>(s.data());
    const auto* end = p + s.size();
    while (p < end) {
        unsigned char c = *p;
        int n = c < 0x80                 ? 0
                : c >= 0xC2 && c <= 0xDF ? 1
                : c >= 0xE0 && c <= 0xEF ? 2
                : c >= 0xF0 && c <= 0xF4 ? 3
                                         : -1;
        if (n < 0 || end - p <= n) return n == 0;
        unsigned lo = c == 0xE0 ? 0xA0 : c == 0xF0 ? 0x90 : 0x80;
        unsigned hi = c == 0xED ? 0x9F : c == 0xF4 ? 0x8F : 0xBF;
        for (int k = 1; k <= n; ++k) {
            unsigned b = p[k];
            if (k == 1 ? (b < lo || b > hi) : (b < 0x80 || b > 0xBF)) return false;
        }
        p += n + 1;
    }
    return true;
}

void check(const kestro::JSONValue& v, int depth) {
    if (depth > kestro::JSONParser::maxDepth + 1) std::abort();
    if (!validUTF8(v.text())) std::abort();
    if (auto wrong = v.wrong(); wrong && !validUTF8(*wrong)) std::abort();
    if (v.isArray())
        for (const auto& e : v.asArray()) check(e, depth + 1);
    if (v.isObject()) {
        for (const auto& e : v.asObject()) {
            if (!validUTF8(e.key.key)) std::abort();
            check(e.value, depth + 1);
        }
        if (kestro::rankingUnknownKeyLast(v.asObject()).size() != v.asObject().size()) std::abort();
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    kestro::JSONParser parser(std::span<const std::uint8_t>(data, size));
    const kestro::JSONValue value = parser.parse();
    check(value, 0);
    const kestro::JSONValue copy = value;
    if (!(copy == value)) std::abort();
    return 0;
}
