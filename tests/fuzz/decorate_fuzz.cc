// Decorates arbitrary bytes and assembles the result. Besides crashes and sanitizer reports it
// checks what must hold for every input: slices are numbered 1, 2, …; the assembled text has one
// line feed per listed line and the list ascends; folding every container shows at most the
// top-level lines; and expanding everything again gives the first assembly back.
//
// The first byte picks the initial state (odd: folded); the rest is the JSON text.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "kestro/jsonview/json_decorator.h"

namespace {

using kestro::JSONDecorator;
using kestro::JSONSlice;

void check(bool ok) {
    if (!ok) std::abort();
}

void checkAssembly(const JSONDecorator::Assembly& a, std::size_t sliceCount) {
    const auto& text = a.attributedText.string();
    check(static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n')) >= a.lines.size());
    check(std::is_sorted(a.lines.begin(), a.lines.end()));
    check(std::adjacent_find(a.lines.begin(), a.lines.end()) == a.lines.end());
    for (int line : a.lines) check(line >= 1 && static_cast<std::size_t>(line) <= sliceCount);
    check(a.attributedText.utf16Length() <= text.size());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) return 0;
    const auto initial = (data[0] & 1) ? JSONSlice::State::folded : JSONSlice::State::expand;
    const std::string_view json(reinterpret_cast<const char*>(data + 1), size - 1);
    auto decorator = JSONDecorator::highlight(json, kestro::HighlightStyle::default_(), initial);
    if (!decorator) return 0;
    auto& slices = decorator->slices;
    check(!slices.empty());
    for (std::size_t i = 0; i < slices.size(); ++i) {
        check(slices[i].lineNumber == static_cast<int>(i) + 1);
        check(slices[i].level >= 0 && slices[i].foldedTimes >= 0);
    }
    const auto first = decorator->assemble();
    checkAssembly(first, slices.size());

    std::vector<JSONSlice::State> saved;
    for (const auto& s : slices) saved.push_back(s.state);
    for (auto& s : slices)
        if (s.folded) s.state = JSONSlice::State::folded;
    const auto folded = decorator->assemble();
    checkAssembly(folded, slices.size());
    for (int line : folded.lines) check(slices[static_cast<std::size_t>(line) - 1].level == 0);

    for (std::size_t i = 0; i < slices.size(); ++i) slices[i].state = saved[i];
    check(decorator->assemble().attributedText == first.attributedText);
    return 0;
}
