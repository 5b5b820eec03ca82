#include "devservice/auth.h"

#include <fcntl.h>
#include <sys/random.h>
#include <unistd.h>

#include <boost/asio/ip/address.hpp>
#include <cerrno>
#include <cstring>
#include <fstream>

namespace kestro::devservice {
namespace {

bool isHex(std::string_view text) {
    for (char c : text) {
        if (!((c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'))) return false;
    }
    return true;
}

std::string trimmed(std::string text) {
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r' || text.back() == ' ')) {
        text.pop_back();
    }
    return text;
}

bool equalsIgnoringCase(std::string_view a, std::string_view b) {
    if (a.size() != b.size()) return false;
    for (std::size_t i = 0; i < a.size(); ++i) {
        if (std::tolower(static_cast<unsigned char>(a[i])) !=
            std::tolower(static_cast<unsigned char>(b[i]))) {
            return false;
        }
    }
    return true;
}

constexpr std::size_t kTokenBytes = 32;

}  // namespace

std::string randomHex(std::size_t bytes) {
    std::string raw(bytes, '\0');
    std::size_t got = 0;
    while (got < bytes) {
        const ssize_t r = getrandom(raw.data() + got, bytes - got, 0);
        if (r < 0) {
            if (errno == EINTR) continue;
            // No way to make a secret: better to stop than to hand out a guessable one.
            std::abort();
        }
        got += static_cast<std::size_t>(r);
    }
    static const char* digits = "0123456789abcdef";
    std::string out;
    out.reserve(bytes * 2);
    for (unsigned char c : raw) {
        out.push_back(digits[c >> 4]);
        out.push_back(digits[c & 15]);
    }
    return out;
}

std::string newApiKey() { return "kt-dev-" + randomHex(16); }

std::optional<std::string> readToken(const std::filesystem::path& directory, std::string* error) {
    const auto file = directory / kTokenFileName;
    std::ifstream in(file);
    if (!in) {
        if (error) {
            *error = "there is no dashboard token in " + directory.string() +
                     " (the service makes it at its first start; --data-dir names another "
                     "directory)";
        }
        return std::nullopt;
    }
    std::string token;
    std::getline(in, token);
    token = trimmed(token);
    if (token.size() != kTokenBytes * 2 || !isHex(token)) {
        if (error) *error = file.string() + " does not hold a dashboard token";
        return std::nullopt;
    }
    return token;
}

std::optional<std::string> loadOrCreateToken(const std::filesystem::path& directory, bool* created,
                                             std::string* error) {
    if (created) *created = false;
    const auto file = directory / kTokenFileName;
    if (std::filesystem::exists(file)) return readToken(directory, error);
    const std::string token = randomHex(kTokenBytes);
    // Made with its final mode, so that the token is never readable by others, even briefly.
    const int fd = ::open(file.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (fd < 0) {
        if (error) *error = "cannot write " + file.string() + ": " + std::strerror(errno);
        return std::nullopt;
    }
    const std::string line = token + "\n";
    const bool written = ::write(fd, line.data(), line.size()) == static_cast<ssize_t>(line.size());
    const bool synced = ::fsync(fd) == 0;
    ::close(fd);
    if (!written || !synced) {
        std::filesystem::remove(file);
        if (error) *error = "cannot write " + file.string();
        return std::nullopt;
    }
    if (created) *created = true;
    return token;
}

bool sameSecret(std::string_view a, std::string_view b) {
    // The length of a secret is no secret: every key and token of a kind has the same length.
    if (a.size() != b.size()) return false;
    unsigned char diff = 0;
    for (std::size_t i = 0; i < a.size(); ++i) {
        diff |= static_cast<unsigned char>(a[i]) ^ static_cast<unsigned char>(b[i]);
    }
    return diff == 0;
}

std::optional<std::string_view> bearerToken(std::string_view authorization) {
    constexpr std::string_view scheme = "bearer ";
    if (authorization.size() <= scheme.size() ||
        !equalsIgnoringCase(authorization.substr(0, scheme.size()), scheme)) {
        return std::nullopt;
    }
    auto token = authorization.substr(scheme.size());
    while (!token.empty() && token.front() == ' ') token.remove_prefix(1);
    while (!token.empty() && token.back() == ' ') token.remove_suffix(1);
    if (token.empty()) return std::nullopt;
    return token;
}

OfferedProtocols offeredProtocols(std::string_view header) {
    OfferedProtocols offered;
    while (!header.empty()) {
        const auto comma = header.find(',');
        auto item = header.substr(0, comma);
        header = comma == std::string_view::npos ? std::string_view() : header.substr(comma + 1);
        while (!item.empty() && (item.front() == ' ' || item.front() == '\t'))
            item.remove_prefix(1);
        while (!item.empty() && (item.back() == ' ' || item.back() == '\t')) item.remove_suffix(1);
        if (item == kLiveProtocol) offered.live = true;
        if (item.starts_with(kTokenProtocolPrefix)) {
            offered.token = item.substr(kTokenProtocolPrefix.size());
        }
    }
    return offered;
}

bool sameOrigin(std::string_view origin, std::string_view host, bool tls) {
    const std::string_view scheme = tls ? "https://" : "http://";
    if (host.empty() || origin.size() != scheme.size() + host.size()) return false;
    return equalsIgnoringCase(origin.substr(0, scheme.size()), scheme) &&
           equalsIgnoringCase(origin.substr(scheme.size()), host);
}

std::optional<std::string> reachWarning(const std::string& address, bool tls) {
    if (tls) return std::nullopt;
    boost::system::error_code ec;
    const auto parsed = boost::asio::ip::make_address(address, ec);
    if (!ec && parsed.is_loopback()) return std::nullopt;
    return "⚠️ Listening on " + address +
           " without TLS: other machines can reach the service, and API keys, the dashboard "
           "token and every captured header and body cross the network readable. Give "
           "--tls-cert and --tls-key, or listen on 127.0.0.1.";
}

std::string dashboardAddress(const std::string& base, const std::string& token) {
    return base + "/#token=" + token;
}

}  // namespace kestro::devservice
