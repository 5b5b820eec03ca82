#include "kestro/network/internal/trust_store.h"

#include <cstdlib>
#include <fstream>
#include <sstream>

#include "kestro/core/console.h"

namespace kestro::network::internal {

namespace {

std::string readCAFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        printI("❌ Could not read the trusted certificate file " + path, LogLevel::error);
        return {};
    }
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

// libcurl's built-in bundle and folder, as it was built.
const SystemTrustStore& builtInStore() {
    static const SystemTrustStore store = [] {
        SystemTrustStore s;
        if (CURL* e = curl_easy_init()) {
            char* file = nullptr;
            char* folder = nullptr;
            if (curl_easy_getinfo(e, CURLINFO_CAINFO, &file) == CURLE_OK && file) s.file = file;
            if (curl_easy_getinfo(e, CURLINFO_CAPATH, &folder) == CURLE_OK && folder) {
                s.folder = folder;
            }
            curl_easy_cleanup(e);
        }
        return s;
    }();
    return store;
}

}  // namespace

SystemTrustStore systemTrustStore() {
    SystemTrustStore store = builtInStore();
    if (const char* file = std::getenv("SSL_CERT_FILE"); file && *file) {
        store.file = file;
        store.named = true;
    }
    if (const char* folder = std::getenv("SSL_CERT_DIR"); folder && *folder) {
        store.folder = folder;
        store.named = true;
    }
    return store;
}

SessionTrust makeSessionTrust(const URLSessionConfiguration& cfg) {
    SessionTrust trust;
    trust.system = systemTrustStore();
    if (cfg.additionalTrustedCAFile) trust.extraPEM = readCAFile(*cfg.additionalTrustedCAFile);
    if (cfg.additionalTrustedCAPEM) {
        if (!trust.extraPEM.empty() && trust.extraPEM.back() != '\n') trust.extraPEM += '\n';
        trust.extraPEM += *cfg.additionalTrustedCAPEM;
    }
    return trust;
}

void applyTrust(CURL* e, const SessionTrust& trust) {
    const SystemTrustStore& system = trust.system;
    curl_easy_setopt(e, CURLOPT_CAPATH, system.folder.empty() ? nullptr : system.folder.c_str());
    if (trust.extraPEM.empty()) {
        curl_easy_setopt(e, CURLOPT_CAINFO, system.file.empty() ? nullptr : system.file.c_str());
        return;
    }
    curl_blob blob{const_cast<char*>(trust.extraPEM.data()), trust.extraPEM.size(),
                   CURL_BLOB_NOCOPY};
    curl_easy_setopt(e, CURLOPT_CAINFO_BLOB, &blob);
}

}  // namespace kestro::network::internal
