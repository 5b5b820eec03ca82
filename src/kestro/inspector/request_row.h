#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "kestro/core/export.h"
#include "kestro/inspector/color.h"
#include "kestro/records/records.h"

namespace kestro {

/// One tag of a row's second line.
struct RowTag {
    enum class Style {
        text,    // secondary text on the secondary colour at opacity 0.1
        method,  // white text on the method's colour
    };
    std::string text;
    Style style = Style::text;
    Color background;
    friend bool operator==(const RowTag&, const RowTag&) = default;
};

/// Everything a list row shows, in drawing order. Made for the rows in view only.
struct RequestRowContent {
    std::string title;         // the first line, cut after 400 bytes with "…"
    std::string time;          // createdAt as "HH:mm:ss.SSS", local time
    std::vector<RowTag> tags;  // clipped to the width left
    std::string kind;          // "network", "log" or "event", after a spacer
    Color background;          // already at opacity 0.1; clear for network items
};

/// The row's background colour before its 0.1 opacity: by the log's lower-cased level, the
/// event colour for custom events, clear for network items.
KESTRO_API Color rowBackgroundColor(const RequestEventType& item);
/// The method tag's colour: by the upper-cased method, gray for anything unknown.
KESTRO_API Color methodTagColor(std::string_view method);
/// The request URL, the log's message or the event's name.
KESTRO_API const std::string& rowTitle(const RequestEventType& item);
/// "network", "log" or "event".
KESTRO_API const char* rowKindText(const RequestEventType& item);
KESTRO_API RequestRowContent rowContent(const RequestEventType& item);

}  // namespace kestro
