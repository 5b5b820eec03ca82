#include "kestro/core/text_search.h"

#include <unicode/locid.h>
#include <unicode/normalizer2.h>
#include <unicode/uchar.h>
#include <unicode/unistr.h>

#include <cstring>

namespace kestro {
namespace {

bool isAscii(std::string_view text) {
    for (unsigned char c : text) {
        if (c >= 0x80) return false;
    }
    return true;
}

bool turkicDefaultLocale() {
    const char* language = icu::Locale::getDefault().getLanguage();
    return std::strcmp(language, "tr") == 0 || std::strcmp(language, "az") == 0;
}

}  // namespace

void appendFoldedForSearch(std::string_view text, std::string& out) {
    // Under the Turkic rules ASCII "I" folds to dotless "ı", so the shortcut is for other
    // locales only.
    static const bool turkic = turkicDefaultLocale();
    if (!turkic && isAscii(text)) {
        const std::size_t at = out.size();
        out.append(text);
        for (std::size_t i = at; i < out.size(); ++i) {
            const char c = out[i];
            if (c >= 'A' && c <= 'Z') out[i] = static_cast<char>(c + ('a' - 'A'));
        }
        return;
    }
    UErrorCode status = U_ZERO_ERROR;
    const icu::Normalizer2* nfd = icu::Normalizer2::getNFDInstance(status);
    const icu::Normalizer2* nfc = icu::Normalizer2::getNFCInstance(status);
    if (U_FAILURE(status)) {
        out.append(text);
        return;
    }
    const icu::UnicodeString source = icu::UnicodeString::fromUTF8(
        icu::StringPiece(text.data(), static_cast<int32_t>(text.size())));
    icu::UnicodeString folded = nfd->normalize(source, status);
    folded.foldCase(turkic ? U_FOLD_CASE_EXCLUDE_SPECIAL_I : U_FOLD_CASE_DEFAULT);
    const icu::UnicodeString composed = nfc->normalize(folded, status);
    if (U_FAILURE(status)) {
        out.append(text);
        return;
    }
    composed.toUTF8String(out);
}

std::string foldForSearch(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    appendFoldedForSearch(text, out);
    return out;
}

bool localizedCaseInsensitiveContains(std::string_view text, std::string_view needle) {
    if (needle.empty()) return true;
    return foldForSearch(text).find(foldForSearch(needle)) != std::string::npos;
}

}  // namespace kestro
