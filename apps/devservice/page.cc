#include "devservice/page.h"

#include <boost/beast/http/field.hpp>
#include <boost/beast/http/verb.hpp>
#include <boost/json/serialize.hpp>
#include <boost/url/parse.hpp>
#include <string>
#include <vector>

namespace kestro::devservice {
namespace http = boost::beast::http;

namespace {

// The page loads only its own files and talks only to its own origin (the API and the push
// channel); images of captured bodies are shown from blob: addresses the page makes itself.
// Nothing may frame it, and forms and <base> are of no use to it.
constexpr const char* kContentSecurityPolicy =
    "default-src 'none'; script-src 'self'; style-src 'self'; img-src 'self' blob:; "
    "connect-src 'self'; worker-src 'self'; base-uri 'none'; form-action 'none'; "
    "frame-ancestors 'none'";

std::string_view contentType(std::string_view path) {
    if (path.ends_with(".html")) return "text/html; charset=utf-8";
    if (path.ends_with(".js")) return "text/javascript; charset=utf-8";
    if (path.ends_with(".css")) return "text/css; charset=utf-8";
    if (path.ends_with(".svg")) return "image/svg+xml";
    if (path.ends_with(".png")) return "image/png";
    return "application/octet-stream";
}

const EmbeddedFile* findFile(std::string_view path) {
    for (std::size_t i = 0; i < kEmbeddedFileCount; ++i) {
        if (kEmbeddedFiles[i].path == path) return &kEmbeddedFiles[i];
    }
    return nullptr;
}

Reply plain(const Request& request, http::status status, std::string message) {
    Reply reply;
    reply.response.version(request.version());
    reply.response.result(status);
    reply.response.set(http::field::content_type, "application/json; charset=utf-8");
    reply.response.body() = boost::json::serialize(boost::json::object{{"error", message}});
    reply.note = std::move(message);
    return reply;
}

}  // namespace

std::optional<Reply> servePage(const Request& request) {
    const auto parsed = boost::urls::parse_uri_reference(request.target());
    if (!parsed) return std::nullopt;
    std::vector<std::string> segments;
    for (auto segment : parsed->segments()) {
        if (!segment.empty()) segments.push_back(segment);
    }
    std::string path;
    if (segments.empty()) {
        path = "index.html";
    } else if (segments.size() == 2 && segments[0] == "app") {
        path = segments[1];
    } else if (segments[0] == "app") {
        return plain(request, http::status::not_found, "no such file of the page");
    } else {
        return std::nullopt;
    }

    if (request.method() != http::verb::get && request.method() != http::verb::head) {
        Reply reply = plain(request, http::status::method_not_allowed, "only GET is allowed here");
        reply.response.set(http::field::allow, "GET, HEAD");
        return reply;
    }
    const EmbeddedFile* file = findFile(path);
    if (!file) {
        return plain(request, http::status::not_found, "no such file of the page: " + path);
    }

    Reply reply;
    auto& res = reply.response;
    res.version(request.version());
    const std::string etag = "\"" + std::string(file->tag) + "\"";
    res.set(http::field::etag, etag);
    // Always revalidated, so that a new build's page is never mixed with an old one's modules.
    res.set(http::field::cache_control, "no-cache");
    res.set("Content-Security-Policy", kContentSecurityPolicy);
    res.set("X-Content-Type-Options", "nosniff");
    res.set("Referrer-Policy", "no-referrer");
    if (auto it = request.find(http::field::if_none_match);
        it != request.end() && it->value() == etag) {
        res.result(http::status::not_modified);
        return reply;
    }
    res.result(http::status::ok);
    res.set(http::field::content_type, contentType(path));
    res.body() = std::string(file->bytes);
    reply.note = path;
    return reply;
}

}  // namespace kestro::devservice
