#include "kestro/inspector/item_details.h"

#include <fmt/format.h>

#include <algorithm>
#include <boost/json/parse.hpp>
#include <cctype>

#include "kestro/core/local_time.h"
#include "kestro/core/utf8.h"
#include "kestro/export/curl.h"
#include "kestro/inspector/json_text.h"
#include "kestro/network/body_text.h"

namespace kestro {
namespace {

namespace json = boost::json;

std::string lower(std::string_view text) {
    std::string out(text);
    std::transform(out.begin(), out.end(), out.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return out;
}

DetailElement element(DetailElement::Kind kind, std::string label, std::string value = {}) {
    DetailElement e;
    e.kind = kind;
    e.label = std::move(label);
    e.value = std::make_shared<const std::string>(std::move(value));
    return e;
}

void addHeaders(const TextMap& headers, std::vector<DetailElement>& out) {
    if (headers.empty()) return;
    out.push_back(element(DetailElement::Kind::subheadline, "Headers"));
    // TextMap orders its keys byte-wise: upper-case letters before lower-case ones.
    for (const auto& [key, value] : headers) {
        auto row = element(DetailElement::Kind::copyable, key, value);
        row.indented = true;
        out.push_back(std::move(row));
    }
}

// Said before the body (or where it would be, when nothing of it was kept).
void addTruncation(const std::optional<std::int64_t>& totalBytes, std::vector<DetailElement>& out) {
    if (totalBytes) {
        out.push_back(element(DetailElement::Kind::notice, "Body", truncatedBodyText(*totalBytes)));
    }
}

DetailSection requestSection(const RequestTypeRequestDetailsRequest& r) {
    DetailSection s{.framed = true};
    auto& e = s.elements;
    e.push_back(element(DetailElement::Kind::headline, "Request"));
    e.push_back(element(DetailElement::Kind::copyable, "URL", r.url));
    e.push_back(element(DetailElement::Kind::copyable, "Method", r.method));
    e.push_back(element(DetailElement::Kind::copyable, "Size", sizeText(r.body)));
    e.push_back(element(DetailElement::Kind::copyable, "Started At", detailDateText(r.startedAt)));
    addHeaders(r.headers, e);
    addTruncation(r.bodyTotalBytes, e);
    if (!r.body.empty()) {
        e.push_back(element(
            isJSON(r.body, &r.headers) ? DetailElement::Kind::json : DetailElement::Kind::copyable,
            "Body", r.body));
    }
    return s;
}

DetailSection responseSection(const RequestTypeRequestDetailsResponse& r, TimePoint startedAt) {
    DetailSection s{.framed = true};
    auto& e = s.elements;
    auto headline = element(DetailElement::Kind::headline, "Response");
    headline.statusCode = r.statusCode;
    headline.statusColor = r.statusCode < 400 ? colors::green : colors::red;
    e.push_back(std::move(headline));
    e.push_back(
        element(DetailElement::Kind::copyable, "Duration", durationText(startedAt, r.receivedAt)));
    e.push_back(
        element(DetailElement::Kind::copyable, "Received At", detailDateText(r.receivedAt)));
    auto timings = element(DetailElement::Kind::timings, "Timings", r.timings ? "" : "no timings");
    if (r.timings) {
        timings.waterfall = std::make_shared<const TimingWaterfall>(timingWaterfall(*r.timings));
    }
    e.push_back(std::move(timings));
    addHeaders(r.headers, e);
    addTruncation(r.bodyTotalBytes, e);
    if (r.body.empty()) return s;
    if (isJSON(r.body, &r.headers)) {
        e.push_back(element(DetailElement::Kind::json, "Body", r.body));
        return s;
    }
    // Only this spelling of the key is consulted for images.
    const auto type = r.headers.find("Content-Type");
    if (type != r.headers.end() && lower(type->second).find("image") != std::string::npos) {
        if (auto bytes = base64Decode(r.body)) {
            e.push_back(element(DetailElement::Kind::subheadline, "Preview"));
            e.push_back(element(DetailElement::Kind::image, "Preview", std::move(*bytes)));
        }
    }
    e.push_back(element(DetailElement::Kind::copyable, "Body", r.body));
    return s;
}

}  // namespace

bool isJSON(std::string_view body, const TextMap* headers) {
    if (headers) {
        auto type = headers->find("Content-Type");
        if (type == headers->end()) type = headers->find("content-type");
        if (type != headers->end()) {
            const std::string t = lower(type->second);
            for (const char* json : {"application/json", "application/ld+json", "+json"}) {
                if (t.find(json) != std::string::npos) return true;
            }
        }
    }
    return parsesAsJSONContainer(body);
}

double calculateSize(std::string_view text) { return static_cast<double>(text.size()) / 1024.0; }

std::string sizeText(std::string_view text) {
    return fmt::format("{:.2f} KB", calculateSize(text));
}

std::string durationText(TimePoint start, TimePoint end) {
    const double ms = std::chrono::duration<double, std::milli>(end - start).count();
    return fmt::format("{:.2f} ms", ms);
}

std::string detailDateText(TimePoint t) { return formatLocalTime(t, "yyyy-MM-dd'T'HH:mm:ss.SSSZ"); }

std::string formattedCodeText(std::string_view text, std::string_view language) {
    if (language != "json") return std::string(text);
    json::parse_options options;
    options.max_depth = 100000;
    json::error_code ec;
    json::value v = json::parse(json::string_view(text.data(), text.size()), ec, {}, options);
    if (ec) return std::string(text);
    return prettyPrintedJSON(v).value_or(std::string(text));
}

std::string DetailElement::jsonText() const {
    if (payload) return prettyPrintedJSON(*payload).value_or(text());
    return text();
}

const std::string& DetailElement::text() const {
    static const std::string empty;
    return value ? *value : empty;
}

ShownText shownText(const std::string& value, std::size_t maxBytes) {
    ShownText shown{value, {}};
    if (value.size() > maxBytes) {
        std::size_t end = maxBytes;
        while (end > 0 && (static_cast<unsigned char>(value[end]) & 0xC0) == 0x80) --end;
        shown.text = std::string_view(value).substr(0, end);
        shown.note = fmt::format("Showing the first {:.2f} KB of {}. Copy takes the whole text.",
                                 calculateSize(shown.text), sizeText(value));
    }
    if (!isValidUTF8(shown.text)) {
        if (!shown.note.empty()) shown.note += ' ';
        shown.note += "This text is not valid UTF-8; the marked characters could not be shown.";
    }
    return shown;
}

std::vector<DetailSection> detailSections(const RequestEventType& item) {
    std::vector<DetailSection> sections;
    if (const auto* r = item.asNetworkRequest()) {
        const auto& request = r->details.request;
        if (request) sections.push_back(requestSection(*request));
        // The response is shown against the request's start; without a request half there is
        // nothing to measure it by, and nothing is shown for it.
        if (r->details.response && request) {
            sections.push_back(responseSection(*r->details.response, request->startedAt));
        }
    } else if (const auto* log = item.asLog()) {
        DetailSection s;
        const auto& d = log->details;
        s.elements.push_back(element(DetailElement::Kind::row, "Message", d.message));
        s.elements.push_back(
            element(DetailElement::Kind::row, "Timestamp", detailDateText(log->sentAt)));
        s.elements.push_back(element(DetailElement::Kind::row, "File", d.file));
        s.elements.push_back(element(DetailElement::Kind::row, "Line", std::to_string(d.line)));
        if (!d.subsystem.empty()) {
            s.elements.push_back(element(DetailElement::Kind::row, "Subsystem", d.subsystem));
        }
        if (!d.category.empty()) {
            s.elements.push_back(element(DetailElement::Kind::row, "Category", d.category));
        }
        sections.push_back(std::move(s));
    } else if (const auto* event = item.asCustomEvent()) {
        DetailSection s;
        const auto& d = event->details;
        s.elements.push_back(element(DetailElement::Kind::row, "Name", d.name));
        s.elements.push_back(element(DetailElement::Kind::row, "Category", d.category));
        s.elements.push_back(
            element(DetailElement::Kind::row, "Timestamp", detailDateText(event->sentAt)));
        // Only a payload that can be written as JSON: finite numbers, UTF-8 texts.
        if (auto compact = compactJSON(d.payload)) {
            auto e = element(DetailElement::Kind::json, "Payload", std::move(*compact));
            e.payload = std::make_shared<const JSONDictionary>(d.payload);
            s.elements.push_back(std::move(e));
        }
        sections.push_back(std::move(s));
    }
    return sections;
}

ItemDetailsModel::ItemDetailsModel(RequestEventType item, Clipboard& clipboard,
                                   ToastManager& toasts)
    : item_(std::move(item)),
      clipboard_(clipboard),
      toasts_(toasts),
      sections_(detailSections(item_)) {}

void ItemDetailsModel::copyValue(const DetailElement& element) {
    clipboard_.setString(element.text());
    toasts_.show("Copied to clipboard");
}

void ItemDetailsModel::copyJSON(const DetailElement& element) {
    clipboard_.setString(element.jsonText());
    toasts_.show("JSON copied to clipboard");
}

bool ItemDetailsModel::canCopyCurl() const {
    const auto* exchange = item_.asNetworkRequest();
    return exchange && exchange->details.request;
}

void ItemDetailsModel::copyCurl() {
    if (!canCopyCurl()) return;
    clipboard_.setString(curlCommand(*item_.asNetworkRequest()));
    toasts_.show("Copied to clipboard");
}

}  // namespace kestro
