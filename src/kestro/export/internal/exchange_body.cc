#include "kestro/export/internal/exchange_body.h"

#include <algorithm>
#include <cctype>

#include "kestro/network/body_text.h"

namespace kestro::exporting::internal {

namespace {

std::string lowered(std::string_view text) {
    std::string out(text);
    std::transform(out.begin(), out.end(), out.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return out;
}

std::int64_t decodedSize(std::string_view base64) {
    if (base64.size() % 4 != 0) return 0;
    std::size_t padding = 0;
    if (!base64.empty() && base64.back() == '=') padding = base64[base64.size() - 2] == '=' ? 2 : 1;
    return static_cast<std::int64_t>(base64.size() / 4 * 3 - padding);
}

}  // namespace

std::optional<std::string> headerValue(const TextMap& headers, std::string_view name) {
    const std::string wanted = lowered(name);
    for (const auto& [key, value] : headers) {
        if (lowered(key) == wanted) return value;
    }
    return std::nullopt;
}

BodyForm requestBody(const RequestTypeRequestDetailsRequest& request) {
    const bool base64 =
        request.bodyTotalBytes &&
        !isTextRequest(lowered(headerValue(request.headers, "Content-Type").value_or("")));
    return {request.body, base64,
            base64 ? decodedSize(request.body) : static_cast<std::int64_t>(request.body.size())};
}

BodyForm responseBody(const RequestTypeRequestDetailsResponse& response) {
    const bool mocked = headerValue(response.headers, "Kestro-Intercepted") == "true";
    const bool base64 =
        !mocked &&
        !isTextRequest(lowered(headerValue(response.headers, "Content-Type").value_or("")));
    return {response.body, base64,
            base64 ? decodedSize(response.body) : static_cast<std::int64_t>(response.body.size())};
}

std::optional<std::string> bodyBytes(const BodyForm& form) {
    if (!form.base64) return std::string(form.text);
    return base64Decode(form.text);
}

}  // namespace kestro::exporting::internal
