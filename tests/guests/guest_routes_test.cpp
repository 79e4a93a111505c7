#include "guests/guest_routes.h"

#include <gtest/gtest.h>

namespace vt::guests {
namespace {

TEST(RequestCheck, OnlyABareDottedQuadPassesAsHost) {
    EXPECT_TRUE(isAllowed("192.168.1.20", std::nullopt, false));
    EXPECT_TRUE(isAllowed("192.168.1.20:7766", std::nullopt, false));
    EXPECT_FALSE(isAllowed(std::nullopt, std::nullopt, false));
    // A name, even one that points here, is what a re-bound attack page uses.
    EXPECT_FALSE(isAllowed("localhost", std::nullopt, true));
    EXPECT_FALSE(isAllowed("evil.example:7766", std::nullopt, false));
    EXPECT_FALSE(isAllowed("192.168.1", std::nullopt, false));
    EXPECT_FALSE(isAllowed("192.168.1.20.5", std::nullopt, false));
    EXPECT_FALSE(isAllowed("192.168.1.256", std::nullopt, false));
    EXPECT_FALSE(isAllowed("192.168.1.0020", std::nullopt, false));
    EXPECT_FALSE(isAllowed("192.168..20", std::nullopt, false));
    EXPECT_FALSE(isAllowed("192.168.1.20:", std::nullopt, false));
    EXPECT_FALSE(isAllowed("192.168.1.20:65536", std::nullopt, false));
    EXPECT_FALSE(isAllowed("192.168.1.20:123456", std::nullopt, false));
    EXPECT_FALSE(isAllowed("192.168.1.20:+80", std::nullopt, false));
}

TEST(RequestCheck, LoopbackOnlyWhenAllowed) {
    EXPECT_FALSE(isAllowed("127.0.0.1:7766", std::nullopt, false));
    EXPECT_FALSE(isAllowed("127.1.2.3", std::nullopt, false));
    EXPECT_TRUE(isAllowed("127.0.0.1:7766", std::nullopt, true));
}

TEST(RequestCheck, OriginMustNameTheSameAddressAndPort) {
    EXPECT_TRUE(isAllowed("10.0.0.2:7766", "http://10.0.0.2:7766", false));
    EXPECT_FALSE(isAllowed("10.0.0.2:7766", "http://evil.example", false));
    EXPECT_FALSE(isAllowed("10.0.0.2:7766", "http://10.0.0.2:7767", false));
    EXPECT_FALSE(isAllowed("10.0.0.2:7766", "https://10.0.0.2:7766", false));
    EXPECT_FALSE(isAllowed("10.0.0.2:7766", "null", false));
}

net::HTTPRequest get(std::string path, bool upgrade = false) {
    net::HTTPRequest r;
    r.method = "GET";
    r.path = std::move(path);
    if (upgrade) {
        r.headers["upgrade"] = "websocket";
        r.headers["sec-websocket-key"] = "dGhlIHNhbXBsZSBub25jZQ==";
    }
    return r;
}

TEST(GuestRoutes, PageEndpointsAndFiles) {
    using K = GuestRoute::Kind;
    EXPECT_EQ(routeFor(get("/")).file, "index.html");
    EXPECT_EQ(routeFor(get("/join")).file, "index.html");
    auto css = routeFor(get("/guest.css"));
    EXPECT_EQ(css.kind, K::file);
    EXPECT_EQ(css.file, "guest.css");
    auto socket = routeFor(get("/guest/abcdefgh-12/sendspin", true));
    EXPECT_EQ(socket.kind, K::sendspin);
    EXPECT_EQ(socket.clientID, "abcdefgh-12");
    EXPECT_EQ(routeFor(get("/guest/abcdefgh-12/status")).kind, K::status);
    EXPECT_EQ(routeFor(get("/guest/abcdefgh-12/party")).kind, K::party);
}

TEST(GuestRoutes, EverythingOutsideTheFlatFolderIsNotFound) {
    using K = GuestRoute::Kind;
    // A short id, or a socket request that is no upgrade, is only a (bad) file name.
    EXPECT_EQ(routeFor(get("/guest/abcdefg/status")).kind, K::notFound);
    EXPECT_EQ(routeFor(get("/guest/abcdefgh-12/sendspin")).kind, K::notFound);
    EXPECT_EQ(routeFor(get("/guest/abcdefgh-12/other")).kind, K::notFound);
    EXPECT_EQ(routeFor(get("/a..b")).kind, K::notFound);
    EXPECT_EQ(routeFor(get("/../etc/passwd")).kind, K::notFound);
    EXPECT_EQ(routeFor(get("/sub/file.js")).kind, K::notFound);
    EXPECT_EQ(routeFor(get("/.hidden")).kind, K::notFound);
    EXPECT_EQ(routeFor(get("/%2e%2e")).kind, K::notFound);
    auto post = get("/join");
    post.method = "POST";
    EXPECT_EQ(routeFor(post).kind, K::notFound);
}

TEST(GuestRoutes, ContentTypesGoByExactExtension) {
    EXPECT_EQ(contentType("index.html"), "text/html; charset=utf-8");
    EXPECT_EQ(contentType("guest.js"), "text/javascript; charset=utf-8");
    EXPECT_EQ(contentType("a.woff2"), "font/woff2");
    EXPECT_EQ(contentType("INDEX.HTML"), "application/octet-stream");
    EXPECT_EQ(contentType("README"), "application/octet-stream");
}

}  // namespace
}  // namespace vt::guests
