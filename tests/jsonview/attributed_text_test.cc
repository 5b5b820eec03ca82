#include "kestro/jsonview/attributed_text.h"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "kestro/jsonview/table_writer.h"

namespace kestro {
namespace {

AttributesRef colored(std::uint32_t rgb) {
    TextAttributes a;
    a.foregroundColor = Color::rgb24(rgb);
    return makeAttributes(a);
}

// (text, foreground 24-bit colour or -1) per run.
std::vector<std::pair<std::string, long>> runs(const AttributedText& t) {
    std::vector<std::pair<std::string, long>> out;
    t.enumerateRuns([&](const AttributedText::Run& r) {
        const auto& fg = r.attributes.foregroundColor;
        out.emplace_back(t.string().substr(r.range.location, r.range.length),
                         fg ? static_cast<long>(fg->argb32() & 0xFFFFFF) : -1L);
    });
    return out;
}
using Runs = std::vector<std::pair<std::string, long>>;

TEST(AttributedText, EditingKeepsRunsCoveringTheTextAndMergesEqualNeighbours) {
    const auto red = colored(0xFF0000);
    const auto green = colored(0x00FF00);
    AttributedText t("abc", red);
    t.append("def", green);
    t.append("ghi", colored(0x00FF00));  // equal content, other set: merged
    EXPECT_EQ(runs(t), (Runs{{"abc", 0xFF0000}, {"defghi", 0x00FF00}}));
    EXPECT_EQ(t.runCount(), 2u);

    t.replace({2, 3}, AttributedText("XY", nullptr));
    EXPECT_EQ(runs(t), (Runs{{"ab", 0xFF0000}, {"XY", -1}, {"fghi", 0x00FF00}}));

    t.insert(0, AttributedText("<", red));
    EXPECT_EQ(runs(t), (Runs{{"<ab", 0xFF0000}, {"XY", -1}, {"fghi", 0x00FF00}}));

    // Replacing the middle run by text of a neighbour's attributes joins all three.
    t.replace({3, 2}, AttributedText("--", red));
    t.replace({5, 4}, AttributedText("++", red));
    EXPECT_EQ(runs(t), (Runs{{"<ab--++", 0xFF0000}}));

    t.erase({0, 100});
    EXPECT_TRUE(t.empty());
    EXPECT_EQ(t.runCount(), 0u);
    t.append("z", nullptr);
    EXPECT_EQ(runs(t), (Runs{{"z", -1}}));

    // Ranges past the end are clamped.
    t.replace({10, 3}, AttributedText("!", red));
    EXPECT_EQ(runs(t), (Runs{{"z", -1}, {"!", 0xFF0000}}));
    EXPECT_EQ(t.substring({1, 50}).string(), "!");
}

// ---- storage: inline and heap buffers, shared tables of attribute sets -----------------------

// What an AttributedText must behave as: a string with one attribute set per byte.
struct PlainText {
    std::string text;
    std::vector<AttributesRef> sets;

