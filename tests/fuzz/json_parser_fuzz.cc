// Feeds arbitrary bytes to the tolerant JSON parser. Besides crashes and sanitizer reports it
// checks what must hold for every input: parse() returns, the tree is equal to its copy, and
// every text in the tree is well-formed UTF-8.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "kestro/core/utf8.h"
#include "kestro/jsonview/json_parser.h"

namespace {

void check(const kestro::JSONValue& v, int depth) {
    if (depth > kestro::JSONParser::maxDepth + 1) std::abort();
    if (!kestro::isValidUTF8(v.text())) std::abort();
    if (auto wrong = v.wrong(); wrong && !kestro::isValidUTF8(*wrong)) std::abort();
    if (v.isArray())
        for (const auto& e : v.asArray()) check(e, depth + 1);
    if (v.isObject()) {
        for (const auto& e : v.asObject()) {
            if (!kestro::isValidUTF8(e.key.key)) std::abort();
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
