#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "kestro/records/records.h"

namespace kestro::exporting::internal {

/// A header field's value by case-insensitive name.
std::optional<std::string> headerValue(const TextMap& headers, std::string_view name);

/// A stored body and what its text is.
struct BodyForm {
    std::string_view text;  // as stored
    bool base64 = false;    // the text is the base64 of the body's bytes
    std::int64_t size = 0;  // bytes of the captured part (decoded when base64)
};

/// How a request half's body is carried: as UTF-8 text, except a body cut to the capture limit
/// whose content type is not textual, which is the base64 of its first bytes.
BodyForm requestBody(const RequestTypeRequestDetailsRequest& request);
/// How a response half's body is carried: the base64 of its bytes unless the content type is
/// textual or the answer came from a mock rule (header "Kestro-Intercepted: true"), whose body
/// is the rule's text.
BodyForm responseBody(const RequestTypeRequestDetailsResponse& response);

/// The bytes a body form stands for (base64 decoded; text as it is). Nothing when base64 text
/// does not decode.
std::optional<std::string> bodyBytes(const BodyForm& form);

}  // namespace kestro::exporting::internal
