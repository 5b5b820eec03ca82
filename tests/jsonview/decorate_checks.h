#pragma once

// What must hold for the decoration of any input, checked by the decorator's fuzz target on
// arbitrary bytes and by the replay of its kept inputs:
//  - highlight() decorates every text, repairing ill-formed UTF-8; the slices are numbered 1,
//    2, … and their texts are well-formed UTF-8;
//  - the assembled text is, line by line, the shown text of each listed line followed by a line
//    feed, and the list ascends;
//  - with every container folded, assemble() shows only top-level lines;
//  - through the viewer, expanding every container, folding them all again (a tap on each row,
//    from the last up) and expanding them all once more edits the shown text and the line list
//    in place to exactly what a fresh assemble() of the slices gives, and the second expansion
//    gives the first one back.
// The viewer's edits follow the levels of the lines, which nest as containers do only in a
// document without broken parts; a broken one is folded and expanded all the same, for what the
// sanitizers see, without comparing the results.
//
// The input's first byte picks the initial state (odd: folded); the rest is the text.

#include <algorithm>
#include <cstddef>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "kestro/core/main_queue.h"
#include "kestro/core/utf8.h"
#include "kestro/jsonview/json_decorator.h"
#include "kestro/jsonview/json_parser.h"
#include "kestro/jsonview/json_value.h"
#include "kestro/jsonview/json_viewer_model.h"
#include "kestro/jsonview/utf8_repair.h"

namespace kestro::test {

namespace decorate_checks {

// No unknown value and no wrong text anywhere: every container has its closing line.
inline bool withoutBrokenParts(const JSONValue& v) {
    if (v.isUnknown() || v.wrong()) return false;
    if (v.isArray())
        for (const auto& e : v.asArray())
            if (!withoutBrokenParts(e)) return false;
    if (v.isObject())
        for (const auto& e : v.asObject())
            if (e.key.isWrong || !withoutBrokenParts(e.value)) return false;
    return true;
}

// The first fault of an assembly of slices, or an empty text.
inline std::string assemblyFault(const JSONDecorator::Assembly& a,
                                 const std::vector<JSONSlice>& slices) {
    const std::string_view text = a.attributedText.string();
    std::size_t at = 0;
    int previous = 0;
    for (int line : a.lines) {
        if (line <= previous || static_cast<std::size_t>(line) > slices.size())
            return "line " + std::to_string(line) + " out of order or out of range";
        previous = line;
        const AttributedText* shown = slices[static_cast<std::size_t>(line) - 1].showContent();
        if (!shown) return "line " + std::to_string(line) + " is listed but has no text";
        const std::size_t length = shown->length();
        if (!(a.attributedText.substring({at, length}) == *shown))
            return "line " + std::to_string(line) + " is not its slice's text";
        if (text.substr(at + length, 1) != "\n")
            return "line " + std::to_string(line) + " does not end with a line feed";
        at += length + 1;
    }
    if (at != text.size()) return "the text goes on after the last listed line";
    return {};
}

// Taps every row whose line opens a container in state from (top down when expanding, so that
// the rows it reveals are tapped too; bottom up when folding, so that no row moves before its
// tap). Bounded by the slice count.
inline void tapAll(JSONViewer& viewer, JSONSlice::State from) {
    const auto& slices = viewer.decorator()->slices;
    const bool down = from == JSONSlice::State::folded;
    int row = down ? 0 : static_cast<int>(viewer.lineDataSource().size()) - 1;
    for (std::size_t step = 0; step <= 2 * slices.size(); ++step) {
        if (row < 0 || static_cast<std::size_t>(row) >= viewer.lineDataSource().size()) return;
        if (auto index = viewer.sliceIndex(row)) {
            const JSONSlice& s = slices[*index];
            if (s.folded && s.state == from) viewer.handleZoomClick(*index);
        }
        row += down ? 1 : -1;
    }
}

}  // namespace decorate_checks

/// The first fault found in the decoration of input, or an empty text. Runs the main queue on
/// the calling thread.
inline std::string decorationFault(std::string_view input) {
    using State = JSONSlice::State;
    using namespace decorate_checks;
    if (input.empty()) return {};
    const State initial = (input[0] & 1) ? State::folded : State::expand;
    const std::string_view json = input.substr(1);
    auto decorator = JSONDecorator::highlight(json, HighlightStyle::default_(), initial);
    if (!decorator) return "highlight() decorated nothing";
    auto& slices = decorator->slices;
    if (slices.empty()) return "no slices";
    for (std::size_t i = 0; i < slices.size(); ++i) {
        if (slices[i].lineNumber != static_cast<int>(i) + 1) return "slices are misnumbered";
        if (slices[i].level < 0 || slices[i].foldedTimes < 0) return "a negative level or count";
        if (!isValidUTF8(slices[i].expand.string())) return "a line is not UTF-8";
    }
    const auto first = decorator->assemble();
    if (auto fault = assemblyFault(first, slices); !fault.empty()) return fault;

    // Every container folded: only top-level lines show.
    std::vector<State> saved;
    for (auto& s : slices) {
        saved.push_back(s.state);
        if (s.folded) s.state = State::folded;
    }
    const auto folded = decorator->assemble();
    if (auto fault = assemblyFault(folded, slices); !fault.empty()) return "folded: " + fault;
    for (int line : folded.lines)
        if (slices[static_cast<std::size_t>(line) - 1].level != 0)
            return "a nested line shows with every container folded";
    for (std::size_t i = 0; i < slices.size(); ++i) slices[i].state = saved[i];

    // The viewer's in-place edits against fresh assemblies.
    std::string repaired;
    if (!isValidUTF8(json)) jsonview::internal::appendRepaired(repaired, json);
    const bool comparable =
        withoutBrokenParts(parseJSON(repaired.empty() ? json : std::string_view(repaired)));
    MainQueue::shared().useHostThread();
    auto viewer = JSONViewer::create();
    viewer->update(decorator);
    MainQueue::shared().runUntilIdle();
    if (viewer->decorator() != decorator) return "the viewer did not take the decorator";
    auto inStep = [&](const char* phase) -> std::string {
        if (!comparable) return {};
        const auto fresh = decorator->assemble();
        if (viewer->lineDataSource() != fresh.lines)
            return std::string(phase) + ": the line list is not the assembled one";
        if (!(viewer->shownText().flattened() == fresh.attributedText))
            return std::string(phase) + ": the shown text is not the assembled one";
        for (const auto& s : slices)
            if (s.foldedTimes < 0) return std::string(phase) + ": a negative fold count";
        return {};
    };
    tapAll(*viewer, State::folded);
    if (auto fault = inStep("expanding"); !fault.empty()) return fault;
    const AttributedText expanded = viewer->shownText().flattened();
    const std::vector<int> expandedLines = viewer->lineDataSource();
    tapAll(*viewer, State::expand);
    if (auto fault = inStep("folding"); !fault.empty()) return fault;
    if (comparable)
        for (int line : viewer->lineDataSource())
            if (slices[static_cast<std::size_t>(line) - 1].level != 0)
                return "folding: a nested line still shows";
    tapAll(*viewer, State::folded);
    if (auto fault = inStep("expanding again"); !fault.empty()) return fault;
    if (comparable && (viewer->lineDataSource() != expandedLines ||
                       !(viewer->shownText().flattened() == expanded)))
        return "expanding again did not give the first expansion back";
    return {};
}

}  // namespace kestro::test
