#include "kestro/network/internal/easy_handles.h"

#include <string>

#include "kestro/core/config.h"
#include "kestro/network/internal/transfer_callbacks.h"

namespace kestro::network::internal {

// The options every transfer shares. Set once per handle: a spare handle keeps them.
void EasyHandles::configure(CURL* e) {
    static const std::string userAgent = std::string("kestro/") + SDK_VERSION;
    curl_easy_setopt(e, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(e, CURLOPT_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(e, CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(e, CURLOPT_FOLLOWLOCATION, 1L);
    curl_easy_setopt(e, CURLOPT_AUTOREFERER, 1L);
    curl_easy_setopt(e, CURLOPT_ACCEPT_ENCODING, "");
    curl_easy_setopt(e, CURLOPT_WRITEFUNCTION, &onResponseBody);
    curl_easy_setopt(e, CURLOPT_HEADERFUNCTION, &onResponseHeader);
    curl_easy_setopt(e, CURLOPT_XFERINFOFUNCTION, &onTransferProgress);
    curl_easy_setopt(e, CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_2TLS));
    curl_easy_setopt(e, CURLOPT_USERAGENT, userAgent.c_str());
}

CURL* EasyHandles::take() {
    if (!spare_.empty()) {
        CURL* e = spare_.back();
        spare_.pop_back();
        return e;
    }
    CURL* e = curl_easy_init();
    if (e) configure(e);
    return e;
}

void EasyHandles::give(CURL* easy, bool needsReset) {
    if (spare_.size() >= kSpareEasyHandles) {
        curl_easy_cleanup(easy);
        return;
    }
    if (needsReset) {
        curl_easy_reset(easy);
        configure(easy);
    } else {
        // Nothing of the finished request stays reachable from the handle.
        curl_easy_setopt(easy, CURLOPT_ERRORBUFFER, static_cast<char*>(nullptr));
        curl_easy_setopt(easy, CURLOPT_HTTPHEADER, static_cast<curl_slist*>(nullptr));
        curl_easy_setopt(easy, CURLOPT_POSTFIELDS, static_cast<const char*>(nullptr));
        curl_easy_setopt(easy, CURLOPT_PRIVATE, static_cast<void*>(nullptr));
    }
    spare_.push_back(easy);
}

}  // namespace kestro::network::internal
