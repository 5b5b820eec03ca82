#include "kestro/network/internal/transfer_errors.h"

#include "kestro/network/internal/task_core.h"

namespace kestro::network::internal {

URLError errorFor(CURLcode code, const TaskCore& core) {
    if (core.overLimit) {
        return URLError::make(
            URLErrorCode::dataLengthExceedsMaximum,
            "limit " + std::to_string(core.session->configuration.maximumResponseBodySize) +
                " bytes");
    }
    const std::string detail =
        core.errorBuffer[0] ? std::string(core.errorBuffer) : std::string(curl_easy_strerror(code));
    switch (code) {
        // Only the connection time-out, which is the idle one: the same words as when the
        // loop ends an idle task.
        case CURLE_OPERATION_TIMEDOUT:
            return core.timeoutError(Clock::now());
        case CURLE_COULDNT_CONNECT:
            return URLError::make(URLErrorCode::cannotConnectToHost, detail);
        case CURLE_COULDNT_RESOLVE_HOST:
        case CURLE_COULDNT_RESOLVE_PROXY:
            return URLError::make(URLErrorCode::cannotFindHost, detail);
        case CURLE_URL_MALFORMAT:
            return URLError::make(URLErrorCode::badURL, detail);
        case CURLE_TOO_MANY_REDIRECTS:
            return URLError::make(URLErrorCode::httpTooManyRedirects, detail);
        case CURLE_BAD_CONTENT_ENCODING:
            return URLError::make(URLErrorCode::cannotDecodeContentData, detail);
        case CURLE_PEER_FAILED_VERIFICATION:
            return URLError::make(URLErrorCode::serverCertificateUntrusted, detail);
        case CURLE_SSL_CONNECT_ERROR:
        case CURLE_SSL_CERTPROBLEM:
        case CURLE_SSL_CIPHER:
        case CURLE_SSL_CACERT_BADFILE:
        case CURLE_SSL_ISSUER_ERROR:
            return URLError::make(URLErrorCode::secureConnectionFailed, detail);
        // The scheme was checked before the transfer began, so an unsupported protocol here
        // means the server answered with something that is not HTTP (HTTP/0.9 or garbage).
        case CURLE_UNSUPPORTED_PROTOCOL:
        case CURLE_WEIRD_SERVER_REPLY:
        case CURLE_HTTP2:
        case CURLE_HTTP2_STREAM:
            return URLError::make(URLErrorCode::badServerResponse, detail);
        case CURLE_GOT_NOTHING:
        case CURLE_PARTIAL_FILE:
        case CURLE_RECV_ERROR:
        case CURLE_SEND_ERROR:
            return URLError::make(URLErrorCode::networkConnectionLost, detail);
        default:
            return URLError::make(URLErrorCode::unknown, detail);
    }
}

std::string versionText(long v) {
    switch (v) {
        case CURL_HTTP_VERSION_1_0:
            return "HTTP/1.0";
        case CURL_HTTP_VERSION_1_1:
            return "HTTP/1.1";
        case CURL_HTTP_VERSION_2_0:
            return "HTTP/2";
        case CURL_HTTP_VERSION_3:
            return "HTTP/3";
        default:
            return "HTTP/1.1";
    }
}

}  // namespace kestro::network::internal
