#include "kestro/network/internal/trust_store.h"

#include <cstdlib>
#include <fstream>
#include <sstream>

#include "kestro/core/console.h"

namespace kestro::network::internal {

namespace {

std::string readCAFile(const std::string& path, bool reportFailure) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        if (reportFailure) {
            printI("❌ Could not read the trusted certificate file " + path, LogLevel::error);
        }
        return {};
    }
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

// PEM texts are joined with a line break between them.
void appendPEM(std::string& bundle, const std::string& pem) {
    if (pem.empty()) return;
    if (!bundle.empty() && bundle.back() != '\n') bundle += '\n';
    bundle += pem;
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
    const SystemTrustStore& builtIn = builtInStore();
    SystemTrustStore store = builtIn;
    if (const char* file = std::getenv("SSL_CERT_FILE"); file && *file) store.file = file;
    if (const char* folder = std::getenv("SSL_CERT_DIR"); folder && *folder) store.folder = folder;
    store.differsFromBuiltIn = store.file != builtIn.file || store.folder != builtIn.folder;
    return store;
}

SessionTrust makeSessionTrust(const URLSessionConfiguration& cfg) {
    SessionTrust trust;
    trust.system = systemTrustStore();
    std::string extra;
    if (cfg.additionalTrustedCAFile) extra = readCAFile(*cfg.additionalTrustedCAFile, true);
    if (cfg.additionalTrustedCAPEM) appendPEM(extra, *cfg.additionalTrustedCAPEM);
    if (extra.empty()) return trust;
    // A system with a folder only (or a bundle that cannot be read) adds nothing here; its
    // folder still applies.
    if (!trust.system.file.empty()) trust.bundleWithExtras = readCAFile(trust.system.file, false);
    appendPEM(trust.bundleWithExtras, extra);
    return trust;
}

void applyTrust(CURL* e, const SessionTrust& trust) {
    const SystemTrustStore& system = trust.system;
    curl_easy_setopt(e, CURLOPT_CAPATH, system.folder.empty() ? nullptr : system.folder.c_str());
    if (trust.bundleWithExtras.empty()) {
        curl_easy_setopt(e, CURLOPT_CAINFO, system.file.empty() ? nullptr : system.file.c_str());
        return;
    }
    curl_blob blob{const_cast<char*>(trust.bundleWithExtras.data()), trust.bundleWithExtras.size(),
                   CURL_BLOB_NOCOPY};
    curl_easy_setopt(e, CURLOPT_CAINFO_BLOB, &blob);
}

}  // namespace kestro::network::internal
