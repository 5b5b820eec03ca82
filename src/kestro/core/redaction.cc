#include "kestro/core/redaction.h"

#include <algorithm>
#include <cstdint>

namespace kestro {

namespace {

char lower(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

std::string lowered(std::string_view s) {
    std::string out(s);
    for (char& c : out) c = lower(c);
    return out;
}

bool equalsIgnoringCase(std::string_view a, std::string_view b) {
    return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(),
                                              [](char x, char y) { return lower(x) == lower(y); });
}

int hexValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

// A query item's name as the server reads it: "%XX" decoded and '+' as a space.
std::string decodedQueryName(std::string_view name) {
    std::string out;
    out.reserve(name.size());
    for (std::size_t i = 0; i < name.size(); ++i) {
        if (name[i] == '+') {
            out.push_back(' ');
        } else if (name[i] == '%' && i + 2 < name.size() && hexValue(name[i + 1]) >= 0 &&
                   hexValue(name[i + 2]) >= 0) {
            out.push_back(static_cast<char>(hexValue(name[i + 1]) * 16 + hexValue(name[i + 2])));
            i += 2;
        } else {
            out.push_back(name[i]);
        }
    }
    return out;
}

// The parts of a URL the globs look at.
struct HostAndPath {
    std::string host;  // lower case
    std::string_view path;
};

HostAndPath hostAndPath(std::string_view url) {
    std::string_view rest = url;
    if (const auto scheme = rest.find("://"); scheme != std::string_view::npos) {
        rest.remove_prefix(scheme + 3);
    }
    const auto authorityEnd = std::min(rest.find_first_of("/?#"), rest.size());
    std::string_view authority = rest.substr(0, authorityEnd);
    if (const auto at = authority.rfind('@'); at != std::string_view::npos) {
        authority.remove_prefix(at + 1);
    }
    if (authority.starts_with('[')) {  // an IPv6 literal keeps its colons
        authority = authority.substr(0, std::min(authority.find(']') + 1, authority.size()));
    } else if (const auto colon = authority.find(':'); colon != std::string_view::npos) {
        authority = authority.substr(0, colon);
    }
    std::string_view path = rest.substr(authorityEnd);
    path = path.substr(0, std::min(path.find_first_of("?#"), path.size()));
    return {lowered(authority), path};
}

// A strict, non-recursive JSON scanner that copies the text and replaces named members'
// values. Containers are tracked on an explicit stack, so no depth of nesting can exhaust the
// thread's stack.
class JSONRedaction {
  public:
    JSONRedaction(std::string_view text, const std::vector<std::string>& keys)
        : s_(text), keys_(keys) {}

    std::optional<std::string> run() {
        if (!document()) return std::nullopt;
        if (!keys_.empty()) out_.append(s_.substr(copied_));
        return keys_.empty() ? std::string(s_) : std::move(out_);
    }

  private:
    bool document() {
        ws();
        for (;;) {
            // A value starts here.
            if (at('{')) {
                ++p_;
                stack_.push_back('{');
                ws();
                if (at('}')) {
                    ++p_;
                    stack_.pop_back();
                } else if (!member()) {
                    return false;
                } else {
                    continue;  // the member's value
                }
            } else if (at('[')) {
                ++p_;
                stack_.push_back('[');
                ws();
                if (at(']')) {
                    ++p_;
                    stack_.pop_back();
                } else {
                    continue;
                }
            } else if (at('"')) {
                if (!string(nullptr)) return false;
            } else if (!scalar()) {
                return false;
            }
            // A value has ended; close every container that ends with it.
            for (;;) {
                valueEnded();
                ws();
                if (stack_.empty()) return p_ == s_.size();
                if (at(',')) {
                    ++p_;
                    ws();
                    if (stack_.back() == '{' && !member()) return false;
                    break;
                }
                const char close = stack_.back() == '{' ? '}' : ']';
                if (!at(close)) return false;
                ++p_;
                stack_.pop_back();
            }
        }
    }

    // A member's key and colon; leaves p_ at its value.
    bool member() {
        if (!at('"')) return false;
        std::string key;
        if (!string(keys_.empty() || redactDepth_ ? nullptr : &key)) return false;
        ws();
        if (!at(':')) return false;
        ++p_;
        ws();
        if (!redactDepth_ && std::find(keys_.begin(), keys_.end(), key) != keys_.end()) {
            out_.append(s_.substr(copied_, p_ - copied_));
            out_.append("\"").append(kRedactedText).append("\"");
            redactDepth_ = stack_.size();
        }
        return true;
    }

