// The RTSP side as a receiver answers it: responses read whole or in pieces,
// bounded against broken or hostile peers; the SETUP Transport answer; the
// Digest password; the receiver's own requests on the event connection.
#include <gtest/gtest.h>

#include "airplay_tool/digest_auth.h"
#include "airplay_tool/event_requests.h"
#include "airplay_tool/rtsp_message.h"
#include "airplay_tool/transport_header.h"

using namespace vt::airplay_tool;

namespace {

TEST(RtspResponse, ReadsStatusHeadersAndBodyInAnyPieces) {
    const std::string wire =
        "RTSP/1.0 200 OK\r\nCSeq: 4\r\nServer: AirTunes/105.1\r\nAudio-Latency:11025\r\n"
        "Content-Length: 5\r\n\r\nhello"
        "RTSP/1.0 200 OK\r\n";  // the start of the next answer
    for (size_t step : {size_t{1}, size_t{7}, wire.size()}) {
        RtspResponseReader reader;
        RtspResponseReader::State state = RtspResponseReader::State::needMore;
        for (size_t at = 0; at < wire.size() && state == RtspResponseReader::State::needMore;
             at += step)
            state = reader.append(std::string_view(wire).substr(at, step));
        ASSERT_EQ(state, RtspResponseReader::State::complete) << "step " << step;
        const RtspResponse& r = reader.response();
        EXPECT_EQ(r.status, 200);
        EXPECT_EQ(r.reason, "OK");
        EXPECT_EQ(r.header("cseq"), "4");
        EXPECT_EQ(r.header("AUDIO-LATENCY"), "11025");  // no blank after the colon, any case
        EXPECT_EQ(r.body, "hello");
        if (step == wire.size()) {
            EXPECT_EQ(reader.leftover(), "RTSP/1.0 200 OK\r\n");
        }
    }
}

TEST(RtspResponse, HttpChunkedBodiesAreJoinedAndBounded) {
    const std::string wire =
        "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n"
        "5\r\nhello\r\n1;ext=1\r\n \r\nA\r\n0123456789\r\n0\r\nX-Trailer: 1\r\n\r\nnext";
    for (size_t step : {size_t{1}, size_t{9}, wire.size()}) {
        RtspResponseReader reader(kHttpVersion);
        RtspResponseReader::State state = RtspResponseReader::State::needMore;
        for (size_t at = 0; at < wire.size() && state == RtspResponseReader::State::needMore;
             at += step)
            state = reader.append(std::string_view(wire).substr(at, step));
        ASSERT_EQ(state, RtspResponseReader::State::complete) << step;
        EXPECT_EQ(reader.response().body, "hello 0123456789");
        if (step == wire.size()) {
            EXPECT_EQ(reader.leftover(), "next");
        }
    }
    const std::string head = "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n";
    for (const std::string& body :
         std::vector<std::string>{"x\r\n", "5\r\nhelloXY", "-1\r\n", "40001\r\n",
                                  std::string(kMaxChunkLineBytes + 1, '1')}) {
        EXPECT_EQ(RtspResponseReader(kHttpVersion).append(head + body),
                  RtspResponseReader::State::malformed)
            << body;
    }
    // Chunks that add up past the body bound.
    RtspResponseReader many(kHttpVersion);
    RtspResponseReader::State state = many.append(head);
    const std::string chunk = "FFFF\r\n" + std::string(0xFFFF, 'a') + "\r\n";
    for (int i = 0; i < 5 && state == RtspResponseReader::State::needMore; ++i)
        state = many.append(chunk);
    EXPECT_EQ(state, RtspResponseReader::State::malformed);
}

TEST(RtspResponse, RejectsMalformedAndOversizedAnswers) {
    const std::vector<std::string> bad = {
        "HTTP/1.1 200 OK\r\n\r\n",                               // another protocol than asked
        "RTSP/1.0 2x0 OK\r\n\r\n",                               // not a status
        "RTSP/1.0 200OK\r\n\r\n",                                // no blank after it
        "RTSP/1.0 200 OK\r\nno colon here\r\n\r\n",              // not a header
        "RTSP/1.0 200 OK\r\nBad Name: x\r\n\r\n",                // blank in a name
        "RTSP/1.0 200 OK\r\nContent-Length: -1\r\n\r\n",         // negative length
        "RTSP/1.0 200 OK\r\nContent-Length: 12abc\r\n\r\n",      // junk in the length
        "RTSP/1.0 200 OK\r\nContent-Length: 999999999\r\n\r\n",  // past the body bound
    };
    for (const auto& text : bad) {
        RtspResponseReader reader;
        EXPECT_EQ(reader.append(text), RtspResponseReader::State::malformed) << text;
    }
    std::string manyHeaders = "RTSP/1.0 200 OK\r\n";
    for (size_t i = 0; i <= kMaxRtspHeaders; ++i)
        manyHeaders += "X-" + std::to_string(i) + ": v\r\n";
    EXPECT_EQ(RtspResponseReader().append(manyHeaders + "\r\n"),
              RtspResponseReader::State::malformed);
    // A head that never ends is refused once it passes the bound.
    RtspResponseReader endless;
    RtspResponseReader::State state = endless.append("RTSP/1.0 200 OK\r\n");
    for (size_t i = 0;
         i < 2 * kMaxRtspHeadBytes / 10 && state == RtspResponseReader::State::needMore; ++i)
        state = endless.append("X: 12345\r\n");
    EXPECT_EQ(state, RtspResponseReader::State::malformed);
}

TEST(RtspRequest, SerializesWithLengthOnlyWhenThereIsABody) {
    RtspRequest r{"SET_PARAMETER", "rtsp://10.0.0.2/77", {}, "volume: -10.0\r\n"};
    r.add("CSeq", "5");
    EXPECT_EQ(r.serialize(),
              "SET_PARAMETER rtsp://10.0.0.2/77 RTSP/1.0\r\nCSeq: 5\r\nContent-Length: 15\r\n\r\n"
              "volume: -10.0\r\n");
    RtspRequest empty{"TEARDOWN", "rtsp://10.0.0.2/77", {}, ""};
    EXPECT_EQ(empty.serialize(), "TEARDOWN rtsp://10.0.0.2/77 RTSP/1.0\r\n\r\n");
}

TEST(EventRequests, EachRequestInAnyPiecesIsAnsweredWithItsCSeq) {
    const std::string body = "bplist00 of commands";
    const std::string wire =
        "POST /command RTSP/1.0\r\nCSeq: 7\r\nContent-Type: "
        "application/x-apple-binary-plist\r\nContent-Length: " +
        std::to_string(body.size()) + "\r\n\r\n" + body +
        "GET_PARAMETER * RTSP/1.0\r\ncseq:8\r\n\r\n";
    for (size_t step : {size_t{1}, size_t{13}, wire.size()}) {
        EventRequestReader reader;
        std::string answers;
        for (size_t at = 0; at < wire.size(); at += step)
            ASSERT_TRUE(reader.append(std::string_view(wire).substr(at, step), answers));
        EXPECT_EQ(answers,
                  "RTSP/1.0 200 OK\r\nCSeq: 7\r\nContent-Length: 0\r\n\r\n"
                  "RTSP/1.0 200 OK\r\nCSeq: 8\r\nContent-Length: 0\r\n\r\n")
            << "step " << step;
    }
    // What is not a request, or would not fit, is never answered nor kept.
    for (const std::string& bad :
         {std::string("RTSP/1.0 200 OK\r\nCSeq: 1\r\n\r\n"),
          std::string("POST /command RTSP/1.0\r\nCSeq: 1x\r\n\r\n"),
          "POST /command RTSP/1.0\r\nContent-Length: " + std::to_string(kMaxRtspBodyBytes + 1) +
              "\r\n\r\n",
          "POST /command RTSP/1.0\r\nX: " + std::string(kMaxRtspHeadBytes, 'a')}) {
        EventRequestReader reader;
        std::string answers;
        EXPECT_FALSE(reader.append(bad, answers)) << bad.substr(0, 40);
        EXPECT_FALSE(reader.append("GET_PARAMETER * RTSP/1.0\r\n\r\n", answers));
        EXPECT_EQ(answers, "");
    }
}

TEST(TransportHeader, FindsThePortsByKeyInAnyOrder) {
    auto ports = parseTransportHeader(
        "RTP/AVP/"
        "UDP;unicast;interleaved=0-1;mode=record;control_port=6001;timing_port=6002;server_port="
        "6003");
    ASSERT_TRUE(ports);
    EXPECT_EQ(ports->audio, 6003);
    EXPECT_EQ(ports->control, 6001);
    EXPECT_EQ(ports->timing, 6002);
    auto reordered = parseTransportHeader("server_port=7;control_port=8");
    ASSERT_TRUE(reordered);
    EXPECT_EQ(reordered->timing, 0);

    EXPECT_FALSE(parseTransportHeader("RTP/AVP/UDP;control_port=6001"));  // no audio port
    EXPECT_FALSE(parseTransportHeader("server_port=6003"));               // no control port
    EXPECT_FALSE(parseTransportHeader("server_port=0;control_port=1"));
    EXPECT_FALSE(parseTransportHeader("server_port=70000;control_port=1"));
    EXPECT_FALSE(parseTransportHeader("server_port=60x;control_port=1"));
    EXPECT_FALSE(parseTransportHeader(""));
}

TEST(DigestAuth, AnswersTheReceiversChallenge) {
    auto challenge = parseDigestChallenge(R"(Digest realm="raop", nonce="abcdefgh")");
    ASSERT_TRUE(challenge);
    EXPECT_EQ(challenge->realm, "raop");
    EXPECT_EQ(challenge->nonce, "abcdefgh");
    // Worked out independently: MD5(MD5("iTunes:raop:sesame") ":" nonce ":"
    // MD5("ANNOUNCE:rtsp://127.0.0.1/1234")), lower-case hex.
    EXPECT_EQ(digestResponse("iTunes", "sesame", *challenge, "ANNOUNCE", "rtsp://127.0.0.1/1234"),
              "73ffb8c921515ba3aa42fadacafe24d4");
    EXPECT_EQ(
        digestAuthorization("iTunes", "sesame", *challenge, "ANNOUNCE", "rtsp://127.0.0.1/1234"),
        R"(Digest username="iTunes", realm="raop", nonce="abcdefgh", uri="rtsp://127.0.0.1/1234", )"
        R"(response="73ffb8c921515ba3aa42fadacafe24d4")");
    EXPECT_EQ(md5Hex(""), "d41d8cd98f00b204e9800998ecf8427e");

    auto unquoted = parseDigestChallenge("digest nonce=n1, realm=r1, opaque=\"x\"");
    ASSERT_TRUE(unquoted);
    EXPECT_EQ(unquoted->nonce, "n1");
    EXPECT_EQ(unquoted->realm, "r1");

    EXPECT_FALSE(parseDigestChallenge(R"(Basic realm="raop")"));
    EXPECT_FALSE(parseDigestChallenge(R"(Digest realm="raop")"));             // no nonce
    EXPECT_FALSE(parseDigestChallenge(R"(Digest realm="raop", nonce="ab)"));  // open quote
    EXPECT_FALSE(parseDigestChallenge(R"(Digest =x, nonce="ab")"));
}

}  // namespace
