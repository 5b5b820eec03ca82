#include "kestro/jsonview/attributed_text.h"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "kestro/jsonview/highlight_style.h"

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

// UTF-16 units are counted a word at a time over ASCII; byte by byte the count is simple to
// state, and random texts (ASCII runs, every sequence length, stray and truncated bytes) must
// agree with that.
TEST(UTF8, WordAtATimeCountsAgreeWithByteByByteOnes) {
    auto unitsByByte = [](std::string_view s) {
        std::size_t units = 0;
        for (unsigned char b : s) units += ((b & 0xC0) != 0x80) + (b >= 0xF0);
        return units;
    };
    const std::string pieces[] = {"abcdefgh",         "x",       "\xC3\xA9", "\xE2\x82\xAC",
                                  "\xF0\x9F\x98\x80", "\x80",    "\xFF",     "\xED\xA0\x80",
                                  "\xF0\x9F",         "\xC0\xAF"};
    std::mt19937 rng(99);
    for (int i = 0; i < 3000; ++i) {
        std::string s;
        const int n = static_cast<int>(rng() % 40);
        for (int k = 0; k < n; ++k) s += pieces[rng() % (i % 3 == 0 ? 10 : 5)];
        ASSERT_EQ(jsonview::internal::utf16Count(s), unitsByByte(s)) << i;
    }
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

TEST(Fonts, MetricsScaleAndBoldVariantsExistWhereRegistered) {
    const Font f = Font::system(16);
    EXPECT_EQ(f.size(), 16);
    EXPECT_GT(f.ascender(), 0);
    EXPECT_LT(f.descender(), 0);
    EXPECT_NEAR(f.lineHeight(), f.ascender() - f.descender(), 1.0);
    ASSERT_TRUE(f.boldVariant());
    EXPECT_TRUE(f.boldVariant()->isBold());
    EXPECT_EQ(f.boldVariant()->size(), 16);
    EXPECT_FALSE(f == *f.boldVariant());
    EXPECT_TRUE(Font::monospacedSystem(12).isMonospaced());
    EXPECT_FALSE(Font::named("no such family", 12));

    Font::registerFamily({"thin-test", 0.7, -0.3, 0, 0.5, false, false});
    auto thin = Font::named("thin-test", 10);
    ASSERT_TRUE(thin);
    EXPECT_DOUBLE_EQ(thin->lineHeight(), 10);
    EXPECT_FALSE(thin->boldVariant());
}

// Long texts kept in chunks must behave exactly like one contiguous text.
TEST(TextStorage, ReplacementsMatchAContiguousText) {
    const AttributesRef styles[] = {nullptr, colored(0xAA0000), colored(0x00BB00)};
    std::mt19937 rng(1234);
    auto randomText = [&](std::size_t maxLen) {
        AttributedText t;
        const std::size_t pieces = rng() % 6;
        for (std::size_t p = 0; p < pieces; ++p) {
            std::string s;
            const std::size_t n = rng() % maxLen;
            for (std::size_t i = 0; i < n; ++i) {
                switch (rng() % 8) {
                    case 0:
                        s += '\n';
                        break;
                    case 1:
                        s += "\xC3\xA9";
                        break;
                    case 2:
                        s += "\xF0\x9F\x98\x80";
                        break;
                    default:
                        s += static_cast<char>('a' + rng() % 26);
                }
            }
            t.append(s, styles[rng() % 3]);
        }
        return t;
    };
    AttributedText reference;
    for (int i = 0; i < 40; ++i) reference.append(randomText(900));
    TextStorage storage(reference);
    EXPECT_GT(storage.chunkCount(), 3u);
    for (int step = 0; step < 300; ++step) {
        const std::size_t len = reference.length();
        std::size_t loc = len ? rng() % (len + 1) : 0;
        std::size_t n = rng() % 5 == 0 ? rng() % 20000 : rng() % 300;
        // Keep edits on scalar boundaries, as callers do.
        auto boundary = [&](std::size_t p) {
            p = std::min(p, reference.length());
            while (p < reference.length() &&
                   (static_cast<unsigned char>(reference.string()[p]) & 0xC0) == 0x80)
                ++p;
            return p;
        };
        loc = boundary(loc);
        n = boundary(loc + n) - loc;
        const AttributedText replacement = randomText(step % 7 == 0 ? 6000 : 200);
        reference.replace({loc, n}, replacement);
        storage.replace({loc, n}, replacement);
        ASSERT_EQ(storage.length(), reference.length());
        if (step % 25 == 0) {
            ASSERT_EQ(storage.flattened(), reference) << "step " << step;
            ASSERT_EQ(storage.utf16Length(), reference.utf16Length());
            const std::size_t p = boundary(reference.length() / 3);
            EXPECT_EQ(storage.utf16Offset(p), reference.utf16Offset(p));
            EXPECT_EQ(storage.byteOffset(reference.utf16Offset(p)), p);
            EXPECT_EQ(storage.attributedSubstring({p, 5000}), reference.substring({p, 5000}));
        }
    }
    EXPECT_EQ(storage.flattened(), reference);
    EXPECT_EQ(storage.string(), reference.string());
    storage.replace({0, storage.length()}, AttributedText());
    EXPECT_TRUE(storage.empty());
    EXPECT_EQ(storage.chunkCount(), 0u);
}

TEST(TextStorage, EnumeratesRunsAcrossChunksWithDocumentPositions) {
    AttributedText doc;
    for (int i = 0; i < 3000; ++i) doc.append("line " + std::to_string(i) + "\n", colored(i % 2));
    TextStorage storage(doc);
    ASSERT_GT(storage.chunkCount(), 1u);
    std::string rebuilt;
    std::size_t expectedStart = 0;
    storage.enumerateRuns({0, storage.length()}, [&](const AttributedText::Run& r) {
        EXPECT_EQ(r.range.location, expectedStart);
        expectedStart = r.range.end();
        rebuilt += doc.string().substr(r.range.location, r.range.length);
        EXPECT_EQ(r.attributes, doc.attributes(r.range.location));
    });
    EXPECT_EQ(rebuilt, doc.string());
}

TEST(ConvertibleToColor, IntegersAndHexTextsConvertAsDesigned) {
    auto rgb = [](ConvertibleToColor c) { return c.color().argb32(); };
    EXPECT_EQ(rgb(0x5264FF), 0xFF5264FFu);
    EXPECT_EQ(rgb("#5264FF"), 0xFF5264FFu);
    EXPECT_EQ(rgb("#1C1B1D"), 0xFF1C1B1Du);
    EXPECT_EQ(rgb("4075a6"), 0xFF4075A6u);  // upper-cased first
    EXPECT_EQ(rgb(std::string("B72E22")), 0xFFB72E22u);
    EXPECT_EQ(rgb(0x7F5264FF), 0xFF5264FFu);  // only the low 24 bits
    EXPECT_EQ(rgb(-1), 0xFFFFFFFFu);
    EXPECT_EQ(rgb(Color{0.5, 0, 0, 0.25}), (Color{0.5, 0, 0, 0.25}.argb32()));
    // Nothing is rejected: "G" reads as 16, carrying into the next digit.
    EXPECT_EQ(rgb("0G"), 0xFF000010u);
    EXPECT_EQ(rgb(""), 0xFF000000u);
    const Color c = ConvertibleToColor("#5264FF").color();
    EXPECT_DOUBLE_EQ(c.red, 0x52 / 255.0);
    EXPECT_DOUBLE_EQ(c.green, 0x64 / 255.0);
    EXPECT_DOUBLE_EQ(c.blue, 0xFF / 255.0);
    EXPECT_EQ(c.alpha, 1);
}

TEST(HighlightStyle, ThemesAndBoldSearchFont) {
    const HighlightColor& d = HighlightColor::default_();
    EXPECT_EQ(d.keyWord, Color::black());
    EXPECT_EQ(d.key, Color::rgb24(0xB72E22));
    EXPECT_EQ(d.searchHitBackground, Color::rgb24(0xFFFB00));
    EXPECT_EQ(d.jsonBackground, Color::white());
    EXPECT_EQ(d.lineText, Color::rgb24(0xA3A3A3));
    const HighlightColor& m = HighlightColor::mariana();
    EXPECT_EQ(m.keyWord, Color::rgb24(0x767677));
    EXPECT_EQ(m.jsonBackground, Color::rgb24(0x3D444C));
    EXPECT_EQ(m.unknownBackground, Color::rgb24(0xFBE3E4));

    const HighlightStyle& s = HighlightStyle::default_();
    EXPECT_EQ(s.lineHeight, 24);
    EXPECT_EQ(s.expandIcon.name, "expand");
    EXPECT_EQ(s.foldIcon.name, "fold");
    EXPECT_EQ(s.jsonFont.size(), 16);
    ASSERT_TRUE(s.boldOfJSONFont());
    EXPECT_TRUE(s.boldOfJSONFont()->isBold());
    EXPECT_EQ(s.boldOfJSONFont()->size(), 16);
    EXPECT_EQ(HighlightStyle::mariana().color, m);

    HighlightStyle plainHits(std::nullopt, std::nullopt, d, std::nullopt, Font::system(13), 20,
                             false);
    EXPECT_FALSE(plainHits.boldOfJSONFont());
    EXPECT_EQ(plainHits.jsonFont.size(), 13);
    EXPECT_EQ(plainHits.lineFont.size(), 16);
}

}  // namespace
}  // namespace kestro
