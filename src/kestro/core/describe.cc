#include "kestro/core/describe.h"

#include <cxxabi.h>

#include <cstdlib>
#include <memory>
#include <sstream>

namespace kestro::internal {

void appendStreamed(fmt::memory_buffer& out, const void* value,
                    void (*stream)(std::ostream&, const void*)) {
    std::ostringstream os;
    stream(os, value);
    const std::string text = std::move(os).str();
    out.append(text.data(), text.data() + text.size());
}

void appendUnprintable(fmt::memory_buffer& out, const std::type_info& type) {
    int status = 0;
    std::unique_ptr<char, void (*)(void*)> name(
        abi::__cxa_demangle(type.name(), nullptr, nullptr, &status), std::free);
    out.push_back('<');
    const char* text = status == 0 && name ? name.get() : type.name();
    out.append(text, text + std::char_traits<char>::length(text));
    out.push_back('>');
}

}  // namespace kestro::internal
