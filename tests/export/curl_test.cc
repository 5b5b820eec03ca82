#include "kestro/export/curl.h"

#include <gtest/gtest.h>

#include "export/export_fixtures.h"
#include "kestro/network/body_text.h"
#include "support/http_server.h"

namespace kestro {
namespace {

using test::exchange;
using test::HttpServer;
using test::ReceivedRequest;

// Runs the command with /bin/sh as a user would paste it (no proxy, no curl settings file of
// the machine's user), against the loopback server the URL names.
int runInShell(const std::string& command, const std::filesystem::path& home) {
    return test::runProgram({"/usr/bin/env", "-u", "http_proxy", "-u", "HTTP_PROXY", "-u",
                             "all_proxy", "-u", "ALL_PROXY", "HOME=" + home.string(), "/bin/sh",
                             "-c", command});
}

// The command sends the record's method, headers and body, byte for byte.
void expectSent(const ReceivedRequest& got, const RequestTypeRequestDetailsRequest& request,
                const std::string& body) {
    EXPECT_EQ(got.method, request.method);
    for (const auto& [name, value] : request.headers) {
        if (name == "Content-Length") continue;
        EXPECT_EQ(got.header(name), value) << name;
    }
    EXPECT_EQ(got.body, body);
    // curl adds no form type of its own.
    if (!request.headers.contains("Content-Type")) {
        EXPECT_FALSE(got.header("Content-Type"));
    }
}

TEST(CurlCommandTest, ShellRunsItAsTheSameRequest) {
    HttpServer server;
    test::ExportDir home;
    std::string bytes;
    for (int i = 0; i < 256; ++i) bytes += static_cast<char>(i);
    bytes += "%s\\n'\"";

    std::vector<std::pair<RequestTypeRequest, std::string>> cases;
    // Quotes, a newline, a dollar and a backslash in the body and in header values; no type.
    cases.emplace_back(exchange("text", "POST", server.url("/it's?x=$HOME&y=`id`"),
                                {{"X-Note", "it's \"quoted\" $HOME \\ `id`"},
                                 {"X-Empty", ""},
                                 {"Content-Length", "999"}},
                                "line one\nit's 'two' \"three\" $(id) \\n\n"),
                       "line one\nit's 'two' \"three\" $(id) \\n\n");
    // A body of bytes (a cut body of a non-text type is carried as base64).
    auto binary = exchange("binary", "PUT", server.url("/upload"),
                           {{"Content-Type", "application/octet-stream"}}, base64Encode(bytes));
    binary.details.request->bodyTotalBytes = 1'000'000;
    cases.emplace_back(binary, bytes);
    // Text holding NUL cannot stand in a shell word; it goes the same way.
    cases.emplace_back(exchange("nul", "PATCH", server.url("/nul"),
                                {{"Content-Type", "text/plain"}}, std::string("a\0b", 3)),
                       std::string("a\0b", 3));
    cases.emplace_back(exchange("get", "GET", server.url("/plain"), {{"Accept", "*/*"}}, ""), "");
    cases.emplace_back(exchange("head", "HEAD", server.url("/head"), {}, ""), "");

    for (const auto& [record, body] : cases) {
        SCOPED_TRACE(record.id);
        const std::size_t before = server.requestCount();
        const std::string command = curlCommand(record);
        ASSERT_EQ(runInShell(command, home.path()), 0) << command;
        ASSERT_TRUE(server.waitForRequests(before + 1));
        const ReceivedRequest got = server.requests().back();
        expectSent(got, *record.details.request, body);
        if (record.id == "text") {
            EXPECT_EQ(got.target, "/it's?x=$HOME&y=`id`");
            EXPECT_EQ(got.header("X-Empty"), "");
        }
    }
}

TEST(CurlCommandTest, LayoutIsOneArgumentPerLine) {
    auto record = exchange("x", "POST", "http://127.0.0.1:1/a", {{"B", "2"}, {"A", "1"}}, "{}");
    EXPECT_EQ(curlCommand(record),
              "curl -X 'POST' 'http://127.0.0.1:1/a' \\\n"
              "  -H 'A: 1' \\\n"
              "  -H 'B: 2' \\\n"
              "  -H 'Content-Type:' \\\n"
              "  --data-raw '{}'");
    EXPECT_EQ(curlCommand(exchange("g", "GET", "http://127.0.0.1:1/", {}, "")),
              "curl 'http://127.0.0.1:1/'");
    // A record without its request half still gives a command that runs.
    EXPECT_EQ(curlCommand(RequestTypeRequest{}), "curl ''");
    EXPECT_EQ(shellQuote("it's"), "'it'\\''s'");
}

}  // namespace
}  // namespace kestro
