#include "kestro/network/internal/transfer_callbacks.h"

#include <string>
#include <string_view>

#include "kestro/network/internal/loading_loop.h"
#include "kestro/network/internal/task_core.h"
#include "kestro/network/internal/transfer_errors.h"

namespace kestro::network::internal {

namespace {

// The head of the response whose body is arriving (every field has come before the body).
HTTPURLResponse currentHead(const TaskCore& core) {
    long status = 0;
    long version = 0;
    char* url = nullptr;
    curl_easy_getinfo(core.easy, CURLINFO_RESPONSE_CODE, &status);
    curl_easy_getinfo(core.easy, CURLINFO_HTTP_VERSION, &version);
    curl_easy_getinfo(core.easy, CURLINFO_EFFECTIVE_URL, &url);
    return HTTPURLResponse(url ? url : core.request.url.value_or(""), status, versionText(version),
                           core.responseHeaders);
}

}  // namespace

std::size_t onResponseBody(char* data, std::size_t size, std::size_t n, void* user) {
    auto* core = static_cast<TaskCore*>(user);
    const std::size_t bytes = size * n;
    if (core->stream) {
        // Handed on, not kept; a full buffer pauses the transfer until the handler catches up.
        if (!core->sizeChecked) {
            core->sizeChecked = true;
            core->stream->setHead(currentHead(*core));
        }
        if (!core->stream->offer(std::string_view(data, bytes))) return CURL_WRITEFUNC_PAUSE;
        noteStreamBytes(*core);
        core->markActive(Clock::now());
        return bytes;
    }
    const std::uint64_t max = core->session->configuration.maximumResponseBodySize;
    if (!core->sizeChecked) {
        // First bytes of the final response: a declared length past the limit fails at once,
        // one within it is reserved in one piece (a 100 MB body then costs no regrowth).
        core->sizeChecked = true;
        curl_off_t declared = -1;
        curl_easy_getinfo(core->easy, CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &declared);
        if (declared > 0 && static_cast<std::uint64_t>(declared) > max) {
            core->overLimit = true;
            return CURL_WRITEFUNC_ERROR;
        }
        if (declared > 0) core->body.reserve(static_cast<std::size_t>(declared));
    }
    if (core->body.size() + bytes > max) {
        core->overLimit = true;
        return CURL_WRITEFUNC_ERROR;
    }
    core->body.append(data, bytes);
    core->markActive(Clock::now());
    return bytes;
}

std::size_t onResponseHeader(char* data, std::size_t size, std::size_t n, void* user) {
    auto* core = static_cast<TaskCore*>(user);
    const std::size_t bytes = size * n;
    core->markActive(Clock::now());
    std::string_view line(data, bytes);
    while (!line.empty() && (line.back() == '\r' || line.back() == '\n')) line.remove_suffix(1);
    if (line.starts_with("HTTP/")) {
        // A new response head (after a 1xx or a followed redirect) replaces the previous one.
        core->responseHeaders.clear();
        core->body.clear();
        core->sizeChecked = false;
        return bytes;
    }
    const auto colon = line.find(':');
    if (colon == std::string_view::npos || colon == 0) return bytes;
    std::string name = canonicalHeaderName(line.substr(0, colon));
    std::string_view value = line.substr(colon + 1);
    while (!value.empty() && (value.front() == ' ' || value.front() == '\t'))
        value.remove_prefix(1);
    while (!value.empty() && (value.back() == ' ' || value.back() == '\t')) value.remove_suffix(1);
    auto it = core->responseHeaders.find(name);
    if (it == core->responseHeaders.end()) {
        core->responseHeaders.emplace(std::move(name), std::string(value));
    } else {
        it->second.append(", ").append(value);
    }
    return bytes;
}

int onTransferProgress(void* user, curl_off_t, curl_off_t dlNow, curl_off_t, curl_off_t ulNow) {
    // Sending the body counts as activity for the idle time-out too.
    auto* core = static_cast<TaskCore*>(user);
    if (dlNow != core->lastDown || ulNow != core->lastUp) {
        core->lastDown = dlNow;
        core->lastUp = ulNow;
        core->markActive(Clock::now());
    }
    return 0;
}

}  // namespace kestro::network::internal
