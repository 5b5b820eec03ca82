#include "kestro/inspector/redaction_settings.h"

#include <algorithm>
#include <cctype>
#include <string_view>

namespace kestro {
namespace {

std::string lower(std::string_view text) {
    std::string out(text);
    std::transform(out.begin(), out.end(), out.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return out;
}

std::string_view trimmed(std::string_view text) {
    const auto blank = [](unsigned char c) { return std::isspace(c) != 0; };
    while (!text.empty() && blank(text.front())) text.remove_prefix(1);
    while (!text.empty() && blank(text.back())) text.remove_suffix(1);
    return text;
}

// HTTP's token characters: what a header name may hold.
bool isHeaderName(std::string_view name) {
    return std::all_of(name.begin(), name.end(), [](unsigned char c) {
        return std::isalnum(c) || std::string_view("!#$%&'*+-.^_`|~").find(static_cast<char>(c)) !=
                                      std::string_view::npos;
    });
}

}  // namespace

RedactionSettings::RedactionSettings(RedactionPolicy initial,
                                     std::function<void(const RedactionPolicy&)> apply)
    : policy_(std::move(initial)), apply_(std::move(apply)) {}

void RedactionSettings::setEnabled(bool on) {
    policy_.enabled = on;
    if (apply_) apply_(policy_);
}

const std::vector<std::string>& RedactionSettings::items(List list) const {
    return const_cast<RedactionSettings*>(this)->mutableItems(list);
}

std::vector<std::string>& RedactionSettings::mutableItems(List list) {
    switch (list) {
        case List::headers:
            return policy_.headers;
        case List::queryItems:
            return policy_.queryItems;
        case List::jsonKeys:
            return policy_.jsonKeys;
        case List::notCaptured:
            break;
    }
    return policy_.notCaptured;
}

bool RedactionSettings::add(List list) {
    std::string& message = messages_[index(list)];
    std::string entry(trimmed(draft(list)));
    if (entry.empty()) {
        message.clear();
        return false;
    }
    if (list == List::headers) {
        if (!isHeaderName(entry)) {
            message =
                "\"" + entry + "\" is not a header name (letters, digits and !#$%&'*+-.^_`|~)";
            return false;
        }
        entry = lower(entry);
    }
    auto& items = mutableItems(list);
    const bool listed = std::any_of(items.begin(), items.end(), [&](const std::string& item) {
        return list == List::headers ? lower(item) == entry : item == entry;
    });
    if (listed) {
        message = "\"" + entry + "\" is already listed";
        return false;
    }
    items.push_back(std::move(entry));
    draft(list).clear();
    message.clear();
    if (apply_) apply_(policy_);
    return true;
}

void RedactionSettings::remove(List list, std::size_t position) {
    auto& items = mutableItems(list);
    if (position >= items.size()) return;
    items.erase(items.begin() + static_cast<std::ptrdiff_t>(position));
    messages_[index(list)].clear();
    if (apply_) apply_(policy_);
}

const char* RedactionSettings::title(List list) {
    switch (list) {
        case List::headers:
            return "Headers";
        case List::queryItems:
            return "Query items";
        case List::jsonKeys:
            return "JSON keys";
        case List::notCaptured:
            break;
    }
    return "Not captured (host or host/path, * and ?)";
}

const char* RedactionSettings::placeholder(List list) {
    switch (list) {
        case List::headers:
            return "x-session-token";
        case List::queryItems:
            return "access_token";
        case List::jsonKeys:
            return "password";
        case List::notCaptured:
            break;
    }
    return "*.analytics.test/*";
}

}  // namespace kestro
