// Decorates arbitrary bytes, assembles the result and folds and expands it through the viewer.
// Besides crashes and sanitizer reports it checks what must hold for every input
// (jsonview/decorate_checks.h): every text is decorated, the assembled text is exactly the
// listed lines, and the viewer's in-place folding agrees with a fresh assembly and comes back to
// where it started.
//
// The first byte picks the initial state (odd: folded); the rest is the JSON text.

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

#include "jsonview/decorate_checks.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string fault =
        kestro::test::decorationFault(std::string_view(reinterpret_cast<const char*>(data), size));
    if (!fault.empty()) {
        std::fprintf(stderr, "decorate_fuzz: %s\n", fault.c_str());
        std::abort();
    }
    return 0;
}
