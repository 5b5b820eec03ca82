#include "kestro/inspector/json_text.h"

#include <fmt/format.h>

#include <boost/json/basic_parser_impl.hpp>
#include <boost/json/serialize.hpp>
#include <cmath>
#include <vector>

#include "kestro/core/utf8.h"

namespace kestro {
namespace {

namespace json = boost::json;

// Only notes whether the document's top level is a container; the parser checks the rest.
struct ShapeHandler {
    static constexpr std::size_t max_object_size = std::size_t(-1);
    static constexpr std::size_t max_array_size = std::size_t(-1);
    static constexpr std::size_t max_key_size = std::size_t(-1);
    static constexpr std::size_t max_string_size = std::size_t(-1);

    int depth = 0;
    bool topIsContainer = false;

    bool open() {
        if (depth++ == 0) topIsContainer = true;
        return true;
    }
    bool scalar(json::error_code& ec) {
        if (depth == 0) {  // a fragment: stop at once
            ec = json::error::syntax;
            return false;
        }
        return true;
    }
    bool on_document_begin(json::error_code&) { return true; }
    bool on_document_end(json::error_code&) { return true; }
    bool on_array_begin(json::error_code&) { return open(); }
    bool on_array_end(std::size_t, json::error_code&) { return --depth, true; }
    bool on_object_begin(json::error_code&) { return open(); }
    bool on_object_end(std::size_t, json::error_code&) { return --depth, true; }
    bool on_string_part(json::string_view, std::size_t, json::error_code&) { return true; }
    bool on_string(json::string_view, std::size_t, json::error_code& ec) { return scalar(ec); }
    bool on_key_part(json::string_view, std::size_t, json::error_code&) { return true; }
    bool on_key(json::string_view, std::size_t, json::error_code&) { return true; }
    bool on_number_part(json::string_view, json::error_code&) { return true; }
    bool on_int64(std::int64_t, json::string_view, json::error_code& ec) { return scalar(ec); }
    bool on_uint64(std::uint64_t, json::string_view, json::error_code& ec) { return scalar(ec); }
    bool on_double(double, json::string_view, json::error_code& ec) { return scalar(ec); }
    bool on_bool(bool, json::error_code& ec) { return scalar(ec); }
    bool on_null(json::error_code& ec) { return scalar(ec); }
    bool on_comment_part(json::string_view, json::error_code&) { return true; }
    bool on_comment(json::string_view, json::error_code&) { return true; }
};

void writeString(std::string_view text, std::string& out) {
    out += json::serialize(json::string_view(text.data(), text.size()));
}

}  // namespace

bool parsesAsJSONContainer(std::string_view text) {
    if (text.empty()) return false;
    json::parse_options options;
    options.max_depth = std::size_t(-1);
    json::basic_parser<ShapeHandler> parser(options);
    json::error_code ec;
    const std::size_t used = parser.write_some(false, text.data(), text.size(), ec);
    return !ec && used == text.size() && parser.handler().topIsContainer;
}

namespace {

// One frame per open container: the container and the position of its next member.
struct Frame {
    const json::object* object = nullptr;  // else array
    const json::array* array = nullptr;
    std::size_t next = 0;
};

std::optional<std::string> written(const json::value* value, const json::object* topObject,
                                   bool indented) {
    std::string out;
    std::vector<Frame> stack;
    auto indent = [&](std::size_t depth) {
        if (!indented) return;
        out += '\n';
        out.append(depth * 2, ' ');
    };
    // Writes a scalar, or opens a container and pushes it. False when it cannot be written.
    auto begin = [&](const json::value& v) -> bool {
        switch (v.kind()) {
            case json::kind::object:
                if (v.get_object().empty()) {
                    out += "{}";
                    return true;
                }
                out += '{';
                stack.push_back({&v.get_object(), nullptr});
                return true;
            case json::kind::array:
                if (v.get_array().empty()) {
                    out += "[]";
                    return true;
                }
                out += '[';
                stack.push_back({nullptr, &v.get_array()});
                return true;
            case json::kind::string: {
                const auto& s = v.get_string();
                if (!isValidUTF8(std::string_view(s.data(), s.size()))) return false;
                writeString(std::string_view(s.data(), s.size()), out);
                return true;
            }
            case json::kind::double_:
                if (!std::isfinite(v.get_double())) return false;
                out += fmt::format("{}", v.get_double());  // shortest form: 12.5, 1e+300
                return true;
            default:
                out += json::serialize(v);
                return true;
        }
    };
    if (topObject) {
        if (topObject->empty()) return std::string("{}");
        out += '{';
        stack.push_back({topObject, nullptr});
    } else if (!begin(*value)) {
        return std::nullopt;
    }
    while (!stack.empty()) {
        Frame& top = stack.back();
        const std::size_t depth = stack.size();
        if (top.object) {
            const auto& o = *top.object;
            if (top.next == o.size()) {
                indent(depth - 1);
                out += '}';
                stack.pop_back();
                continue;
            }
            const auto& member = *(o.begin() + static_cast<std::ptrdiff_t>(top.next++));
            if (top.next > 1) out += ',';
            indent(depth);
            const std::string_view key(member.key().data(), member.key().size());
            if (!isValidUTF8(key)) return std::nullopt;
            writeString(key, out);
            out += indented ? " : " : ":";
            if (!begin(member.value())) return std::nullopt;
        } else {
            const auto& a = *top.array;
            if (top.next == a.size()) {
                indent(depth - 1);
                out += ']';
                stack.pop_back();
                continue;
            }
            const json::value& element = a[top.next++];
            if (top.next > 1) out += ',';
            indent(depth);
            if (!begin(element)) return std::nullopt;
        }
    }
    return out;
}

}  // namespace

std::optional<std::string> prettyPrintedJSON(const json::value& value) {
    return written(&value, nullptr, true);
}

std::optional<std::string> prettyPrintedJSON(const json::object& object) {
    return written(nullptr, &object, true);
}

std::optional<std::string> compactJSON(const json::object& object) {
    return written(nullptr, &object, false);
}

}  // namespace kestro
