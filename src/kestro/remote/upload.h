#pragma once

#include <functional>
#include <optional>
#include <string>
#include <variant>

#include "kestro/core/export.h"
#include "kestro/network/url_request.h"
#include "kestro/records/records.h"

namespace kestro {

/// The outcome of one upload: the raw response body (possibly empty) or an error.
class KESTRO_API UploadResult {
  public:
    static UploadResult success(std::string body) { return UploadResult(std::move(body)); }
    static UploadResult failure(URLError error) { return UploadResult(std::move(error)); }

    bool isSuccess() const { return value_.index() == 0; }
    /// The body on success, else nullptr.
    const std::string* body() const { return std::get_if<std::string>(&value_); }
    /// The error on failure, else nullptr.
    const URLError* error() const { return std::get_if<URLError>(&value_); }

    bool operator==(const UploadResult&) const = default;

  private:
    explicit UploadResult(std::variant<std::string, URLError> v) : value_(std::move(v)) {}
    std::variant<std::string, URLError> value_;
};

using UploadCompletion = std::function<void(UploadResult)>;

/// Domain of the errors for answers outside 200–299; the code is the HTTP status.
inline constexpr const char* kUploadHTTPErrorDomain = "HTTPError";
/// Domain of the error for a transfer that delivered no body buffer at all.
inline constexpr const char* kUploadNoDataDomain = "No Data";

/// Posts `data` as compact JSON to `urlString` with the headers "Api-Key" (verbatim) and
/// "Content-Type: application/json", a 60-second time-out, and the request property
/// "SkipIntercept" = true so that the SDK's own network capture never takes it over.
///
/// Returns at once: the request is built and sent from a worker of the global executor. A
/// `urlString` that is not an absolute URL is dropped silently (no request, no completion).
/// Otherwise the completion, if given, runs once, where a data task's completion runs (a
/// loading thread of the URL layer or a worker of the global executor), with:
/// the transport error if there was one; else failure("HTTPError", status, "Server responded
/// with status code <status>") for a status outside 200–299 (the body is dropped); else
/// success(body); else failure("No Data", 0). Nothing is printed, retried or remembered.
///
/// Any thread.
KESTRO_API void sendToServer(std::string urlString, JSONDictionary data, std::string apiKey,
                             UploadCompletion completion = {});

namespace remote::internal {

/// The request sendToServer sends, or nothing when urlString is not an absolute URL.
KESTRO_API std::optional<URLRequest> makeUploadRequest(const std::string& urlString,
                                                       const JSONDictionary& data,
                                                       const std::string& apiKey);

/// The result of a finished upload transfer, decided in the order described at sendToServer.
KESTRO_API UploadResult uploadResult(std::optional<std::string> data,
                                     const std::optional<HTTPURLResponse>& response,
                                     std::optional<URLError> error);

}  // namespace remote::internal

}  // namespace kestro
