#include "kestro/jsonview/json_decorator.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

#include "kestro/core/utf8.h"
#include "kestro/jsonview/json_parser.h"
#include "kestro/jsonview/json_value.h"
#include "kestro/jsonview/valid_url.h"

namespace kestro {
namespace {

using State = JSONSlice::State;

// The text with each icon written as <F> (fold icon) or <E> (expand icon).
std::string plain(const AttributedText& text) {
    std::string out;
    text.enumerateRuns([&](const AttributedText::Run& run) {
        if (run.attributes.attachment) {
            out += run.attributes.attachment->image.name == "fold" ? "<F>" : "<E>";
        } else {
            out += text.string().substr(run.range.location, run.range.length);
        }
    });
    return out;
}

// The runs, each as a style letter and its text: K key-word/start, k key, l link, s string,
// n number, b bool, z null, p placeholder, u unknown, i icon, - no attributes, ? other.
std::string styled(const JSONDecorator& d, const AttributedText& text) {
    std::string out;
    text.enumerateRuns([&](const AttributedText::Run& run) {
        char code = '?';
        const auto& r = run.ref;
        if (!r)
            code = '-';
        else if (r->attachment)
            code = 'i';
        else if (r == d.keyWordStyle())
            code = 'K';
        else if (r == d.keyStyle())
            code = 'k';
        else if (r == d.stringStyle())
            code = 's';
        else if (r == d.numberStyle())
            code = 'n';
        else if (r == d.boolStyle())
            code = 'b';
        else if (r == d.nullStyle())
            code = 'z';
        else if (r == d.placeholderStyle())
            code = 'p';
        else if (r == d.unknownStyle())
            code = 'u';
        else if (r->link)
            code = 'l';
        else if (r == d.linkStyle())
            code = 'L';
        out += code;
        out += '{';
        out += r && r->attachment ? "" : text.string().substr(run.range.location, run.range.length);
        out += '}';
    });
    return out;
}

struct ShapeCase {
    const char* name;
    const char* json;
    std::vector<std::string> expanded;  // every slice's expanded text
    std::vector<int> levels;
    std::vector<std::pair<int, std::string>> folded;  // (slice index, folded text)
};

class LineShapes : public ::testing::TestWithParam<ShapeCase> {};

TEST_P(LineShapes, ExpandedAndFoldedTextsLevelsAndNumbers) {
    const ShapeCase& c = GetParam();
    auto d = JSONDecorator::highlight(c.json);
    ASSERT_TRUE(d);
    std::vector<std::string> expanded;
    std::vector<int> levels;
    for (std::size_t i = 0; i < d->slices.size(); ++i) {
        const JSONSlice& s = d->slices[i];
        expanded.push_back(plain(s.expand));
        levels.push_back(s.level);
        EXPECT_EQ(s.lineNumber, static_cast<int>(i) + 1);
        EXPECT_EQ(s.state, State::expand);
        EXPECT_EQ(s.foldedTimes, 0);
    }
    EXPECT_EQ(expanded, c.expanded);
    EXPECT_EQ(levels, c.levels);
    std::vector<std::pair<int, std::string>> folded;
    for (std::size_t i = 0; i < d->slices.size(); ++i)
        if (d->slices[i].folded)
            folded.emplace_back(static_cast<int>(i), plain(*d->slices[i].folded));
    EXPECT_EQ(folded, c.folded);
    EXPECT_EQ(d->indent(), 0);
}

INSTANTIATE_TEST_SUITE_P(
    Decorator, LineShapes,
    ::testing::Values(
        ShapeCase{"EmptyObject", "{}", {"<F> {", "}"}, {0, 0}, {{0, "<E> {Object...}"}}},
        ShapeCase{"EmptyArrayWithBlank", "[ ]", {"<F> [", "]"}, {0, 0}, {{0, "<E> [Array...]"}}},
        ShapeCase{"ScalarsInArray",
                  "[1,\"a\",true,false,null,-0.5e3]",
                  {"<F> [", "\t1,", "\t\"a\",", "\ttrue,", "\tfalse,", "\tnull,", "\t-0.5e3", "]"},
                  {0, 1, 1, 1, 1, 1, 1, 0},
                  {{0, "<E> [Array...]"}}},
        ShapeCase{"WrongLastElementHasNoClosingLine",
                  "[1, 2 x]",
                  {"<F> [", "\t1,", "\t2x]"},
                  {0, 1, 1},
                  {{0, "<E> [Array...]"}}},
        ShapeCase{"MembersSortedContainersAndCommas",
                  R"({"b":1,"a":[true,null],"c":{"d":"x"}})",
                  {"<F> {", "\t\"a\" : <F> [", "\t\ttrue,", "\t\tnull", "\t],", "\t\"b\" : 1,",
                   "\t\"c\" : <F> {", "\t\t\"d\" : \"x\"", "\t}", "}"},
                  {0, 1, 2, 2, 1, 1, 1, 2, 1, 0},
                  {{0, "<E> {Object...}"},
                   {1, "\t\"a\" : <E> [Array...],"},
                   {6, "\t\"c\" : <E> {Object...}"}}},
        ShapeCase{"NestedArraysCarryCommaOnClosingOrPlaceholder",
                  "[[1],[2]]",
                  {"<F> [", "\t<F> [", "\t\t1", "\t],", "\t<F> [", "\t\t2", "\t]", "]"},
                  {0, 1, 2, 1, 1, 2, 1, 0},
                  {{0, "<E> [Array...]"}, {1, "\t<E> [Array...],"}, {4, "\t<E> [Array...]"}}},
        ShapeCase{"UnknownLastMemberDropsCommaAndClosingLine",
                  R"({"a":1, b:2})",
                  {"<F> {", "\t\"a\" : 1", "\tb:2}"},
                  {0, 1, 1},
                  {{0, "<E> {Object...}"}}},
        ShapeCase{"StringsAreShownDecoded",
                  R"(["a\nb","t\"q"])",
                  {"<F> [", "\t\"a\nb\",", "\t\"t\"q\"", "]"},
                  {0, 1, 1, 0},
                  {{0, "<E> [Array...]"}}},
        ShapeCase{"TopLevelScalarWithTrailingGarbage", "12 tail", {"12tail"}, {0}, {}},
        ShapeCase{"WrongTextLosesLineFeeds",
                  "[1 x\ny]",
                  {"<F> [", "\t1xy]"},
                  {0, 1},
                  {{0, "<E> [Array...]"}}},
        ShapeCase{"BareWordIsUnknown", "hello", {"hello"}, {0}, {}},
        ShapeCase{"EmptyDocumentIsUnknown", "", {"unexpectedEndOfFile"}, {0}, {}}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(JSONDecorator, RunsCarryTheStyleOfTheirToken) {
    auto d = JSONDecorator::highlight(R"({"k":[1,"s",true,null], "z":"x"} junk)");
    ASSERT_TRUE(d);
    ASSERT_EQ(d->slices.size(), 9u);
    EXPECT_EQ(styled(*d, d->slices[0].expand), "i{}K{ {}");
    EXPECT_EQ(styled(*d, *d->slices[0].folded), "i{}K{ }p{{Object...}}");
    EXPECT_EQ(styled(*d, d->slices[1].expand), "k{\t\"k\"}K{ : }i{}K{ [}");
    EXPECT_EQ(styled(*d, *d->slices[1].folded), "k{\t\"k\"}K{ : }i{}K{ }p{[Array...],}");
    EXPECT_EQ(styled(*d, d->slices[2].expand), "n{\t\t1}K{,}");
    EXPECT_EQ(styled(*d, d->slices[3].expand), "s{\t\t\"s\"}K{,}");
    EXPECT_EQ(styled(*d, d->slices[4].expand), "b{\t\ttrue}K{,}");
    EXPECT_EQ(styled(*d, d->slices[5].expand), "z{\t\tnull}");
    EXPECT_EQ(styled(*d, d->slices[6].expand), "K{\t],}");
    EXPECT_EQ(styled(*d, d->slices[7].expand), "k{\t\"z\"}K{ : }s{\"x\"}");
    // The garbage after a complete top-level object is dropped; the closing line is last.
    EXPECT_EQ(styled(*d, d->slices[8].expand), "K{}}");
}

TEST(JSONDecorator, UnknownTextIsPaintedInTheUnknownStyleAfterUnstyledTabs) {
    auto d = JSONDecorator::highlight(R"({"a":1, b:2})");
    ASSERT_TRUE(d);
    ASSERT_EQ(d->slices.size(), 3u);
    EXPECT_EQ(styled(*d, d->slices[1].expand), "k{\t\"a\"}K{ : }n{1}");
    EXPECT_EQ(styled(*d, d->slices[2].expand), "-{\t}u{b:2}}");
    const auto& unknown = *d->unknownStyle();
    EXPECT_EQ(unknown.foregroundColor, HighlightColor::default_().unknownText);
    EXPECT_EQ(unknown.backgroundColor, HighlightColor::default_().unknownBackground);

    auto wrong = JSONDecorator::highlight("[1, 2 x]");
    EXPECT_EQ(styled(*wrong, wrong->slices[2].expand), "n{\t2}u{x]}");
}

TEST(JSONDecorator, LinksAreUnderlinedAndCarryTheirTextWithoutQuotes) {
    auto d = JSONDecorator::highlight(
        R"(["https://example.com/a?b=1", "10.0.0.1", "not a link", "x", "http:\/\/e.io\/p"])");
    ASSERT_TRUE(d);
    ASSERT_EQ(d->slices.size(), 7u);
    auto linkRun = [&](const AttributedText& t) {
        std::vector<std::tuple<std::size_t, std::size_t, std::string>> links;
        t.enumerateRuns([&](const AttributedText::Run& r) {
            if (r.attributes.link) {
                EXPECT_EQ(r.attributes.underlineStyle, UnderlineStyle::single);
                EXPECT_EQ(r.attributes.foregroundColor, HighlightColor::default_().link);
                links.emplace_back(r.range.location, r.range.length, *r.attributes.link);
            }
        });
        return links;
    };
    using L = std::vector<std::tuple<std::size_t, std::size_t, std::string>>;
    EXPECT_EQ(linkRun(d->slices[1].expand), (L{{2, 25, "https://example.com/a?b=1"}}));
    EXPECT_EQ(linkRun(d->slices[2].expand), (L{{2, 8, "10.0.0.1"}}));
    EXPECT_EQ(linkRun(d->slices[3].expand), L{});
    EXPECT_EQ(linkRun(d->slices[4].expand), L{});
    // Escaped slashes are decoded by the parser already.
    EXPECT_EQ(linkRun(d->slices[5].expand), (L{{2, 13, "http://e.io/p"}}));
    // The quotes and the comma are not part of the link, but the quotes share its colour.
    EXPECT_EQ(d->slices[1].expand.attributes(1).foregroundColor, HighlightColor::default_().link);
    EXPECT_FALSE(d->slices[1].expand.attributes(1).link);
    EXPECT_FALSE(d->slices[1].expand.attributes(27).link);
}

// Texts that reach the patterns have only characters a link can have; the answers are kept per
// thread, so asking again (and after many other texts) must give the same answer.
TEST(ValidURL, AnswersStayTheSameWhenAskedAgain) {
    const std::vector<std::pair<std::string, std::optional<ValidURL>>> cases = {
        {"HTTPS://Example.COM/a?b=1", ValidURL{"HTTPS://Example.COM/a?b=1", false}},
        {"http:\\/\\/e.io\\/p", ValidURL{"http://e.io/p", false}},
        {"10.0.0.1", ValidURL{"10.0.0.1", true}},
        {"example.com", ValidURL{"example.com", false}},
        {"caf\xC3\xA9.fr", std::nullopt},   // a letter beyond ASCII is left to the pattern
        {"example.com/a b", std::nullopt},  // a blank: no link
        {"\"example.com\"", std::nullopt},  // quotes: no link
        {"no full stop", std::nullopt},
        {"e", std::nullopt},
    };
    for (int round = 0; round < 3; ++round) {
        for (const auto& [text, expected] : cases) EXPECT_EQ(validURL(text), expected) << text;
        // Crowd the kept answers out between rounds.
        for (int i = 0; i < 200; ++i) validURL("host" + std::to_string(i) + ".example.org");
    }
}

// assemble() reserves the size counted during layout; lines the owner made longer, and slices
// it replaced, must come out whole all the same.
TEST(JSONDecorator, AssembleFollowsLinesTheOwnerChanged) {
    auto d = JSONDecorator::highlight(R"({"a":[1,2,3],"b":"text"})");
    ASSERT_TRUE(d);
    auto expected = [&] {
        AttributedText t;
        for (const auto& s : d->slices) {
            t.append(s.expand);
            t.append(d->wrapString());
        }
        return t;
    };
    d->slices[2].expand.append(std::string(500, 'x'), d->unknownStyle());
    EXPECT_EQ(d->assemble().attributedText, expected());
    d->slices = d->createSlices(R"([{"k":"a much longer document than the first one"},[true]])");
    EXPECT_EQ(d->assemble().attributedText, expected());
    EXPECT_EQ(d->assemble().lines.size(), d->slices.size());
}

TEST(JSONDecorator, StylesUseTheJSONFontLineHeightAndBaseline) {
    auto d = JSONDecorator::highlight("[1]", HighlightStyle::mariana());
    ASSERT_TRUE(d);
    const HighlightStyle& style = HighlightStyle::mariana();
    const TextAttributes& number = *d->numberStyle();
    EXPECT_EQ(number.font, style.jsonFont);
    EXPECT_EQ(number.foregroundColor, Color::rgb24(0xF9BC6B));
    ASSERT_TRUE(number.paragraphStyle);
    EXPECT_EQ(number.paragraphStyle->minimumLineHeight, 24);
    EXPECT_EQ(number.paragraphStyle->maximumLineHeight, 24);
    EXPECT_EQ(number.paragraphStyle->lineHeightMultiple, 1.0);
    EXPECT_EQ(number.paragraphStyle->lineSpacing, 0);
    EXPECT_DOUBLE_EQ(*number.baselineOffset, 24 - style.jsonFont.lineHeight() + 1.0);
    EXPECT_EQ(d->placeholderStyle()->backgroundColor, Color::rgb24(0x363D42));
    EXPECT_EQ(d->placeholderStyle()->foregroundColor, Color::rgb24(0x767677));

    const TextAttributes& wrap = d->wrapString().attributes(0);
    EXPECT_EQ(d->wrapString().string(), "\n");
    EXPECT_FALSE(wrap.foregroundColor);
    EXPECT_EQ(wrap.font, style.jsonFont);

    const auto& icon = d->foldIconString().attributes(0).attachment;
    ASSERT_TRUE(icon);
    EXPECT_EQ(icon->image.name, "fold");
    const Font& f = style.jsonFont;
    EXPECT_DOUBLE_EQ(icon->bounds.y, 24 - f.lineHeight() + 1 + f.descender());
    EXPECT_DOUBLE_EQ(icon->bounds.width, f.ascender());
    EXPECT_DOUBLE_EQ(icon->bounds.height, f.ascender());
    EXPECT_EQ(d->expandIconString().attributes(0).attachment->image.name, "expand");
    // Built once and shared by every line: the runs of both numbers hold the very set that
    // numberStyle() gives, and so does a line of a later layout.
    auto two = JSONDecorator::highlight("[1,2]", style);
    const AttributesRef numberSet = two->numberStyle();
    EXPECT_EQ(two->slices[1].expand.attributesRef(1), numberSet);
    EXPECT_EQ(two->slices[2].expand.attributesRef(1), numberSet);
    EXPECT_EQ(two->createSlices("[3]")[1].expand.attributesRef(1), numberSet);
}

TEST(JSONDecorator, AssembleHidesTheChildrenOfFoldedContainers) {
    const char* json = R"({"a":{"x":1,"y":[2,3]},"b":4})";
    auto d = JSONDecorator::highlight(json);
    ASSERT_TRUE(d);
    auto all = d->assemble();
    EXPECT_EQ(all.lines, (std::vector<int>{1, 2, 3, 4, 5, 6, 7, 8, 9, 10}));
    EXPECT_EQ(
        std::count(all.attributedText.string().begin(), all.attributedText.string().end(), '\n'),
        10);

    // Fold the inner array: its elements and closing line go, the next sibling stays.
    d->slices[3].state = State::folded;
    auto inner = d->assemble();
    EXPECT_EQ(inner.lines, (std::vector<int>{1, 2, 3, 4, 8, 9, 10}));
    EXPECT_EQ(plain(inner.attributedText),
              "<F> {\n\t\"a\" : <F> {\n\t\t\"x\" : 1,\n\t\t\"y\" : <E> [Array...]\n\t},\n"
              "\t\"b\" : 4\n}\n");

    d->slices[0].state = State::folded;
    auto top = d->assemble();
    EXPECT_EQ(top.lines, std::vector<int>{1});
    EXPECT_EQ(plain(top.attributedText), "<E> {Object...}\n");
    EXPECT_EQ(top.attributedText, [&] {
        AttributedText t = *d->slices[0].folded;
        t.append(d->wrapString());
        return t;
    }());

    JSONDecorator empty(HighlightStyle::default_(), State::expand);
    auto none = empty.assemble();
    EXPECT_TRUE(none.attributedText.empty());
    EXPECT_TRUE(none.lines.empty());
}

TEST(JSONDecorator, InitiallyFoldedDocumentsCountEnclosingFolds) {
    auto d = JSONDecorator::highlight(R"({"a":[1,{"b":2}],"c":3})", HighlightStyle::default_(),
                                      State::folded);
    ASSERT_TRUE(d);
    std::vector<int> foldedTimes;
    std::vector<State> states;
    for (const auto& s : d->slices) {
        foldedTimes.push_back(s.foldedTimes);
        states.push_back(s.state);
    }
    // { / "a" : [ / 1, / { / "b" : 2 / } / ], / "c" : 3 / }
    EXPECT_EQ(foldedTimes, (std::vector<int>{0, 1, 2, 2, 3, 3, 2, 1, 1}));
    EXPECT_EQ(states, (std::vector<State>{State::folded, State::folded, State::expand,
                                          State::folded, State::expand, State::expand,
                                          State::expand, State::expand, State::expand}));
    auto a = d->assemble();
    EXPECT_EQ(a.lines, std::vector<int>{1});
    EXPECT_EQ(plain(a.attributedText), "<E> {Object...}\n");
}

TEST(JSONDecorator, HighlightRejectsOnlyStrictlyInvalidTextWhenAsked) {
    EXPECT_TRUE(JSONDecorator::highlight("{\"a\":", HighlightStyle::default_(), State::expand));
    EXPECT_FALSE(
        JSONDecorator::highlight("{\"a\":", HighlightStyle::default_(), State::expand, true));
    EXPECT_FALSE(JSONDecorator::highlight("[1,]", HighlightStyle::default_(), State::expand, true));
    // A strict reader wants an array or an object at the top.
    EXPECT_FALSE(JSONDecorator::highlight("1", HighlightStyle::default_(), State::expand, true));
    EXPECT_TRUE(JSONDecorator::highlight(" [1, {\"a\": null}] ", HighlightStyle::default_(),
                                         State::expand, true));
}

// Bytes that are not UTF-8 (a body in another encoding, a multi-byte character cut short, an
// encoded surrogate) are laid out like any text, each ill-formed sequence shown as one U+FFFD:
// in strings, keys, the wrong text after a value and unknown text alike.
TEST(JSONDecorator, IllFormedUTF8IsRepairedBeforeLayout) {
    const std::string mark = "\xEF\xBF\xBD";
    auto lines = [](const JSONDecorator& d) {
        std::vector<std::string> out;
        for (const auto& s : d.slices) {
            out.push_back(plain(s.expand));
            EXPECT_TRUE(isValidUTF8(s.expand.string())) << out.back();
        }
        return out;
    };
    auto d = JSONDecorator::highlight("{\"caf\xE9\": \"\xE2\x82\", \"s\": \"\xED\xA0\x80\"} \xFF");
    ASSERT_TRUE(d);
    // A cut sequence is one mark, each byte of an encoded surrogate one.
    EXPECT_EQ(lines(*d),
              (std::vector<std::string>{"<F> {", "\t\"caf" + mark + "\" : \"" + mark + "\",",
                                        "\t\"s\" : \"" + mark + mark + mark + "\"", "}"}));
    EXPECT_EQ(d->slices[1].expand.attributesRef(1), d->keyStyle());

    d = JSONDecorator::highlight("[1, 2 \xC3]");
    ASSERT_TRUE(d);
    EXPECT_EQ(lines(*d), (std::vector<std::string>{"<F> [", "\t1,", "\t2" + mark + "]"}));

    // The strict reader judges the repaired text.
    EXPECT_TRUE(JSONDecorator::highlight("[\"\xC3\x28\"]", HighlightStyle::default_(),
                                         State::expand, true));
    // Text that is nothing but ill-formed bytes is one unknown line of marks.
    auto bytes = d->createSlices("\xFF\xFE");
    ASSERT_EQ(bytes.size(), 1u);
    EXPECT_EQ(bytes[0].expand.string(), mark + mark);
    EXPECT_EQ(bytes[0].expand.attributesRef(0), d->unknownStyle());
}

TEST(JSONDecorator, CreateSlicesLaysOutWithoutStoring) {
    auto d = JSONDecorator::highlight("[1]");
    ASSERT_TRUE(d);
    auto other = d->createSlices(R"({"a":[]})");
    ASSERT_EQ(other.size(), 4u);
    EXPECT_EQ(plain(other[1].expand), "\t\"a\" : <F> [");
    EXPECT_EQ(plain(other[2].expand), "\t]");
    EXPECT_EQ(d->slices.size(), 3u);
}

TEST(JSONDecorator, MemberWithBrokenValueKeepsOnlyItsFirstLine) {
    // The value of "a" cannot be read; the rest of the document is stored under "a".
    auto d = JSONDecorator::highlight(R"({"a": tru})");
    ASSERT_TRUE(d);
    ASSERT_EQ(d->slices.size(), 2u);
    const std::string line = plain(d->slices[1].expand);
    EXPECT_EQ(line.rfind("\t\"a\"\t", 0), 0u) << line;
    EXPECT_FALSE(d->slices[1].folded);
    EXPECT_EQ(d->slices[1].level, 1);
}

}  // namespace
}  // namespace kestro

namespace kestro {
namespace {

TEST(JSONSlice, CopiesOwnTheirFoldedText) {
    auto d = JSONDecorator::highlight(R"({"k":[1]})");
    ASSERT_TRUE(d);
    JSONSlice copy = d->slices[1];
    ASSERT_TRUE(copy.folded);
    const std::string folded(d->slices[1].folded->string());
    copy.folded->append("!", nullptr);
    EXPECT_EQ(d->slices[1].folded->string(), folded);
    copy.folded = std::nullopt;
    EXPECT_FALSE(copy.folded);
    EXPECT_TRUE(d->slices[1].folded);
    // Assigning a text to an empty one gives it one; moving leaves the source empty.
    copy.folded = AttributedText("x");
    JSONSlice moved = std::move(copy);
    EXPECT_EQ(moved.folded->string(), "x");
    EXPECT_FALSE(copy.folded);          // NOLINT: checking the moved-from state on purpose
    EXPECT_FALSE(d->slices[2].folded);  // a scalar line has no folded form
}

}  // namespace
}  // namespace kestro
