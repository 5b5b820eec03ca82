#include "kestro/jsonview/json_decorator.h"

#include <bit>
#include <boost/json/monotonic_resource.hpp>
#include <boost/json/parse.hpp>
#include <cstring>

#include "kestro/core/utf8.h"
#include "kestro/jsonview/json_parser.h"
#include "kestro/jsonview/json_value.h"
#include "kestro/jsonview/table_writer.h"
#include "kestro/jsonview/utf16.h"
#include "kestro/jsonview/utf8_repair.h"

namespace kestro {

namespace {

using jsonview::internal::advanceUTF16;
using jsonview::internal::utf16Count;

std::string withoutLineFeeds(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    for (char c : text)
        if (c != '\n') out.push_back(c);
    return out;
}

// The text as UTF-8 the viewer can show: json itself when it is well-formed, else a copy in
// repaired in which every ill-formed sequence is one U+FFFD. A document with a stray byte (a
// body in another encoding, a cut multi-byte character) is shown with the mark where the byte
// was, and everything after the viewer (positions, the strict reader, links) sees valid text.
std::string_view wellFormed(std::string_view json, std::string& repaired) {
    if (isValidUTF8(json)) return json;
    jsonview::internal::appendRepaired(repaired, json);
    return repaired;
}

// A strict reading: well-formed JSON whose top level is an array or an object.
bool strictlyValid(std::string_view json) {
    boost::json::monotonic_resource resource;
    boost::json::parse_options options;
    options.max_depth = 100000;  // the strict reader has no practical nesting limit
    boost::system::error_code ec;
    const boost::json::value v = boost::json::parse(json, ec, &resource, options);
    return !ec && (v.is_array() || v.is_object());
}

}  // namespace

// ---- JSONSlice ------------------------------------------------------------------------------

JSONSlice::JSONSlice(int lineNumber, State state, int level, AttributedText expand,
                     OptionalAttributedText folded, int foldedTimes)
    : lineNumber(lineNumber),
      state(state),
      level(level),
      expand(std::move(expand)),
      folded(std::move(folded)),
      foldedTimes(foldedTimes) {}

JSONSlice::JSONSlice(int lineNumber, State state, int level, std::string expand,
                     AttributesRef expandAttributes,
                     std::optional<std::pair<std::string, AttributesRef>> folded, int foldedTimes)
    : lineNumber(lineNumber),
      state(state),
      level(level),
      expand(std::move(expand), std::move(expandAttributes)),
      foldedTimes(foldedTimes) {
    if (folded)
        this->folded.emplace(AttributedText(std::move(folded->first), std::move(folded->second)));
}

const AttributedText* JSONSlice::showContent() const {
    if (state == State::folded) return folded ? &*folded : nullptr;
    return &expand;
}

std::size_t JSONSlice::showContentLength() const {
    const AttributedText* t = showContent();
    return t ? t->length() : 0;
}

// ---- styles ---------------------------------------------------------------------------------

enum class JSONDecorator::Slot : std::uint8_t {
    keyWord,
    key,
    string,
    number,
    wrap,
    placeholder,
    foldIcon,
    expandIcon,
    boolean,
    null,
    link,
    unknown,
    count,
};

struct JSONDecorator::Styles {
    AttributesRef start, keyWord, key, link, string, number, boolean, null, placeholder, unknown;
    AttributedText expandIcon, foldIcon, wrap;
    // Every set by its slot.
    AttributesRef sets[static_cast<std::size_t>(Slot::count)];
    // Empty, with the sets in its table in slot order: each line starts as a copy, so that all
    // lines and their assembly share one table and pieces are appended by slot.
    AttributedText blank;
    jsonview::internal::WritableTable table;  // blank's, for writing pieces by slot

