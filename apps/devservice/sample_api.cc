// The sample API: fixed answers that give demos real traffic to capture and mock.
#include <boost/beast/http/status.hpp>
#include <boost/beast/http/verb.hpp>
#include <boost/json/parse.hpp>

#include "devservice/api.h"
#include "devservice/api_internal.h"
#include "devservice/sample_image.h"

namespace kestro::devservice {
namespace http = boost::beast::http;
namespace json = boost::json;
using internal::jsonReply;

namespace {

struct SampleUser {
    int id;
    const char* name;
    const char* email;
    const char* role;
};

constexpr SampleUser kUsers[] = {
    {1, "Ada Lovelace", "ada@example.com", "admin"},
    {2, "Alan Turing", "alan@example.com", "editor"},
    {3, "Grace Hopper", "grace@example.com", "editor"},
    {4, "Edsger Dijkstra", "edsger@example.com", "viewer"},
    {5, "Barbara Liskov", "barbara@example.com", "viewer"},
};

json::object userJSON(const SampleUser& u) {
    return json::object{{"id", u.id}, {"name", u.name}, {"email", u.email}, {"role", u.role}};
}

}  // namespace

Reply ApiRouter::sample(const Request& request) const {
    const unsigned v = request.version();
    const auto target = internal::parseTarget(request.target());
    const auto& seg = target.segments;  // seg[0] == "sample"
    const std::string path = internal::joinPath(seg, 1);
    const bool get = request.method() == http::verb::get || request.method() == http::verb::head;

    if (path == "/users") {
        if (!get) return error(405, "only GET is allowed on /sample/users", v);
        json::array users;
        for (const auto& u : kUsers) users.push_back(userJSON(u));
        return jsonReply(200, users, v);
    }
    if (seg.size() == 3 && seg[1] == "users") {
        if (!get) return error(405, "only GET is allowed on /sample/users/{id}", v);
        const auto id = internal::parseInt<int>(seg[2]);
        for (const auto& u : kUsers) {
            if (id && u.id == *id) return jsonReply(200, userJSON(u), v);
        }
        return error(404, "no user with id " + seg[2], v);
    }
    if (path == "/login") {
        // A sign-in as applications make them: credentials in, a bearer token out. The token is
        // made from the user's name, so that a demo's captured traffic can be checked for it.
        if (request.method() != http::verb::post) {
            return error(405, "only POST is allowed on /sample/login", v);
        }
        boost::system::error_code ec;
        const json::value body = json::parse(request.body(), ec);
        const json::object* o = ec ? nullptr : body.if_object();
        const json::value* user = o ? o->if_contains("user") : nullptr;
        const json::value* password = o ? o->if_contains("password") : nullptr;
        if (!user || !user->is_string() || !password || !password->is_string() ||
            password->as_string().empty()) {
            return error(400, "/sample/login takes {\"user\": text, \"password\": text}", v);
        }
        const std::string name(user->as_string());
        return jsonReply(200, json::object{{"user", name}, {"token", "sample-token-of-" + name}},
                         v);
    }
    if (path == "/echo") {
        json::object headers;
        for (const auto& field : request) {
            headers[std::string(field.name_string())] = std::string(field.value());
        }
        json::object query;
        for (const auto& [k, val] : target.query) query[k] = val;
        boost::system::error_code ec;
        json::value parsed =
            request.body().empty() ? json::value(nullptr) : json::parse(request.body(), ec);
        if (ec) parsed = nullptr;
        return jsonReply(200,
                         json::object{{"method", std::string(request.method_string())},
                                      {"path", std::string(path)},
                                      {"query", std::move(query)},
                                      {"headers", std::move(headers)},
                                      {"body", request.body()},
                                      {"json", std::move(parsed)}},
                         v);
    }
    if (path == "/slow") {
        if (!get) return error(405, "only GET is allowed on /sample/slow", v);
        unsigned ms = 1000;
        if (auto text = target.param("ms")) {
            auto n = internal::parseInt<unsigned>(*text);
            if (!n || *n > context_.options.maxSlowMs) {
                return error(400,
                             "\"ms\" must be a whole number from 0 to " +
                                 std::to_string(context_.options.maxSlowMs),
                             v);
            }
            ms = *n;
        }
        Reply reply = jsonReply(200, json::object{{"delayedMs", ms}}, v);
        reply.delay = std::chrono::milliseconds(ms);
        return reply;
    }
    if (seg.size() == 3 && seg[1] == "status") {
        const auto code = internal::parseInt<unsigned>(seg[2]);
        if (!code || *code < 200 || *code > 599) {
            return error(400, "the status must be a number from 200 to 599", v);
        }
        const auto reason = http::obsolete_reason(http::int_to_status(*code));
        Reply reply;
        if (*code == 204 || *code == 304) {
            reply.response.version(v);
            reply.response.result(*code);
        } else {
            reply = jsonReply(*code,
                              json::object{{"status", *code},
                                           {"reason", std::string(reason.data(), reason.size())}},
                              v);
        }
        return reply;
    }
    if (path == "/image.png") {
        if (!get) return error(405, "only GET is allowed on /sample/image.png", v);
        Reply reply;
        reply.response.version(v);
        reply.response.result(http::status::ok);
        reply.response.set(http::field::content_type, "image/png");
        reply.response.set(http::field::cache_control, "max-age=3600");
        reply.response.body() = samplePNG();
        return reply;
    }
    return error(404, "no such endpoint: /sample" + std::string(path), v);
}

}  // namespace kestro::devservice
