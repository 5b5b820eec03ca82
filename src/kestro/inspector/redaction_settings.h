#pragma once

#include <array>
#include <cstddef>
#include <functional>
#include <string>
#include <vector>

#include "kestro/core/capture_policy.h"
#include "kestro/core/export.h"

namespace kestro {

/// The redaction part of the settings form: the switch and four editable lists (header names,
/// query items, JSON keys, hosts or paths not captured). Every change is handed to apply at
/// once, with the rest of the policy as it was (the rules for bodies that are not JSON are kept
/// untouched; the form does not edit them). Main queue.
class KESTRO_API RedactionSettings {
  public:
    enum class List { headers, queryItems, jsonKeys, notCaptured };
    static constexpr std::array<List, 4> kLists = {List::headers, List::queryItems, List::jsonKeys,
                                                   List::notCaptured};

    RedactionSettings(RedactionPolicy initial, std::function<void(const RedactionPolicy&)> apply);

    const RedactionPolicy& policy() const { return policy_; }
    bool enabled() const { return policy_.enabled; }
    void setEnabled(bool on);

    const std::vector<std::string>& items(List list) const;
    /// The text typed into a list's field, not yet added.
    std::string& draft(List list) { return drafts_[index(list)]; }
    /// Adds the list's draft: trimmed of blanks; a header name is kept lower-case (headers match
    /// in any case). An empty draft does nothing; one already listed (headers: in any case) or
    /// not valid for the list stays in the field, with a message saying why. Whether it was
    /// added.
    bool add(List list);
    void remove(List list, std::size_t position);
    /// Why the last draft was not added; empty after an addition or a removal.
    const std::string& message(List list) const { return messages_[index(list)]; }

    static const char* title(List list);
    static const char* placeholder(List list);

  private:
    static std::size_t index(List list) { return static_cast<std::size_t>(list); }
    std::vector<std::string>& mutableItems(List list);

    RedactionPolicy policy_;
    std::function<void(const RedactionPolicy&)> apply_;
    std::array<std::string, 4> drafts_;
    std::array<std::string, 4> messages_;
};

}  // namespace kestro
