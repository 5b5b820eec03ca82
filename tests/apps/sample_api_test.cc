// The sample API that gives demos real traffic to capture and mock.
#include <gtest/gtest.h>
#include <zlib.h>

#include <boost/json.hpp>
#include <chrono>

#include "devservice/sample_image.h"
#include "service_fixture.h"

namespace kestro::test {
namespace {
namespace json = boost::json;

using SampleApiTest = ServiceFixture;

std::uint32_t bigEndian32(const std::string& s, std::size_t at) {
    return (static_cast<std::uint32_t>(static_cast<unsigned char>(s[at])) << 24) |
           (static_cast<std::uint32_t>(static_cast<unsigned char>(s[at + 1])) << 16) |
           (static_cast<std::uint32_t>(static_cast<unsigned char>(s[at + 2])) << 8) |
           static_cast<std::uint32_t>(static_cast<unsigned char>(s[at + 3]));
}

TEST_F(SampleApiTest, UsersAreServedAsJSON) {
    auto all = get("/sample/users");
    ASSERT_EQ(all.status, 200u);
    EXPECT_EQ(all.header("content-type"), "application/json; charset=utf-8");
    const auto body = all.json();
    const auto& users = body.as_array();
    ASSERT_EQ(users.size(), 5u);
    for (const auto& u : users) {
        EXPECT_TRUE(u.at("id").is_int64());
        EXPECT_TRUE(u.at("name").is_string());
    }
    auto one = get("/sample/users/3");
    ASSERT_EQ(one.status, 200u);
    EXPECT_EQ(one.json().at("name"), "Grace Hopper");
    for (const char* missing : {"/sample/users/99", "/sample/users/abc", "/sample/nothing"}) {
        auto r = get(missing);
        EXPECT_EQ(r.status, 404u) << missing;
        EXPECT_TRUE(r.json().at("error").is_string()) << missing;
    }
    EXPECT_EQ(httpRequest(port_, "DELETE", "/sample/users").status, 405u);
    // HEAD gives the GET answer's length and no body.
    auto head = httpRequest(port_, "HEAD", "/sample/users");
    EXPECT_EQ(head.status, 200u);
    EXPECT_EQ(head.header("content-length"), std::to_string(all.body.size()));
}

TEST_F(SampleApiTest, EchoReturnsWhatWasSent) {
    auto r = httpRequest(port_, "POST", "/sample/echo?x=1&y=two", R"({"hello":[1,2]})",
                         {{"Content-Type", "application/json"}, {"X-Trace", "abc"}});
    ASSERT_EQ(r.status, 200u);
    const auto body = r.json();
    EXPECT_EQ(body.at("method"), "POST");
    EXPECT_EQ(body.at("path"), "/echo");
    EXPECT_EQ(body.at("query").at("y"), "two");
    EXPECT_EQ(body.at("headers").at("X-Trace"), "abc");
    EXPECT_EQ(body.at("body"), R"({"hello":[1,2]})");
    EXPECT_EQ(body.at("json"), json::parse(R"({"hello":[1,2]})"));

    auto text = httpRequest(port_, "PUT", "/sample/echo", "plain words");
    EXPECT_EQ(text.json().at("body"), "plain words");
    EXPECT_TRUE(text.json().at("json").is_null());
}

TEST_F(SampleApiTest, LoginTradesCredentialsForAToken) {
    auto ok = httpRequest(port_, "POST", "/sample/login", R"({"user":"ann","password":"pw"})",
                          {{"Content-Type", "application/json"}});
    ASSERT_EQ(ok.status, 200u);
    EXPECT_EQ(ok.json(), json::parse(R"({"user":"ann","token":"sample-token-of-ann"})"));
    for (const char* body :
         {R"({"user":"ann"})", R"({"user":"ann","password":""})", R"({"user":1,"password":"x"})",
          "[]", "not json"}) {
        EXPECT_EQ(httpRequest(port_, "POST", "/sample/login", body).status, 400u) << body;
    }
    EXPECT_EQ(get("/sample/login").status, 405u);
}

TEST_F(SampleApiTest, StatusAndSlowEndpoints) {
    auto teapot = get("/sample/status/418");
    EXPECT_EQ(teapot.status, 418u);
    EXPECT_EQ(teapot.json().at("status"), 418);
    auto unavailable = get("/sample/status/503");
    EXPECT_EQ(unavailable.status, 503u);
    EXPECT_EQ(unavailable.json().at("reason"), "Service Unavailable");
    auto empty = get("/sample/status/204");
    EXPECT_EQ(empty.status, 204u);
    EXPECT_TRUE(empty.body.empty());
    for (const char* bad : {"/sample/status/99", "/sample/status/600", "/sample/status/x"}) {
        EXPECT_EQ(get(bad).status, 400u) << bad;
    }

    const auto start = std::chrono::steady_clock::now();
    auto slow = get("/sample/slow?ms=120");
    const auto took = std::chrono::steady_clock::now() - start;
    EXPECT_EQ(slow.status, 200u);
    EXPECT_EQ(slow.json().at("delayedMs"), 120);
    EXPECT_GE(took, std::chrono::milliseconds(120));
    // The bound is the fixture's 2000 ms.
    EXPECT_EQ(get("/sample/slow?ms=2001").status, 400u);
    EXPECT_EQ(get("/sample/slow?ms=-5").status, 400u);
}

TEST_F(SampleApiTest, ImageIsARealPNG) {
    auto r = get("/sample/image.png");
    ASSERT_EQ(r.status, 200u);
    EXPECT_EQ(r.header("content-type"), "image/png");
    const std::string& png = r.body;
    EXPECT_EQ(png, devservice::samplePNG());
    ASSERT_GT(png.size(), 8u + 25u);
    ASSERT_EQ(png.substr(0, 8), std::string("\x89PNG\r\n\x1a\n", 8));

    // Walk the chunks: each CRC must match, IHDR says 64 × 64 RGB, IDAT inflates to the rows.
    std::size_t at = 8;
    std::string idat;
    std::vector<std::string> types;
    for (int guard = 0; guard < 16 && at + 12 <= png.size(); ++guard) {
        const auto length = bigEndian32(png, at);
        ASSERT_LE(at + 12 + length, png.size());
        const std::string type = png.substr(at + 4, 4);
        types.push_back(type);
        const std::string data = png.substr(at + 8, length);
        uLong crc = crc32(0L, Z_NULL, 0);
        crc = crc32(crc, reinterpret_cast<const Bytef*>(png.data() + at + 4), 4 + length);
        EXPECT_EQ(bigEndian32(png, at + 8 + length), static_cast<std::uint32_t>(crc)) << type;
        if (type == "IHDR") {
            EXPECT_EQ(bigEndian32(data, 0), 64u);
            EXPECT_EQ(bigEndian32(data, 4), 64u);
            EXPECT_EQ(data[8], 8);  // bit depth
            EXPECT_EQ(data[9], 2);  // RGB
        }
        if (type == "IDAT") idat += data;
        at += 12 + length;
    }
    EXPECT_EQ(types, (std::vector<std::string>{"IHDR", "IDAT", "IEND"}));
    std::string rows(64 * (1 + 64 * 3), '\0');
    uLongf rowsSize = rows.size();
    ASSERT_EQ(uncompress(reinterpret_cast<Bytef*>(rows.data()), &rowsSize,
                         reinterpret_cast<const Bytef*>(idat.data()), idat.size()),
              Z_OK);
    EXPECT_EQ(rowsSize, rows.size());
}

TEST(SampleImage, EncoderRefusesPixelsThatDoNotMatchTheSize) {
    EXPECT_TRUE(devservice::encodePNG(2, 2, std::string(11, '\0')).empty());
    EXPECT_TRUE(devservice::encodePNG(0, 2, {}).empty());
    EXPECT_FALSE(devservice::encodePNG(2, 2, std::string(12, '\0')).empty());
}

}  // namespace
}  // namespace kestro::test
