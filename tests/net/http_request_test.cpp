#include "net/http_request.h"

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <string>

#include "net/http_response.h"
#include "net/listen_port.h"
#include "socket_pair.h"

namespace vt::net {
namespace {

TEST(HTTPRequestParse, ReadsMethodPathDecodedQueryAndHeaders) {
    const auto request = HTTPRequest::parse(
        "GET  /guest/ab%20c?name=J%C3%BCrgen&flag&=skipped&x=1&x=2&bad=%zz HTTP/1.1\r\n"
        "Host:  example \r\nUPGRADE: WebSocket\r\nno colon here\r\nSec-WebSocket-Key: k==\r\n"
        "X-Empty:\r\nx-empty: later");
    ASSERT_TRUE(request);
    EXPECT_EQ(request->method, "GET");
    EXPECT_EQ(request->path, "/guest/ab%20c");  // the path itself is not decoded
    EXPECT_EQ(request->query.at("name"), "J\xC3\xBCrgen");
    EXPECT_EQ(request->query.at("flag"), "");
    EXPECT_EQ(request->query.at("x"), "2");
    EXPECT_EQ(request->query.at("bad"), "%zz");
    EXPECT_FALSE(request->query.contains(""));
    EXPECT_EQ(request->headers.at("host"), "example");
    EXPECT_EQ(request->headers.at("x-empty"), "later");
    EXPECT_TRUE(request->isWebSocketUpgrade());
}

TEST(HTTPRequestParse, RefusesAHeaderThatMayComeOnceComingTwice) {
    for (const char* name : {"Host", "Origin", "Upgrade", "Sec-WebSocket-Key"}) {
        const std::string twice =
            std::string("GET / HTTP/1.1\r\n") + name + ": 10.0.0.2\r\n" + name + ": 10.0.0.3";
        EXPECT_FALSE(HTTPRequest::parse(twice)) << name;
    }
    EXPECT_TRUE(HTTPRequest::parse("GET / HTTP/1.1\r\nAccept: a\r\nAccept: b"));
}

TEST(HTTPRequestParse, RefusesShortRequestLinesAndBadUtf8) {
    EXPECT_FALSE(HTTPRequest::parse(""));
    EXPECT_FALSE(HTTPRequest::parse("GET"));
    EXPECT_FALSE(HTTPRequest::parse("   \r\nHost: x"));
    EXPECT_FALSE(HTTPRequest::parse("GET /\xff HTTP/1.1"));
    EXPECT_TRUE(HTTPRequest::parse("GET /"));
}

TEST(HTTPRequestParse, UpgradeNeedsBothTheWordAndAKey) {
    EXPECT_FALSE(HTTPRequest::parse("GET / HTTP/1.1\r\nUpgrade: websocket")->isWebSocketUpgrade());
    EXPECT_FALSE(HTTPRequest::parse("GET / HTTP/1.1\r\nUpgrade: h2c\r\nSec-WebSocket-Key: a")
                     ->isWebSocketUpgrade());
    // Connection is not looked at.
    EXPECT_TRUE(HTTPRequest::parse("GET / HTTP/1.1\r\nConnection: close\r\nUpgrade: websocket\r\n"
                                   "Sec-WebSocket-Key: a")
                    ->isWebSocketUpgrade());
}

TEST(HTTPHeadBuffer, AcceptsAHeadOfExactlyTheLimitAndRefusesOneMore) {
    const std::string start = "GET / HTTP/1.1\r\nX: ";
    std::string exact = start + std::string(kMaxHeadBytes - start.size() - 4, 'a') + "\r\n\r\n";
    ASSERT_EQ(exact.size(), kMaxHeadBytes);
    HTTPHeadBuffer fits;
    HTTPHeadBuffer::State state = HTTPHeadBuffer::State::needMore;
    for (size_t at = 0; at < exact.size() && state == HTTPHeadBuffer::State::needMore;) {
        const size_t n = std::min(fits.nextReadSize(), exact.size() - at);
        state = fits.append(std::string_view(exact).substr(at, n));
        at += n;
    }
    EXPECT_EQ(state, HTTPHeadBuffer::State::complete);

    HTTPHeadBuffer over;
    const std::string endless(kMaxHeadBytes + 1, 'a');
    state = HTTPHeadBuffer::State::needMore;
    size_t at = 0;
    while (state == HTTPHeadBuffer::State::needMore && at < endless.size()) {
        const size_t n = std::min(over.nextReadSize(), endless.size() - at);
        state = over.append(std::string_view(endless).substr(at, n));
        at += n;
    }
    EXPECT_EQ(state, HTTPHeadBuffer::State::tooLarge);
    EXPECT_EQ(over.nextReadSize(), 0u);
}

TEST(HTTPHeadBuffer, FindsATerminatorSplitAcrossReadsAndKeepsTheLeftover) {
    HTTPHeadBuffer head;
    EXPECT_EQ(head.append("GET / HTTP/1.1\r\n\r"), HTTPHeadBuffer::State::needMore);
    EXPECT_EQ(head.append("\nframe"), HTTPHeadBuffer::State::complete);
    EXPECT_EQ(head.head(), "GET / HTTP/1.1");
    EXPECT_EQ(head.leftover(), "frame");
}

TEST(ReadHTTPRequest, AnswersOversizeWith431AndMalformedWith400) {
    {
        testing::SocketPair pair;
        const std::string flood(kMaxHeadBytes + 10, 'a');
        ASSERT_TRUE(HTTPResponse::writeAll(pair.theirs, flood));
        const auto result = readHTTPRequest(pair.ours, 5.0);
        EXPECT_EQ(result.outcome, HeadReadResult::Outcome::tooLarge);
        shutdown(pair.ours, SHUT_WR);
        EXPECT_EQ(pair.drainTheirs(),
                  "HTTP/1.1 431 Request Header Fields Too Large\r\nContent-Length: 0\r\n"
                  "Cache-Control: no-store\r\nConnection: close\r\n\r\n");
    }
    {
        testing::SocketPair pair;
        ASSERT_TRUE(HTTPResponse::writeAll(pair.theirs, "GARBAGE\r\n\r\n"));
        const auto result = readHTTPRequest(pair.ours, 5.0);
        EXPECT_EQ(result.outcome, HeadReadResult::Outcome::malformed);
        shutdown(pair.ours, SHUT_WR);
        EXPECT_EQ(pair.drainTheirs().substr(0, 24), "HTTP/1.1 400 Bad Request");
    }
}

TEST(ReadHTTPRequest, GivesUpSilentlyWhenTheDeadlinePassesOrThePeerLeaves) {
    {
        testing::SocketPair pair;
        ASSERT_TRUE(HTTPResponse::writeAll(pair.theirs, "GET / HTTP/1.1\r\n"));
        // Each look at the clock finds three seconds gone: the second read is past the deadline.
        double fake = 100;
        const auto result = readHTTPRequest(pair.ours, 5.0, [&] { return fake += 3; });
        EXPECT_EQ(result.outcome, HeadReadResult::Outcome::timedOut);
        shutdown(pair.ours, SHUT_WR);
        EXPECT_EQ(pair.drainTheirs(), "");
    }
    {
        testing::SocketPair pair;
        ASSERT_TRUE(HTTPResponse::writeAll(pair.theirs, "GET / HT"));
        shutdown(pair.theirs, SHUT_WR);
        EXPECT_EQ(readHTTPRequest(pair.ours, 5.0).outcome, HeadReadResult::Outcome::peerGone);
    }
}

TEST(ReadHTTPRequest, ReturnsBytesPastTheHead) {
    testing::SocketPair pair;
    ASSERT_TRUE(HTTPResponse::writeAll(
        pair.theirs, std::string("GET /sendspin?a=b HTTP/1.1\r\n\r\n\x81\x00", 32)));
    const auto result = readHTTPRequest(pair.ours, 5.0);
    ASSERT_EQ(result.outcome, HeadReadResult::Outcome::request);
    EXPECT_EQ(result.request->path, "/sendspin");
    EXPECT_EQ(result.leftover, std::string("\x81\x00", 2));
}

TEST(HTTPResponse, FormatsStatusAndUpgrade) {
    EXPECT_EQ(HTTPResponse::status(200, "OK", "text/plain", "hi"),
              "HTTP/1.1 200 OK\r\nContent-Type: text/plain\r\nContent-Length: 2\r\n"
              "Cache-Control: no-store\r\nConnection: close\r\n\r\nhi");
    EXPECT_EQ(HTTPResponse::upgrade(" dGhlIHNhbXBsZSBub25jZQ== "),
              "HTTP/1.1 101 Switching Protocols\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
              "Sec-WebSocket-Accept: s3pPLMBiTxaQ9kYGzzhZRbK+xOo=\r\n\r\n");
}

TEST(ListenPort, AcceptsDecimalsInRangeWithAnOptionalPlus) {
    EXPECT_EQ(parsePort("8927"), 8927);
    EXPECT_EQ(parsePort("+80"), 80);
    EXPECT_EQ(parsePort("0"), 0);
    EXPECT_EQ(parsePort("65535"), 65535);
    EXPECT_FALSE(parsePort("65536"));
    EXPECT_FALSE(parsePort(""));
    EXPECT_FALSE(parsePort("-1"));
    EXPECT_FALSE(parsePort("80a"));
    EXPECT_FALSE(parsePort("++80"));
    setenv("VT_TEST_PORT", "65536", 1);
    EXPECT_EQ(listenPortFromEnv("VT_TEST_PORT"), 0);
    EXPECT_EQ(advertisedPortFromEnv("VT_TEST_PORT", 4321), 4321);
    setenv("VT_TEST_PORT", "+7000", 1);
    EXPECT_EQ(advertisedPortFromEnv("VT_TEST_PORT", 4321), 7000);
    unsetenv("VT_TEST_PORT");
    EXPECT_EQ(advertisedPortFromEnv("VT_TEST_PORT", 4321), 4321);
}

}  // namespace
}  // namespace vt::net