    const AttributesRef& operator[](Slot slot) const {
        return sets[static_cast<std::size_t>(slot)];
    }
};

inline void JSONDecorator::put(AttributedText& line, std::string_view text, Slot style) const {
    jsonview::internal::TableWriter(line, styles().table)
        .put(text, static_cast<std::uint32_t>(style));
}

JSONDecorator::JSONDecorator(HighlightStyle style, State initialState)
    : style_(std::move(style)), initialState_(initialState) {}

JSONDecorator::~JSONDecorator() = default;

TextAttributes JSONDecorator::createStyle(std::optional<Color> foregroundColor,
                                          const TextAttributes& other) const {
    TextAttributes a;
    a.font = style_.jsonFont;
    a.foregroundColor = foregroundColor;
    ParagraphStyle p;
    p.hyphenationFactor = 0;
    p.lineHeightMultiple = 1.0;
    p.minimumLineHeight = style_.lineHeight;
    p.maximumLineHeight = style_.lineHeight;
    p.lineSpacing = 0;
    a.paragraphStyle = p;
    a.baselineOffset = style_.lineHeight - style_.jsonFont.lineHeight() + 1.0;
    a.merge(other);
    return a;
}

AttributedText JSONDecorator::createIconAttributedString(const Image& image) const {
    const Font& f = style_.jsonFont;
    TextAttachment attachment;
    attachment.image = image;
    attachment.bounds = {0, style_.lineHeight - f.lineHeight() + 1 + f.descender(), f.ascender(),
                         f.ascender()};
    return AttributedText::attachment(std::move(attachment));
}

const JSONDecorator::Styles& JSONDecorator::buildStyles() const {
    std::call_once(stylesOnce_, [this] {
        auto s = std::make_unique<Styles>();
        const HighlightColor& c = style_.color;
        auto make = [&](Color fg, const TextAttributes& other = {}) {
            return makeAttributes(createStyle(fg, other));
        };
        s->start = make(c.keyWord);
        s->keyWord = s->start;
        s->key = make(c.key);
        s->link = make(c.link);
        s->string = make(c.string);
        s->number = make(c.number);
        s->boolean = make(c.boolean);
        s->null = make(c.null);
        TextAttributes placeholderExtra;
        placeholderExtra.backgroundColor = c.lineBackground;
        s->placeholder = make(c.lineText, placeholderExtra);
        TextAttributes unknownExtra;
        unknownExtra.backgroundColor = c.unknownBackground;
        s->unknown = make(c.unknownText, unknownExtra);
        const AttributesRef wrapStyle = makeAttributes(createStyle(std::nullopt));
        const AttributesRef expandIcon =
            createIconAttributedString(style_.expandIcon).attributesRef(0);
        const AttributesRef foldIcon = createIconAttributedString(style_.foldIcon).attributesRef(0);
        auto& sets = s->sets;
        auto set = [&](Slot slot, const AttributesRef& style) {
            sets[static_cast<std::size_t>(slot)] = style;
        };
        set(Slot::keyWord, s->keyWord);
        set(Slot::key, s->key);
        set(Slot::string, s->string);
        set(Slot::number, s->number);
        set(Slot::wrap, wrapStyle);
        set(Slot::placeholder, s->placeholder);
        set(Slot::foldIcon, foldIcon);
        set(Slot::expandIcon, expandIcon);
        set(Slot::boolean, s->boolean);
        set(Slot::null, s->null);
        set(Slot::link, s->link);
        set(Slot::unknown, s->unknown);
        s->blank = jsonview::internal::textWithAttributeTable(
            {sets[0], sets[1], sets[2], sets[3], sets[4], sets[5], sets[6], sets[7], sets[8],
             sets[9], sets[10], sets[11]});
        static_assert(static_cast<int>(Slot::count) == 12);
        s->table = jsonview::internal::writableTable(s->blank, sets, std::size(sets));
        auto fromBlank = [&](std::string_view text, const AttributesRef& style) {
            AttributedText t = s->blank;
            t.append(text, style);
            return t;
        };
        s->expandIcon = fromBlank(kAttachmentCharacter, expandIcon);
        s->foldIcon = fromBlank(kAttachmentCharacter, foldIcon);
        s->wrap = fromBlank("\n", wrapStyle);
        styles_ = std::move(s);
        builtStyles_.store(styles_.get(), std::memory_order_release);
    });
    return *styles_;
}

const AttributesRef& JSONDecorator::startStyle() const { return styles().start; }
const AttributesRef& JSONDecorator::keyWordStyle() const { return styles().keyWord; }
const AttributesRef& JSONDecorator::keyStyle() const { return styles().key; }
const AttributesRef& JSONDecorator::linkStyle() const { return styles().link; }
const AttributesRef& JSONDecorator::stringStyle() const { return styles().string; }
const AttributesRef& JSONDecorator::numberStyle() const { return styles().number; }
const AttributesRef& JSONDecorator::boolStyle() const { return styles().boolean; }
const AttributesRef& JSONDecorator::nullStyle() const { return styles().null; }
const AttributesRef& JSONDecorator::placeholderStyle() const { return styles().placeholder; }
const AttributesRef& JSONDecorator::unknownStyle() const { return styles().unknown; }
const AttributedText& JSONDecorator::expandIconString() const { return styles().expandIcon; }
const AttributedText& JSONDecorator::foldIconString() const { return styles().foldIcon; }
const AttributedText& JSONDecorator::wrapString() const { return styles().wrap; }

std::string JSONDecorator::writeIndent() const {
    return std::string(static_cast<std::size_t>(std::max(indent_, 0)), '\t');
}

// ---- entry points ---------------------------------------------------------------------------

std::shared_ptr<JSONDecorator> JSONDecorator::highlight(std::string_view json,
                                                        const HighlightStyle& style,
                                                        State initialState, bool judgmentValid) {
    std::string repaired;
    json = wellFormed(json, repaired);
    if (judgmentValid && !strictlyValid(json)) return nullptr;
    auto decorator = std::make_shared<JSONDecorator>(style, initialState);
    decorator->slices = decorator->createSlices(parseJSON(json), json);
    decorator->hint_ = decorator->laidOut_;
    return decorator;
}

std::vector<JSONSlice> JSONDecorator::createSlices(std::string_view json) {
    std::string repaired;
    json = wellFormed(json, repaired);
    return createSlices(parseJSON(json), json);
}

namespace {

// Bytes that may start a line: commas and brackets. Counted a machine word at a time, since
// this reads the whole document.
std::size_t countLineBreakers(std::string_view text) {
    constexpr std::uint64_t kOnes = 0x0101010101010101u;
    constexpr std::uint64_t kHigh = 0x8080808080808080u;
    // High bit set in each byte of x that is zero (exact: no borrow between bytes).
    auto zeroBytes = [](std::uint64_t x) { return ~(((x & ~kHigh) + ~kHigh) | x | ~kHigh); };
    std::size_t count = 0;
    std::size_t i = 0;
    const std::size_t n = text.size();
    for (; i + 8 <= n; i += 8) {
        std::uint64_t w;
        std::memcpy(&w, text.data() + i, 8);
        // '[' ']' '{' '}' are 0x5B 0x5D 0x7B 0x7D: with bit 5 set, 0x7B or 0x7D.
        const std::uint64_t folded = w | (kOnes * 0x20);
        const std::uint64_t hits = zeroBytes(w ^ (kOnes * ',')) |
                                   zeroBytes(folded ^ (kOnes * '{')) |
                                   zeroBytes(folded ^ (kOnes * '}'));
        // One bit per byte at bit 7: moved to bit 0, the multiplication adds the eight bytes
        // up in the top byte.
        count += static_cast<std::size_t>(((hits >> 7) * kOnes) >> 56);
    }
    for (; i < n; ++i) {
        const char c = text[i];
        count += c == ',' || c == '[' || c == '{' || c == ']' || c == '}';
    }
    return count;
}

}  // namespace

std::vector<JSONSlice> JSONDecorator::createSlices(const JSONValue& value, std::string_view json) {
    // Every line holds one value or closes a container, and every value but the first follows
    // a comma or an opening bracket: counting those bytes bounds the line count from above
    // (bytes inside strings only over-count), so the slices are never moved while growing.
    std::vector<JSONSlice> out;
    out.reserve(countLineBreakers(json) + 2);
    laidOut_ = {};
    indent_ = 0;
    processJSONValueRecursively(value, 0, IsNeed{false, false}, 0, out);
    indent_ = 0;
    if (!out.empty()) countLine(out.back());
    laidOut_.lines = out.size();
    return out;
}

std::vector<JSONSlice> JSONDecorator::createSlices(const JSONValue& value) {
    std::vector<JSONSlice> out;
    laidOut_ = {};
    indent_ = 0;
    processJSONValueRecursively(value, 0, IsNeed{false, false}, 0, out);
    indent_ = 0;
    if (!out.empty()) countLine(out.back());
    laidOut_.lines = out.size();
    return out;
}

JSONDecorator::Assembly JSONDecorator::assemble() const {
    Assembly result;
    // The size of the expanded document, as counted while laying it out; counted again if the
    // owner has replaced the slices since. Folding only shortens it, and if edits made the lines
    // longer the text simply grows.
    std::size_t bytes = hint_.bytes;
    std::size_t runs = hint_.runs;
    if (hint_.lines != slices.size()) {
        bytes = runs = 0;
        for (const auto& s : slices) {
            bytes += s.expand.length() + 1;
            runs += s.expand.runCount() + 1;
        }
    }
    result.lines.reserve(slices.size());
    AttributedText& text = result.attributedText;
    text.reserve(bytes, runs);
    std::optional<int> hidden;
    for (std::size_t i = 0; i < slices.size(); ++i) {
        const JSONSlice& s = slices[i];
        if (hidden) {
            if (s.level > *hidden) continue;
            if (s.level == *hidden) {
                hidden.reset();  // the folded container's closing line
                continue;
            }
            hidden.reset();
        }
        if (s.state == State::expand) {
            text.append(s.expand);
            put(text, "\n", Slot::wrap);
            result.lines.push_back(static_cast<int>(i) + 1);
        } else if (s.folded) {
            text.append(*s.folded);
            put(text, "\n", Slot::wrap);
            result.lines.push_back(static_cast<int>(i) + 1);
            hidden = s.level;
        }
    }
    return result;
}

// ---- layout ---------------------------------------------------------------------------------

JSONSlice& JSONDecorator::addLine(std::vector<JSONSlice>& out, int lineNumber, State state,
                                  int foldedTimes) {
    // Lines are finished before the next one starts.
    if (!out.empty()) countLine(out.back());
    return out.emplace_back(lineNumber, state, indent_, styles().blank, std::nullopt, foldedTimes);
}

void JSONDecorator::countLine(const JSONSlice& slice) {
    laidOut_.bytes += slice.expand.length() + 1;
    laidOut_.runs += slice.expand.runCount() + 1;
}

void JSONDecorator::createStartAttribute(JSONSlice& slice, std::string_view expand,
                                         std::string_view fold, IsNeed isNeed,
                                         const JSONObjectKey* key) const {
    const Styles& st = styles();
    const std::size_t indent = static_cast<std::size_t>(std::max(indent_, 0));
    const std::size_t prefix = key ? indent + key->key.size() + 5 : isNeed.indent ? indent : 0;
    const std::size_t prefixRuns = key ? 2 : 1;
    const std::size_t icon = kAttachmentCharacter.size();
    auto writePrefix = [&](AttributedText& line) {
        if (key) {
            appendKey(line, key->key);
            put(line, " : ", Slot::keyWord);
        } else if (isNeed.indent) {
            appendIndent(line, Slot::keyWord);
        }
    };
    // The icon goes after the tabs (or the key), before the blank.
    AttributedText& expanded = slice.expand;
    expanded.reserve(prefix + icon + 1 + expand.size(), prefixRuns + 2);
    writePrefix(expanded);
    put(expanded, kAttachmentCharacter, Slot::foldIcon);
    put(expanded, " ", Slot::keyWord);
    put(expanded, expand, Slot::keyWord);

    AttributedText& folded = slice.folded.emplace(st.blank);
    folded.reserve(prefix + icon + 2 + fold.size(), prefixRuns + 3);
    writePrefix(folded);
    put(folded, kAttachmentCharacter, Slot::expandIcon);
    put(folded, " ", Slot::keyWord);
    put(folded, fold, Slot::placeholder);
    if (isNeed.comma) put(folded, ",", Slot::placeholder);
}

void JSONDecorator::createEndAttribute(AttributedText& line, std::string_view bracket,
                                       bool isNeedComma) const {
    line.reserve(static_cast<std::size_t>(std::max(indent_, 0)) + bracket.size() + 1, 1);
    appendIndent(line, Slot::keyWord);
    put(line, bracket, Slot::keyWord);
    if (isNeedComma) put(line, ",", Slot::keyWord);
}

void JSONDecorator::processJSONValueRecursively(const JSONValue& value, int currentSlicesCount,
                                                IsNeed isNeed, int foldedTimes,
                                                std::vector<JSONSlice>& out) {
    switch (value.kind()) {
        case JSONValue::Case::array:
            processArrayValue(value, currentSlicesCount, isNeed, foldedTimes, out);
            break;
        case JSONValue::Case::object:
            processObjectValue(value, currentSlicesCount, isNeed, foldedTimes, out);
            break;
        case JSONValue::Case::unknown:
            processUnknownValue(value, currentSlicesCount, isNeed, foldedTimes, out);
            break;
        default:
            processScalarValue(value, currentSlicesCount, isNeed, foldedTimes, out);
            break;
    }
}

void JSONDecorator::processScalarValue(const JSONValue& value, int currentSlicesCount,
                                       IsNeed isNeed, int foldedTimes,
                                       std::vector<JSONSlice>& out) {
    AttributedText& line = addLine(out, currentSlicesCount + 1, State::expand, foldedTimes).expand;
    // Room for the indentation, the text in quotes and a comma, so that the line is built
    // without regrowing.
    line.reserve((isNeed.indent ? static_cast<std::size_t>(std::max(indent_, 0)) : 0) +
                     value.text().size() + 3,
                 1 + isNeed.comma + value.wrong().has_value());
    appendScalar(line, value, isNeed);
}

void JSONDecorator::appendScalar(AttributedText& line, const JSONValue& value,
                                 IsNeed isNeed) const {
    Slot style;
    std::string_view text;
    std::optional<ValidURL> link;
    switch (value.kind()) {
        case JSONValue::Case::string: {
            text = value.text();
            style = Slot::string;
            link = validURL(text);
            if (link) style = Slot::link;
            break;
        }
        case JSONValue::Case::number:
            text = value.text();
            style = Slot::number;
            break;
        case JSONValue::Case::boolean:
            text = value.asBool() ? "true" : "false";
            style = Slot::boolean;
            break;
        default:
            text = "null";
            style = Slot::null;
            break;
    }
    // The indentation takes the value's style.
    if (isNeed.indent) appendIndent(line, style);
    const std::size_t quoteAt = line.length();
    if (value.isString()) {
        put(line, "\"", style);
        put(line, text, style);
        put(line, "\"", style);
    } else {
        put(line, text, style);
    }
    if (link) {
        // The link covers as many UTF-16 units of the shown string as the link text has,
        // starting just inside the opening quote.
        const std::size_t start = quoteAt + 1;
        const std::size_t length = advanceUTF16(std::string_view(line.string()).substr(start),
                                                utf16Count(link->urlString));
        TextAttributes linkAttributes;
        linkAttributes.link = link->urlString;
        linkAttributes.underlineStyle = UnderlineStyle::single;
        line.addAttributes({start, length}, linkAttributes);
    }
    if (isNeed.comma) put(line, ",", Slot::keyWord);
    if (auto wrong = value.wrong()) line.append(withoutLineFeeds(*wrong), styles().unknown);
}

void JSONDecorator::appendIndent(AttributedText& line, Slot style) const {
    static constexpr std::string_view kTabs = "\t\t\t\t\t\t\t\t\t\t\t\t\t\t\t\t";
    for (int left = std::max(indent_, 0); left > 0;) {
        const int n = std::min<int>(left, static_cast<int>(kTabs.size()));
        put(line, kTabs.substr(0, static_cast<std::size_t>(n)), style);
        left -= n;
    }
}

void JSONDecorator::appendKey(AttributedText& line, std::string_view key) const {
    appendIndent(line, Slot::key);
    put(line, "\"", Slot::key);
    put(line, key, Slot::key);
    put(line, "\"", Slot::key);
}

void JSONDecorator::processUnknownValue(const JSONValue& value, int currentSlicesCount,
                                        IsNeed isNeed, int foldedTimes,
                                        std::vector<JSONSlice>& out) {
    AttributedText& line = addLine(out, currentSlicesCount + 1, State::expand, foldedTimes).expand;
    if (isNeed.indent) line.append(writeIndent(), nullptr);
    line.append(withoutLineFeeds(value.text()), styles().unknown);
}

void JSONDecorator::processArrayValue(const JSONValue& value, int currentSlicesCount, IsNeed isNeed,
                                      int foldedTimes, std::vector<JSONSlice>& out,
                                      const JSONObjectKey* key) {
    const std::size_t base = out.size();
    auto made = [&] { return currentSlicesCount + static_cast<int>(out.size() - base); };
    createStartAttribute(addLine(out, made() + 1, initialState_, foldedTimes), "[", "[Array...]",
                         isNeed, key);
    const int child = childFoldedTimes(foldedTimes);
    const JSONArray& elements = value.asArray();
    if (!elements.empty()) {
        ++indent_;
        for (std::size_t i = 0; i < elements.size(); ++i) {
            processJSONValueRecursively(elements[i], made(), IsNeed{true, i + 1 < elements.size()},
                                        child, out);
        }
        --indent_;
        // A wrong last element carries the rest of the document, closing bracket included.
        if (elements.back().isRight().isWrong()) return;
    }
    createEndAttribute(addLine(out, made() + 1, State::expand, child).expand, "]", isNeed.comma);
}

void JSONDecorator::processObjectValue(const JSONValue& value, int currentSlicesCount,
                                       IsNeed isNeed, int foldedTimes, std::vector<JSONSlice>& out,
                                       const JSONObjectKey* key) {
    const std::size_t base = out.size();
    auto made = [&] { return currentSlicesCount + static_cast<int>(out.size() - base); };
    createStartAttribute(addLine(out, made() + 1, initialState_, foldedTimes), "{", "{Object...}",
                         isNeed, key);
    const int child = childFoldedTimes(foldedTimes);
    const std::vector<const JSONObjectEntry*> entries = rankedEntries(value.asObject());
    if (!entries.empty()) {
        ++indent_;
        for (std::size_t k = 0; k < entries.size(); ++k) {
            const JSONObjectKey& memberKey = entries[k]->key;
            const JSONValue& member = entries[k]->value;
            if (member.isRight().isWrong()) {
                if (memberKey.isWrong) {
                    processJSONValueRecursively(member, made(), IsNeed{true, false}, child, out);
                    continue;
                }
                // The key and the first line of its value on one line; the value's further
                // lines are not shown.
                std::vector<JSONSlice> valueSlices;
                const Totals counted = laidOut_;
                processJSONValueRecursively(member, made(), IsNeed{true, false}, child,
                                            valueSlices);
                laidOut_ = counted;
                AttributedText& line = addLine(out, made() + 1, State::expand, child).expand;
                appendKey(line, memberKey.key);
                if (!valueSlices.empty()) line.append(valueSlices.front().expand);
                continue;
            }
            const bool comma = k + 1 < entries.size() && !entries[k + 1]->value.isRight().isWrong();
            if (member.isArray() || member.isObject()) {
                // The container's opening line is the member line.
                if (member.isArray())
                    processArrayValue(member, made(), IsNeed{false, comma}, child, out, &memberKey);
                else
                    processObjectValue(member, made(), IsNeed{false, comma}, child, out,
                                       &memberKey);
                continue;
            }
            // A scalar: the key and the value on one line, with room for both.
            AttributedText& line = addLine(out, made() + 1, State::expand, child).expand;
            line.reserve(static_cast<std::size_t>(indent_) + memberKey.key.size() + 5 +
                             member.text().size() + 4,
                         3 + comma + member.wrong().has_value());
            appendKey(line, memberKey.key);
            put(line, " : ", Slot::keyWord);
            appendScalar(line, member, IsNeed{false, comma});
        }
        --indent_;
        if (entries.back()->value.isRight().isWrong()) return;
    }
    createEndAttribute(addLine(out, made() + 1, State::expand, child).expand, "}", isNeed.comma);
}

}  // namespace kestro
