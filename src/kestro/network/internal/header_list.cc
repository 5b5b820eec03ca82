#include "kestro/network/internal/header_list.h"

#include <string>
#include <string_view>

#include "kestro/network/internal/task_core.h"

namespace kestro::network::internal {

namespace {

// The header list of a request that sets no fields of its own: made once for the process.
curl_slist* expectOnly() {
    static curl_slist* const list = curl_slist_append(nullptr, "Expect:");
    return list;
}

}  // namespace

void setRequestHeaders(CURL* e, TaskCore& core) {
    const URLRequest& rq = core.request;
    const auto& additional = core.session->configuration.httpAdditionalHeaders;
    const bool setsExpect = rq.allHTTPHeaderFields.count(std::string_view("Expect")) > 0;
    if (rq.allHTTPHeaderFields.empty() && additional.empty()) {
        curl_easy_setopt(e, CURLOPT_HTTPHEADER, expectOnly());  // shared, never freed
        return;
    }
    // A name or value ends at its first line break or NUL: a field is one line, and cannot
    // add lines of its own to the request.
    auto clip = [](std::string_view text) {
        constexpr std::string_view kLineEnds("\r\n\0", 3);
        return text.substr(0, text.find_first_of(kLineEnds));
    };
    auto eachField = [&](auto&& visit) {
        for (const auto& [name, value] : rq.allHTTPHeaderFields) visit(clip(name), clip(value));
        for (const auto& [name, value] : additional) {
            if (!rq.allHTTPHeaderFields.count(name)) visit(clip(name), clip(value));
        }
    };
    // Measured first, so that the lines take one allocation.
    std::size_t size = setsExpect ? 0 : sizeof "Expect:";
    std::size_t count = setsExpect ? 0 : 1;
    eachField([&](std::string_view name, std::string_view value) {
        size += name.size() + 2 + value.size() + 1;
        ++count;
    });
    std::string& lines = core.headerLines;
    lines.clear();
    lines.reserve(size);
    eachField([&](std::string_view name, std::string_view value) {
        lines += name;
        // "Name;" is libcurl's way of sending a field with an empty value.
        if (value.empty()) {
            lines += ';';
        } else {
            lines += ": ";
            lines += value;
        }
        lines += '\0';
    });
    if (!setsExpect) lines.append("Expect:", sizeof "Expect:");
    // The nodes point into `lines`, which no longer grows.
    std::vector<curl_slist>& nodes = core.headerNodes;
    nodes.assign(count, curl_slist{});
    std::size_t at = 0;
    for (std::size_t i = 0; i < count; ++i) {
        nodes[i].data = lines.data() + at;
        nodes[i].next = i + 1 < count ? &nodes[i + 1] : nullptr;
        at += std::char_traits<char>::length(nodes[i].data) + 1;
    }
    curl_easy_setopt(e, CURLOPT_HTTPHEADER, nodes.data());
}

void freeRequestHeaders(TaskCore& core) {
    core.headerNodes = {};
    core.headerLines = {};
}

}  // namespace kestro::network::internal