    void append(std::string_view s, const AttributesRef& a) {
        text += s;
        sets.insert(sets.end(), s.size(), a);
    }
    void replace(std::size_t loc, std::size_t n, const PlainText& r) {
        loc = std::min(loc, text.size());
        n = std::min(n, text.size() - loc);
        text.replace(loc, n, r.text);
        sets.erase(sets.begin() + loc, sets.begin() + loc + n);
        sets.insert(sets.begin() + loc, r.sets.begin(), r.sets.end());
    }
    PlainText substring(std::size_t loc, std::size_t n) const {
        loc = std::min(loc, text.size());
        n = std::min(n, text.size() - loc);
        return {text.substr(loc, n), {sets.begin() + loc, sets.begin() + loc + n}};
    }
};

bool equalSets(const AttributesRef& a, const AttributesRef& b) {
    static const TextAttributes none;
    return (a ? *a : none) == (b ? *b : none);
}

// The same bytes and attributes, and runs that cover the text with no two equal neighbours.
::testing::AssertionResult matches(const AttributedText& t, const PlainText& p) {
    if (t.string() != p.text)
        return ::testing::AssertionFailure()
               << "text \"" << t.string() << "\", expected \"" << p.text << "\"";
    std::size_t next = 0, runs = 0;
    const AttributesRef* previous = nullptr;
    std::string fault;
    t.enumerateRuns([&](const AttributedText::Run& r) {
        ++runs;
        if (r.range.location != next || r.range.length == 0) fault = "runs leave a gap";
        if (previous && equalSets(*previous, r.ref)) fault = "equal neighbouring runs";
        for (std::size_t i = r.range.location; i < r.range.end(); ++i)
            if (!equalSets(r.ref, p.sets[i])) fault = "attributes differ at " + std::to_string(i);
        previous = &r.ref;
        next = r.range.end();
    });
    if (fault.empty() && next != p.text.size()) fault = "runs end early";
    if (fault.empty() && runs != t.runCount()) fault = "runCount() is not the runs enumerated";
    if (!fault.empty()) return ::testing::AssertionFailure() << fault;
    return ::testing::AssertionSuccess();
}

// Random edits of a few texts, each checked against the plain model. Texts grow past what fits
// inside the object and shrink back; some start from one shared table of styles, others not;
// one foreign set equals a style in value only, one is an empty set (equal to none).
TEST(AttributedText, EditsMatchAPlainModelAcrossInlineAndHeapStorage) {
    const std::vector<AttributesRef> styles = {colored(0x111111), colored(0x222222),
                                               colored(0x333333), colored(0x444444)};
    const AttributedText blank =
        jsonview::internal::textWithAttributeTable({styles[0], styles[1], styles[2], styles[3]});
    const jsonview::internal::WritableTable table =
        jsonview::internal::writableTable(blank, styles.data(), styles.size());
    const std::vector<AttributesRef> foreign = {nullptr, colored(0x111111), colored(0x555555),
                                                std::make_shared<const TextAttributes>()};
    std::mt19937 rng(20240611);
    auto pick = [&](std::size_t n) { return static_cast<std::size_t>(rng() % n); };
    auto anySet = [&] { return pick(3) ? styles[pick(styles.size())] : foreign[pick(4)]; };
    auto piece = [&](std::size_t maxLength) {
        std::string s(pick(maxLength + 1), 'a');
        for (char& c : s) c = static_cast<char>('a' + pick(26));
        return s;
    };

    std::vector<std::pair<AttributedText, PlainText>> texts(5);
    for (auto& [t, p] : texts)
        if (pick(2)) t = blank;
    for (int step = 0; step < 4000; ++step) {
        auto& [t, p] = texts[pick(texts.size())];
        auto& [other, otherPlain] = texts[pick(texts.size())];  // may be the same text
        const std::size_t loc = pick(p.text.size() + 2);
        const std::size_t n = pick(40);
        switch (pick(10)) {
            case 0: {
                const std::string s = piece(30);
                const AttributesRef a = anySet();
                t.append(s, a);
                p.append(s, a);
                break;
            }
            case 1: {  // by style position, as the decorator writes lines
                const std::string s = piece(12);
                const std::size_t position = pick(styles.size());
                jsonview::internal::TableWriter(t, table).put(s,
                                                              static_cast<std::uint32_t>(position));
                p.append(s, styles[position]);
                break;
            }
            case 2: {
                const PlainText added = otherPlain;
                t.append(other);
                p.replace(p.text.size(), 0, added);
                break;
            }
            case 3: {
                const PlainText replacement = otherPlain;
                t.replace({loc, n}, other);
                p.replace(loc, n, replacement);
                break;
            }
            case 4:
                t.erase({loc, n});
                p.replace(loc, n, {});
                break;
            case 5: {
                const AttributesRef a = anySet();
                t.setAttributes({loc, n}, a);
                const std::size_t from = std::min(loc, p.text.size());
                for (std::size_t i = from; i < std::min(loc + n, p.text.size()); ++i) p.sets[i] = a;
                break;
            }
            case 6: {
                TextAttributes background;
                background.backgroundColor = Color::rgb24(0xFFFB00);
                const bool add = pick(2);
                if (add)
                    t.addAttributes({loc, n}, background);
                else
                    t.removeAttribute({loc, n}, AttributeKey::foregroundColor);
                for (std::size_t i = std::min(loc, p.text.size());
                     i < std::min(loc + n, p.text.size()); ++i) {
                    TextAttributes edited = p.sets[i] ? *p.sets[i] : TextAttributes();
                    if (add)
                        edited.merge(background);
                    else
                        edited.remove(AttributeKey::foregroundColor);
                    p.sets[i] = makeAttributes(edited);
                }
                break;
            }
            case 7: {
                AttributedText part = t.substring({loc, n});
                const PlainText partPlain = p.substring(loc, n);
                other = pick(2) ? std::move(part) : AttributedText(part);
                otherPlain = partPlain;
                break;
            }
            case 8: {
                AttributedText copy = t;
                t = pick(2) ? copy : std::move(copy);
                if (pick(8) == 0) {
                    t.clear();
                    p = {};
                }
                break;
            }
            default:
                t.reserve(pick(300), pick(20));
                break;
        }
        ASSERT_TRUE(matches(t, p)) << "step " << step;
        ASSERT_TRUE(matches(other, otherPlain)) << "step " << step;
        if (p.text.size() > 500) {
            t.erase({0, 300});
            p.replace(0, 300, {});
        }
    }
}

// Lines sharing one table of styles are copied and dropped on other threads while the lines
// live on; the copies read back the same, and the sets go once every holder is gone.
TEST(AttributedText, LinesSharingATableAreCopiedAndDroppedOnOtherThreads) {
    std::weak_ptr<const TextAttributes> watched;
    {
        const AttributesRef key = colored(0xB72E22), number = colored(0xCC9115);
        watched = key;
        std::vector<AttributedText> lines;
        {
            const AttributedText blank = jsonview::internal::textWithAttributeTable({key, number});
            for (int i = 0; i < 3000; ++i) {
                AttributedText line = blank;
                line.append("\"id\" : ", key);
                line.append(std::to_string(i) + ",", number);
                lines.push_back(std::move(line));
            }
        }
        std::vector<std::vector<AttributedText>> copies(4);
        std::vector<std::thread> threads;
        for (auto& mine : copies) {
            threads.emplace_back([&lines, &mine] {
                for (const auto& line : lines) mine.push_back(line);
                mine.erase(mine.begin(),
                           mine.begin() + static_cast<std::ptrdiff_t>(mine.size() / 2));
            });
        }
        for (auto& thread : threads) thread.join();
        std::thread([&] { copies[0].clear(); }).join();  // made on one thread, dropped on another
        for (std::size_t k = 1; k < copies.size(); ++k) {
            ASSERT_EQ(copies[k].size(), lines.size() - lines.size() / 2);
            for (std::size_t i = 0; i < copies[k].size(); ++i)
                ASSERT_EQ(copies[k][i], lines[i + lines.size() / 2]);
        }
    }
    // This thread may keep references to the last table it used; turning to another table
    // gives them back.
    const AttributedText other = jsonview::internal::textWithAttributeTable({colored(1)});
    AttributedText line = other;
    EXPECT_TRUE(watched.expired());
}

TEST(AttributedText, AddAndRemoveAttributesOverRanges) {
    AttributedText t("0123456789", colored(0x112233));
    TextAttributes bg;
    bg.backgroundColor = Color::rgb24(0xFFFB00);
    t.addAttributes({2, 3}, bg);
    t.addAttributes({4, 3}, bg);  // overlapping: one run 2..7
    TextRange effective;
    EXPECT_TRUE(t.attributes(2, &effective).backgroundColor);
    EXPECT_EQ(effective, (TextRange{2, 5}));
    EXPECT_FALSE(t.attributes(7).backgroundColor);
    EXPECT_EQ(t.attributes(5).foregroundColor, Color::rgb24(0x112233));  // others stay

    t.removeAttribute({0, 10}, AttributeKey::backgroundColor);
    EXPECT_EQ(t.runCount(), 1u);
    EXPECT_EQ(t, AttributedText("0123456789", colored(0x112233)));

    t.setAttributes({0, 5}, nullptr);
    EXPECT_TRUE(t.attributes(4).empty());
    EXPECT_FALSE(t == AttributedText("0123456789", colored(0x112233)));
    t.removeAttribute({5, 5}, AttributeKey::foregroundColor);
    EXPECT_EQ(t, AttributedText("0123456789", nullptr));
    EXPECT_EQ(t.runCount(), 1u);
}

TEST(AttributedText, EqualityComparesTextAndAttributesNotRunBoundaries) {
    AttributedText a("ab", colored(1));
    AttributedText b("a", colored(1));
    b.append(AttributedText("b", colored(1)));
    EXPECT_EQ(a, b);
    EXPECT_FALSE(a == AttributedText("ab", colored(2)));
    EXPECT_FALSE(a == AttributedText("ac", colored(1)));
    EXPECT_FALSE(AttributedText("x", nullptr) == AttributedText("x", colored(0)));
}

TEST(AttributedText, UTF16PositionsAndFindNSRanges) {
    // "é" is two bytes and one unit, "😀" four bytes and two units.
    const AttributedText t(std::string("\xC3\xA9"
                                       "ab\xF0\x9F\x98\x80"
                                       "ab"),
                           nullptr);
    EXPECT_EQ(t.length(), 10u);
    EXPECT_EQ(t.utf16Length(), 7u);
    EXPECT_EQ(t.utf16Offset(2), 1u);
    EXPECT_EQ(t.utf16Offset(8), 5u);
    EXPECT_EQ(t.byteOffset(5), 8u);
    EXPECT_EQ(t.byteOffset(4), 4u);  // inside the surrogate pair: the start of its scalar
    EXPECT_EQ(t.byteOffset(100), 10u);
    EXPECT_EQ(t.findNSRanges("ab"), (std::vector<TextRange>{{1, 2}, {5, 2}}));
    EXPECT_EQ(t.findRanges("ab"), (std::vector<TextRange>{{2, 2}, {8, 2}}));
    EXPECT_EQ(t.findNSRanges("\xF0\x9F\x98\x80"), (std::vector<TextRange>{{3, 2}}));
    EXPECT_EQ(t.byteRange({3, 2}), (TextRange{4, 4}));
    EXPECT_EQ(t.utf16Range({4, 6}), (TextRange{3, 4}));
    EXPECT_TRUE(t.findNSRanges("").empty());
    EXPECT_TRUE(t.findNSRanges("AB").empty());  // case-sensitive

    // Non-overlapping, each search starting at the end of the previous hit.
    const AttributedText aaa("aaaa", nullptr);
    EXPECT_EQ(aaa.findNSRanges("aa"), (std::vector<TextRange>{{0, 2}, {2, 2}}));
    EXPECT_EQ(AttributedText("aaa", nullptr).findNSRanges("aa"), (std::vector<TextRange>{{0, 2}}));
}

TEST(AttributedText, AttachmentsStandOnOneReplacementCharacter) {
    TextAttachment a{*Image::named("fold"), {0, -2, 12, 12}};
    AttributedText icon = AttributedText::attachment(a);
    EXPECT_EQ(icon.string(), kAttachmentCharacter);
    EXPECT_EQ(icon.utf16Length(), 1u);
    EXPECT_EQ(icon.attributes(0).attachment, a);
    EXPECT_FALSE(icon.attributes(0).font);
    EXPECT_FALSE(Image::named("no such image"));
}

}  // namespace
}  // namespace kestro
