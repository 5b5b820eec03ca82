#include "kestro/inspector/request_row.h"

#include <algorithm>
#include <cctype>

#include "kestro/core/local_time.h"

namespace kestro {
namespace {

const std::string kEmpty;

std::string lowerASCII(std::string_view text) {
    std::string out(text);
    std::transform(out.begin(), out.end(), out.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return out;
}

// A row shows one line; a long title is cut well beyond any window's width, so that a huge log
// message costs the row no more than a short one.
constexpr std::size_t kTitleBytes = 400;

std::string oneLine(std::string_view text) {
    std::size_t end = std::min(text.find_first_of("\r\n"), text.size());
    bool cut = end < text.size();
    if (end > kTitleBytes) {
        end = kTitleBytes;
        while (end > 0 && (static_cast<unsigned char>(text[end]) & 0xC0) == 0x80) --end;
        cut = true;
    }
    std::string out(text.substr(0, end));
    if (cut) out += "…";
    return out;
}

RowTag textTag(std::string text) {
    return {std::move(text), RowTag::Style::text, withOpacity(colors::secondary, 0.1)};
}

}  // namespace

Color rowBackgroundColor(const RequestEventType& item) {
    static constexpr Color kError{0.956863, 0.278431, 0.278431};  // #F44747
    static constexpr Color kWarn{1.0, 0.584314, 0.0};             // #FF9500
    static constexpr Color kInfo{0.0, 0.478431, 1.0};             // #007AFF
    static constexpr Color kDebug{0.415686, 0.6, 0.333333};       // #6A9955
    static constexpr Color kOther{0.368627, 0.72549, 1.0};        // #5EB9FF
    if (const auto* log = item.asLog()) {
        const std::string level = lowerASCII(log->level);
        if (level == "error") return kError;
        if (level == "warn") return kWarn;
        if (level == "info") return kInfo;
        if (level == "debug") return kDebug;
        return kOther;
    }
    if (item.asCustomEvent()) return kOther;
    return colors::clear;
}

Color methodTagColor(std::string_view method) {
    std::string upper(method);
    std::transform(upper.begin(), upper.end(), upper.begin(),
                   [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
    if (upper == "GET") return colors::blue;
    if (upper == "POST") return colors::green;
    if (upper == "PUT") return colors::orange;
    if (upper == "DELETE") return colors::red;
    if (upper == "PATCH") return colors::purple;
    return colors::gray;
}

const std::string& rowTitle(const RequestEventType& item) {
    if (const auto* r = item.asNetworkRequest()) {
        return r->details.request ? r->details.request->url : kEmpty;
    }
    if (const auto* log = item.asLog()) return log->details.message;
    return item.asCustomEvent()->details.name;
}

const char* rowKindText(const RequestEventType& item) {
    switch (item.kind()) {
        case RequestEventType::Kind::networkRequest:
            return "network";
        case RequestEventType::Kind::log:
            return "log";
        case RequestEventType::Kind::customEvent:
            return "event";
    }
    return "";
}

RequestRowContent rowContent(const RequestEventType& item) {
    RequestRowContent row;
    row.title = oneLine(rowTitle(item));
    row.time = formatLocalTime(item.timestamp(), "HH:mm:ss.SSS");
    if (const auto* r = item.asNetworkRequest()) {
        const std::string method = r->details.request ? r->details.request->method : "";
        row.tags.push_back({method, RowTag::Style::method, methodTagColor(method)});
        const std::int64_t status = r->details.response ? r->details.response->statusCode : 0;
        row.tags.push_back(textTag(" " + std::to_string(status)));
    } else if (const auto* log = item.asLog()) {
        const auto& d = log->details;
        if (!d.file.empty())
            row.tags.push_back(textTag("📂 " + d.file + ":" + std::to_string(d.line)));
        if (!d.subsystem.empty()) row.tags.push_back(textTag(d.subsystem));
        if (!d.category.empty()) row.tags.push_back(textTag("🏷️ " + d.category));
    } else if (const auto* event = item.asCustomEvent()) {
        if (!event->details.category.empty()) {
            row.tags.push_back(textTag("🏷️ " + event->details.category));
        }
    }
    row.kind = rowKindText(item);
    row.background = withOpacity(rowBackgroundColor(item), 0.1);
    return row;
}

}  // namespace kestro