    // A value at the depth of the member being redacted has ended: skip its text.
    void valueEnded() {
        if (redactDepth_ && stack_.size() == redactDepth_) {
            copied_ = p_;
            redactDepth_ = 0;
        }
    }

    bool at(char c) const { return p_ < s_.size() && s_[p_] == c; }
    void ws() {
        while (p_ < s_.size() &&
               (s_[p_] == ' ' || s_[p_] == '\t' || s_[p_] == '\n' || s_[p_] == '\r'))
            ++p_;
    }

    bool literal(std::string_view word) {
        if (s_.substr(p_, word.size()) != word) return false;
        p_ += word.size();
        return true;
    }

    bool digits() {
        const std::size_t start = p_;
        while (p_ < s_.size() && s_[p_] >= '0' && s_[p_] <= '9') ++p_;
        return p_ > start;
    }

    bool scalar() {
        if (at('t')) return literal("true");
        if (at('f')) return literal("false");
        if (at('n')) return literal("null");
        if (at('-')) ++p_;
        if (at('0')) {
            ++p_;
        } else if (!digits()) {
            return false;
        }
        if (at('.')) {
            ++p_;
            if (!digits()) return false;
        }
        if (at('e') || at('E')) {
            ++p_;
            if (at('+') || at('-')) ++p_;
            if (!digits()) return false;
        }
        return true;
    }

    bool hex4(std::uint32_t& v) {
        if (p_ + 4 > s_.size()) return false;
        v = 0;
        for (int i = 0; i < 4; ++i) {
            const int h = hexValue(s_[p_++]);
            if (h < 0) return false;
            v = v * 16 + static_cast<std::uint32_t>(h);
        }
        return true;
    }

    static void appendUTF8(std::string& out, std::uint32_t cp) {
        if (cp < 0x80) {
            out.push_back(static_cast<char>(cp));
        } else if (cp < 0x800) {
            out.push_back(static_cast<char>(0xC0 | (cp >> 6)));
            out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
        } else if (cp < 0x10000) {
            out.push_back(static_cast<char>(0xE0 | (cp >> 12)));
            out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
            out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
        } else {
            out.push_back(static_cast<char>(0xF0 | (cp >> 18)));
            out.push_back(static_cast<char>(0x80 | ((cp >> 12) & 0x3F)));
            out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
            out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
        }
    }

    // A string at p_; its unescaped text goes to `decoded` when asked for.
    bool string(std::string* decoded) {
        ++p_;  // the opening quote
        for (;;) {
            if (p_ >= s_.size()) return false;
            const char c = s_[p_++];
            if (c == '"') return true;
            if (static_cast<unsigned char>(c) < 0x20) return false;
            if (c != '\\') {
                if (decoded) decoded->push_back(c);
                continue;
            }
            if (p_ >= s_.size()) return false;
            const char e = s_[p_++];
            char plain = 0;
            switch (e) {
                case '"':
                    plain = '"';
                    break;
                case '\\':
                    plain = '\\';
                    break;
                case '/':
                    plain = '/';
                    break;
                case 'b':
                    plain = '\b';
                    break;
                case 'f':
                    plain = '\f';
                    break;
                case 'n':
                    plain = '\n';
                    break;
                case 'r':
                    plain = '\r';
                    break;
                case 't':
                    plain = '\t';
                    break;
                case 'u': {
                    std::uint32_t cp = 0;
                    if (!hex4(cp)) return false;
                    // A high surrogate followed by an escaped low one is one character; a lone
                    // surrogate is kept as the replacement character.
                    if (cp >= 0xD800 && cp < 0xDC00 && s_.substr(p_, 2) == "\\u") {
                        const std::size_t mark = p_;
                        p_ += 2;
                        std::uint32_t low = 0;
                        if (!hex4(low)) return false;
                        if (low >= 0xDC00 && low < 0xE000) {
                            cp = 0x10000 + ((cp - 0xD800) << 10) + (low - 0xDC00);
                        } else {
                            p_ = mark;
                        }
                    }
                    if (cp >= 0xD800 && cp < 0xE000) cp = 0xFFFD;
                    if (decoded) appendUTF8(*decoded, cp);
                    continue;
                }
                default:
                    return false;
            }
            if (decoded) decoded->push_back(plain);
        }
    }

