#include "kestro/remote/upload.h"

#include <boost/json/serialize.hpp>
#include <boost/url/parse.hpp>

#include "kestro/core/executor.h"
#include "kestro/core/json_numbers.h"
#include "kestro/network/url_protocol.h"
#include "kestro/network/url_session.h"

namespace kestro {

namespace remote::internal {

std::optional<URLRequest> makeUploadRequest(const std::string& urlString,
                                            const JSONDictionary& data, const std::string& apiKey) {
    if (!boost::urls::parse_absolute_uri(urlString)) return std::nullopt;
    URLRequest request(urlString, URLRequestCachePolicy::useProtocolCachePolicy,
                       std::chrono::seconds(60));
    URLProtocol::setProperty(true, "SkipIntercept", request);
    request.httpMethod = "POST";
    request.setValue(apiKey, "Api-Key");
    request.setValue("application/json", "Content-Type");
    // A body that cannot be written as JSON (a number with no JSON form) goes out as no body;
    // the server's answer decides.
    try {
        if (allNumbersFinite(data)) request.httpBody = boost::json::serialize(data);
    } catch (...) {
        request.httpBody.reset();
    }
    return request;
}

UploadResult uploadResult(std::optional<std::string> data,
                          const std::optional<HTTPURLResponse>& response,
                          std::optional<URLError> error) {
    if (error) return UploadResult::failure(std::move(*error));
    if (response && (response->statusCode < 200 || response->statusCode > 299)) {
        return UploadResult::failure(
            URLError(kUploadHTTPErrorDomain, response->statusCode,
                     "Server responded with status code " + std::to_string(response->statusCode)));
    }
    if (data) return UploadResult::success(std::move(*data));
    return UploadResult::failure(URLError(kUploadNoDataDomain, 0));
}

}  // namespace remote::internal

void sendToServer(std::string urlString, JSONDictionary data, std::string apiKey,
                  UploadCompletion completion) {
    postTask([urlString = std::move(urlString), data = std::move(data), apiKey = std::move(apiKey),
              completion = std::move(completion)]() mutable {
        std::optional<URLRequest> request =
            remote::internal::makeUploadRequest(urlString, data, apiKey);
        if (!request) return;
        auto task = URLSession::shared().dataTask(
            std::move(*request),
            [completion = std::move(completion)](std::optional<std::string> body,
                                                 std::optional<HTTPURLResponse> response,
                                                 std::optional<URLError> error) {
                if (!completion) return;
                completion(
                    remote::internal::uploadResult(std::move(body), response, std::move(error)));
            });
        task->resume();
    });
}

}  // namespace kestro
