#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "kestro/core/export.h"
#include "kestro/inspector/clipboard.h"
#include "kestro/inspector/color.h"
#include "kestro/inspector/timing_waterfall.h"
#include "kestro/inspector/toast_manager.h"
#include "kestro/records/records.h"

namespace kestro {

/// Whether a body is to be shown as JSON: a content type ("Content-Type", else "content-type")
/// naming JSON, else a body that parses as a JSON object or array. An empty body is not.
KESTRO_API bool isJSON(std::string_view body, const TextMap* headers = nullptr);
/// The text's size in UTF-8 bytes, in kilobytes of 1024 bytes.
KESTRO_API double calculateSize(std::string_view text);
/// "%.2f KB" of calculateSize(text).
KESTRO_API std::string sizeText(std::string_view text);
/// The time from start to end in milliseconds as "%.2f ms" (negative when the clocks disagree).
KESTRO_API std::string durationText(TimePoint start, TimePoint end);
/// A date as the detail screens show it: "yyyy-MM-dd'T'HH:mm:ss.SSSZ", local time.
KESTRO_API std::string detailDateText(TimePoint t);
/// A code block's text: pretty-printed when language is exactly "json" and text parses as JSON,
/// else text unchanged.
KESTRO_API std::string formattedCodeText(std::string_view text, std::string_view language);

/// One element of a detail screen, top to bottom.
struct DetailElement {
    enum class Kind {
        headline,     // "Request", "Response" (with statusCode), in the headline font
        subheadline,  // "Headers", "Preview", in the subheadline font
        row,          // a titled value (gray title in the subheadline font), tap to copy
        copyable,     // a labelled value (secondary caption label), tap to copy
        json,         // a JSON section: title, "Copy" button and the JSON shown in the viewer
        image,        // image preview: the decoded bytes
        notice,       // a remark about what follows, in orange: a body cut at capture
        timings,      // "Timings" (subheadline) over the phase waterfall, or beside "no timings"
                      // (value)
    };
    Kind kind = Kind::row;
    std::string label;
    /// The value (rows), the JSON text (json) or the image's bytes (image).
    std::shared_ptr<const std::string> value;
    /// An event's payload (json "Payload"): value is its compact text, for the viewer, and the
    /// indented text is written when it is copied. Even a payload nested thousands deep, whose
    /// indented text runs to hundreds of megabytes, opens at once.
    std::shared_ptr<const JSONDictionary> payload;
    bool indented = false;  // header rows
    /// headline "Response": the status code and its colour (green below 400, red from 400).
    std::optional<std::int64_t> statusCode;
    Color statusColor;
    /// timings: the waterfall, absent for a mocked answer or one whose phases are unknown.
    std::shared_ptr<const TimingWaterfall> waterfall;

    const std::string& text() const;
    /// What the JSON section's "Copy" puts on the clipboard: the indented payload, else text().
    std::string jsonText() const;
};

/// A group of elements. Framed sections (a network half) sit on a tinted rounded rectangle.
struct DetailSection {
    bool framed = false;
    std::vector<DetailElement> elements;
};

/// What a value can show at once. Longer values, and values that are not UTF-8, are shown in
/// part with a note; copying always takes the whole value.
struct ShownText {
    std::string_view text;
    std::string note;  // empty when the whole value is shown
};
/// The part of a value the detail screen draws: at most maxBytes, cut at a character.
KESTRO_API ShownText shownText(const std::string& value, std::size_t maxBytes = 64 * 1024);

/// The details screen of one item: its sections as the screen lists them, and tap-to-copy with
/// the toasts that confirm it. Holds its own copy of the item, so it stays whole when the item
/// is deleted from the store. Main queue.
class KESTRO_API ItemDetailsModel {
  public:
    ItemDetailsModel(RequestEventType item, Clipboard& clipboard = Clipboard::general(),
                     ToastManager& toasts = ToastManager::shared());

    const RequestEventType& item() const { return item_; }
    const std::vector<DetailSection>& sections() const { return sections_; }

    /// A tap on a row's value: the value goes to the clipboard, "Copied to clipboard" shows.
    void copyValue(const DetailElement& element);
    /// The "Copy" button of a JSON section: "JSON copied to clipboard".
    void copyJSON(const DetailElement& element);
    /// Whether the item is an exchange with a request to repeat.
    bool canCopyCurl() const;
    /// "Copy as cURL": a shell command that repeats the request goes to the clipboard, and
    /// "Copied to clipboard" shows.
    void copyCurl();

  private:
    RequestEventType item_;
    Clipboard& clipboard_;
    ToastManager& toasts_;
    std::vector<DetailSection> sections_;
};

/// The sections of an item's details, in order.
KESTRO_API std::vector<DetailSection> detailSections(const RequestEventType& item);

}  // namespace kestro