    std::string_view s_;
    const std::vector<std::string>& keys_;
    std::size_t p_ = 0;
    std::vector<char> stack_;
    std::string out_;
    std::size_t copied_ = 0;       // input before this is in out_ (or skipped)
    std::size_t redactDepth_ = 0;  // stack depth of the member being redacted; 0: none
};

}  // namespace

bool globMatches(std::string_view pattern, std::string_view text) {
    // Backtracking to the last '*' only: linear in practice, never exponential.
    std::size_t p = 0, t = 0;
    std::size_t starP = std::string_view::npos, starT = 0;
    while (t < text.size()) {
        if (p < pattern.size() && pattern[p] == '*') {
            starP = p++;
            starT = t;
        } else if (p < pattern.size() &&
                   (pattern[p] == '?' || lower(pattern[p]) == lower(text[t]))) {
            ++p;
            ++t;
        } else if (starP != std::string_view::npos) {
            p = starP + 1;
            t = ++starT;
        } else {
            return false;
        }
    }
    while (p < pattern.size() && pattern[p] == '*') ++p;
    return p == pattern.size();
}

bool urlMatchesAnyGlob(const std::vector<std::string>& globs, std::string_view url) {
    if (globs.empty()) return false;
    const HostAndPath parts = hostAndPath(url);
    std::string hostPath = parts.host;
    hostPath.append(parts.path.empty() ? std::string_view("/") : parts.path);
    return std::any_of(globs.begin(), globs.end(), [&](const std::string& glob) {
        return globMatches(glob, parts.host) || globMatches(glob, hostPath);
    });
}

std::string redactQueryItems(std::string_view url, const std::vector<std::string>& names) {
    const auto question = url.find('?');
    const auto hash = url.find('#');
    if (names.empty() || question == std::string_view::npos || hash < question) {
        return std::string(url);
    }
    const std::size_t queryEnd = std::min(hash, url.size());
    std::string out(url.substr(0, question + 1));
    std::size_t item = question + 1;
    while (item <= queryEnd) {
        const std::size_t itemEnd = std::min(url.find('&', item), queryEnd);
        const std::string_view text = url.substr(item, itemEnd - item);
        const auto equals = text.find('=');
        if (equals != std::string_view::npos &&
            std::find(names.begin(), names.end(), decodedQueryName(text.substr(0, equals))) !=
                names.end()) {
            out.append(text.substr(0, equals + 1)).append(kRedactedText);
        } else {
            out.append(text);
        }
        if (itemEnd < queryEnd) out.push_back('&');
        item = itemEnd + 1;
    }
    out.append(url.substr(queryEnd));
    return out;
}

std::optional<std::string> redactJSONKeys(std::string_view text,
                                          const std::vector<std::string>& keys) {
    return JSONRedaction(text, keys).run();
}

Redactor::Redactor(RedactionPolicy policy) : policy_(std::move(policy)) {
    for (const auto& name : policy_.headers) lowerHeaders_.push_back(lowered(name));
}

bool Redactor::captures(std::string_view url) const {
    return !policy_.enabled || !urlMatchesAnyGlob(policy_.notCaptured, url);
}

void Redactor::redactHeaders(std::map<std::string, std::string>& headers) const {
    if (!policy_.enabled || lowerHeaders_.empty()) return;
    for (auto& [name, value] : headers) {
        for (const auto& hidden : lowerHeaders_) {
            if (equalsIgnoringCase(name, hidden)) {
                value = kRedactedText;
                break;
            }
        }
    }
}

std::string Redactor::redactURL(std::string_view url) const {
    if (!policy_.enabled) return std::string(url);
    return redactQueryItems(url, policy_.queryItems);
}

std::string Redactor::redactBody(std::string body, std::string_view url) const {
    if (!policy_.enabled || body.empty()) return body;
    const bool dropsNonJSON = urlMatchesAnyGlob(policy_.dropBodiesNotJSON, url);
    if (policy_.jsonKeys.empty() && !dropsNonJSON) return body;
    if (auto rewritten = redactJSONKeys(body, policy_.jsonKeys)) return std::move(*rewritten);
    return dropsNonJSON ? std::string(kRedactedText) : std::move(body);
}

}  // namespace kestro
