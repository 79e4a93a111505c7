// The PTP clock's pieces without sockets: the wire format read back and
// refused when malformed, the grandmaster's answers, a follower's offset on a
// clock that runs apart from the master's, and the shared socket's lines.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <thread>

#include "airplay_tool/ptp/clock_readiness.h"
#include "airplay_tool/ptp/ptp_follower.h"
#include "airplay_tool/ptp/ptp_grandmaster.h"
#include "airplay_tool/ptp/ptp_message.h"
#include "airplay_tool/ptp/ptp_shared.h"
#include "airplay_tool/ptp/session_clock.h"

using namespace vt::airplay_tool::ptp;

namespace {

constexpr int64_t second = 1'000'000'000;

TEST(PtpMessage, EveryMessageTheClockSendsReadsBackAsItWas) {
    Grandmaster gm(clockIdentityFor("AA:BB:CC:DD:EE:FF"));
    Message request;
    request.type = MessageType::delayReq;
    request.transportSpecific = 1;
    request.source = {clockIdentityFor("0123456789abcdef"), 7};
    request.sequenceId = 513;
    request.correction = -5 * 65536;
    const Message sync = gm.sync();
    Message peerRequest = request;
    peerRequest.type = MessageType::pdelayReq;
    for (const Message& m : {gm.announce(1'700'000'000 * second + 5), sync,
                             gm.followUp(sync, 1'700'000'000 * second + 999'999'999),
                             *gm.answer(request, 42 * second + 1), request, peerRequest,
                             *gm.answerPeerDelay(peerRequest, 43 * second),
                             gm.peerDelayFollowUp(peerRequest, 44 * second)}) {
        const auto bytes = encodeMessage(m);
        EXPECT_EQ(bytes.size(), headerBytes + *bodyBytes(m.type));
        const auto back = parseMessage(bytes);
        ASSERT_TRUE(back);
        EXPECT_EQ(*back, m);
    }
    // The identity a MAC-shaped device id gives is its EUI-64.
    EXPECT_EQ(clockIdentityText(gm.port().clock), "aabbccfffeddeeff");
    const auto sent = encodeMessage(sync);
    EXPECT_EQ(sent[0], 0x10);  // 802.1AS transportSpecific, Sync
    EXPECT_EQ(sent[6], 0x02);  // two-step
}

TEST(PtpMessage, MalformedDatagramsAreRefused) {
    Grandmaster gm(clockIdentityFor("x"));
    const auto good = encodeMessage(*gm.answer(
        [] {
            Message r;
            r.type = MessageType::delayReq;
            return r;
        }(),
        second));
    auto broken = [&](auto change) {
        auto bytes = good;
        change(bytes);
        return parseMessage(bytes);
    };
    EXPECT_FALSE(parseMessage({}));
    EXPECT_FALSE(broken([](auto& b) { b.resize(headerBytes - 1); }));
    EXPECT_FALSE(broken([](auto& b) { b.resize(b.size() - 1); }));  // shorter than it says
    EXPECT_FALSE(broken([](auto& b) { b[1] = 1; }));                // PTP version 1
    EXPECT_FALSE(broken([](auto& b) { b[0] = 0x0E; }));             // no such type
    EXPECT_FALSE(broken([](auto& b) { b[3] = 40; }));     // a length too short for its body
    EXPECT_FALSE(broken([](auto& b) { b[40] = 0xFF; }));  // 10^9 nanoseconds or more
    // Longer than it says is fine (padding); a type without a body we read is header only.
    EXPECT_TRUE(broken([](auto& b) { b.push_back(0); }));
    const auto other = broken([](auto& b) { b[0] = 0x0D; });
    ASSERT_TRUE(other);
    EXPECT_EQ(other->type, MessageType::management);
}

TEST(PtpGrandmaster, AnswersOnlyDelayRequestsOfItsDomain) {
    Grandmaster gm(clockIdentityFor("AA:BB:CC:DD:EE:FF"));
    Message request;
    request.type = MessageType::delayReq;
    request.source = {clockIdentityFor("follower"), 1};
    request.sequenceId = 9;
    const auto reply = gm.answer(request, 7 * second + 3);
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->requesting, request.source);
    EXPECT_EQ(reply->sequenceId, 9);
    EXPECT_EQ(reply->timestamp.toNs(), 7 * second + 3);
    // A neighbour's peer-delay request: the time it came, then the time the answer left.
    Message peer = request;
    peer.type = MessageType::pdelayReq;
    peer.correction = 3 * 65536;
    const auto peerReply = gm.answerPeerDelay(peer, 8 * second);
    ASSERT_TRUE(peerReply);
    EXPECT_TRUE(peerReply->flags & flag::twoStep);
    EXPECT_EQ(peerReply->requesting, peer.source);
    EXPECT_EQ(peerReply->timestamp.toNs(), 8 * second);
    const Message peerFollowUp = gm.peerDelayFollowUp(peer, 8 * second + 40'000);
    EXPECT_EQ(peerFollowUp.timestamp.toNs(), 8 * second + 40'000);
    EXPECT_EQ(correctionNs(peerFollowUp), 3);
    EXPECT_FALSE(gm.answerPeerDelay(request, second));
    request.domain = 1;
    EXPECT_FALSE(gm.answer(request, second));
    request.domain = 0;
    request.type = MessageType::sync;
    EXPECT_FALSE(gm.answer(request, second));
}

// A master whose clock is `offset` ahead of ours, `path` away each way.
struct Link {
    Grandmaster master{clockIdentityFor("11:22:33:44:55:66")};
    Follower follower{{clockIdentityFor("AA:BB:CC:DD:EE:FF"), 1}, 0};
    int64_t offset = 0, path = 0, ours = 0;

    void exchange() {
        ours += second / 8;
        follower.receive(master.announce(ours + offset), ours + path);
        const Message sync = master.sync();
        const int64_t t1 = ours + offset;
        follower.receive(sync, ours + path);
        follower.receive(master.followUp(sync, t1), ours + path);
        if (auto request = follower.delayRequest(ours + path)) {
            const int64_t t3 = ours + path;
            follower.delayRequestSent(request->sequenceId, t3);
            follower.receive(*master.answer(*request, t3 + path + offset), t3 + 2 * path);
        }
    }
};

TEST(PtpFollower, FindsTheMastersOffsetAndStallsWhenItFallsSilent) {
    Link link;
    link.offset = 3 * second + 12'345;
    link.path = 40'000;
    EXPECT_EQ(link.follower.state(0), ClockState::probing);
    for (int i = 0; i < 3; ++i) link.exchange();
    EXPECT_EQ(link.follower.state(link.ours), ClockState::probing);
    for (int i = 0; i < 40; ++i) link.exchange();
    EXPECT_EQ(link.follower.state(link.ours), ClockState::ready);
    ASSERT_TRUE(link.follower.offsetNs());
    EXPECT_EQ(*link.follower.offsetNs(), link.offset);
    EXPECT_EQ(*link.follower.meanPathDelayNs(), link.path);
    EXPECT_EQ(*link.follower.master(), link.master.port().clock);
    EXPECT_EQ(link.follower.state(link.ours + Follower::stallNs + second), ClockState::stalled);
    // A master never heard at all stalls as well.
    Follower lonely({clockIdentityFor("a"), 1}, 0);
    EXPECT_EQ(lonely.state(Follower::stallNs + 1), ClockState::stalled);
}

TEST(PtpFollower, IgnoresOtherClocksAndUnmatchedAnswers) {
    Link link;
    link.offset = second;
    for (int i = 0; i < 20; ++i) link.exchange();
    const int64_t before = *link.follower.offsetNs();
    // Another master's Sync pair, and a Delay_Resp meant for someone else.
    Grandmaster stranger(clockIdentityFor("66:55:44:33:22:11"));
    const Message sync = stranger.sync();
    for (int i = 0; i < 10; ++i) {
        link.follower.receive(sync, link.ours);
        link.follower.receive(stranger.followUp(sync, 0), link.ours);
        Message request;
        request.type = MessageType::delayReq;
        request.source = {clockIdentityFor("someone"), 1};
        link.follower.receive(*link.master.answer(request, 0), link.ours);
    }
    EXPECT_EQ(*link.follower.offsetNs(), before);
}

TEST(PtpShared, LinesReadBackAndBadOnesAreRefused) {
    SharedStatus s{"0123456789abcdef", -81985529216486896, "follow", "ready", -12, 2, true};
    EXPECT_EQ(parseSharedStatus(sharedStatusLine(s) + "\n"), s);
    EXPECT_EQ(parseSharedStatus(sharedStatusLine(s) + " future=1"), s);
    for (const char* bad :
         {"", "clock_id=0123 state=ready", "clock_id=0123456789abcdef",
          "clock_id=0123456789ABCDEF state=ready", "clock_id=0123456789abcdef state=odd",
          "clock_id=0123456789abcdef state=ready offset_ns=1x",
          "clock_id=0123456789abcdef state=ready peers=-1", "noequals state=ready"})
        EXPECT_FALSE(parseSharedStatus(bad)) << bad;
    EXPECT_FALSE(parseSharedStatus(std::string(sharedLineBytes + 1, ' ')));

    auto request = parseSharedRequest("R 10.78.0.2\n");
    ASSERT_TRUE(request);
    EXPECT_EQ(request->kind, SharedRequest::Kind::addPeer);
    EXPECT_EQ(sharedRequestLine(*request), "R 10.78.0.2");
    for (const char* line : {"?", "? 10.0.0.1", "U 10.0.0.1", "F 10.0.0.1"})
        EXPECT_EQ(sharedRequestLine(*parseSharedRequest(line)), line);
    EXPECT_EQ(parseSharedRequest("?")->kind, SharedRequest::Kind::status);
    for (const char* bad : {"", "R", "R10.0.0.1", "R 10.0.0", "X 10.0.0.1", "? 999.1.1.1"})
        EXPECT_FALSE(parseSharedRequest(bad)) << bad;
}

TEST(ClockReadiness, ProbesUntilTheReceiverSpeaksAndStallsWhenItNeverDoes) {
    SharedStatus lead{"0123456789abcdef", 1, "lead", "ready", 0, 1, false, 0};
    ClockReadiness readiness(1000);
    ASSERT_EQ(readiness.update(1000, 5, lead)->state, "probing");
    EXPECT_FALSE(readiness.update(3000, 5, std::nullopt));  // the daemon not answering
    lead.heard = true;
    lead.exchanges = 3;
    const auto ready = readiness.update(3500, 77, lead);
    ASSERT_TRUE(ready);
    EXPECT_EQ(*ready, (ClockReadyLine{"ready", 0, 3, 2500, 77}));
    EXPECT_FALSE(readiness.update(9000, 5, std::nullopt));  // nothing after ready

    ClockReadiness silent(0);
    lead.heard = false;
    EXPECT_EQ(silent.update(0, 0, lead)->state, "probing");
    EXPECT_FALSE(silent.update(ClockReadiness::stallMs - 1, 0, lead));
    EXPECT_EQ(silent.update(ClockReadiness::stallMs, 0, lead)->state, "stalled");
    lead.heard = true;  // heard at last
    EXPECT_EQ(silent.update(ClockReadiness::stallMs + 900, 0, lead)->state, "ready");

    // Following, the follower's own state is the clock's.
    ClockReadiness following(0);
    SharedStatus follow{"0123456789abcdef", 1, "follow", "probing", 0, 1, true, 9};
    EXPECT_EQ(following.update(0, 0, follow)->state, "probing");
    follow.state = "stalled";
    EXPECT_EQ(following.update(6000, 0, follow)->state, "stalled");
}

// A shared daemon as the test plays it: answers every line with `answer`,
// remembering the requests.
class FakeDaemon {
  public:
    explicit FakeDaemon(std::string answer) : answer_(std::move(answer)) {
        path = std::filesystem::temp_directory_path() /
               ("vt-ptp-test-" + std::to_string(::getpid()) + ".sock");
        fd_ = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        sockaddr_un a{};
        a.sun_family = AF_UNIX;
        std::snprintf(a.sun_path, sizeof a.sun_path, "%s", path.c_str());
        ::unlink(path.c_str());
        EXPECT_EQ(::bind(fd_, reinterpret_cast<sockaddr*>(&a), sizeof a), 0);
        thread_ = std::thread([this] {
            char line[256];
            sockaddr_un from{};
            for (;;) {
                socklen_t length = sizeof from;
                const ssize_t n = ::recvfrom(fd_, line, sizeof line, 0,
                                             reinterpret_cast<sockaddr*>(&from), &length);
                if (n <= 0 || std::string(line, size_t(n)) == "quit") return;
                {
                    std::lock_guard<std::mutex> hold(lock_);
                    requests_.emplace_back(line, size_t(n));
                }
                const std::string answer = this->answer();
                ::sendto(fd_, answer.data(), answer.size(), 0, reinterpret_cast<sockaddr*>(&from),
                         length);
            }
        });
    }
    ~FakeDaemon() {
        const int fd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        sockaddr_un a{};
        a.sun_family = AF_UNIX;
        std::snprintf(a.sun_path, sizeof a.sun_path, "%s", path.c_str());
        ::sendto(fd, "quit", 4, 0, reinterpret_cast<sockaddr*>(&a), sizeof a);
        ::close(fd);
        thread_.join();
        ::close(fd_);
        ::unlink(path.c_str());
    }
    std::vector<std::string> requests() {
        std::lock_guard<std::mutex> hold(lock_);
        return requests_;
    }
    std::string answer() {
        std::lock_guard<std::mutex> hold(lock_);
        return answer_;
    }
    void setAnswer(std::string answer) {
        std::lock_guard<std::mutex> hold(lock_);
        answer_ = std::move(answer);
    }
    std::string path;

  private:
    std::string answer_;
    int fd_ = -1;
    std::thread thread_;
    std::mutex lock_;
    std::vector<std::string> requests_;
};

TEST(SessionClock, JoinsTheDaemonWithItsReceiverAndSaysWhenTheClockIsReady) {
    FakeDaemon daemon(
        "clock_id=aabbccfffeddeeff clock_number=-6144091866752225537 mode=follow "
        "state=ready offset_ns=2500 peers=1 heard=1 exchanges=12");
    int pipeFds[2];
    ASSERT_EQ(::pipe(pipeFds), 0);
    {
        vt::airplay_tool::StatusWriter status(pipeFds[1], pipeFds[1]);
        SessionClock clock({.useShared = true,
                            .sharedPath = daemon.path,
                            .receiver = "10.78.0.2",
                            .ourAddress = "10.78.0.1"},
                           status);
        ASSERT_EQ(clock.attach(), SessionClock::Source::shared);
        EXPECT_EQ(clock.peerInfo().clockID, -6144091866752225537);
        EXPECT_EQ(clock.peerInfo().addresses, std::vector<std::string>{"10.78.0.1"});
        EXPECT_EQ(clock.peerList(), (std::vector<std::string>{"10.78.0.2", "10.78.0.1"}));
        EXPECT_EQ(clock.ptpNs(1'000'000'000), 1'000'002'500);
        clock.reportReadiness();
        for (int i = 0; i < 200 && !clock.isReady(); ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        EXPECT_TRUE(clock.isReady());
        // Following, the clock that times the stream is the master's now.
        daemon.setAnswer(
            "clock_id=0011223344556677 clock_number=4822678189205111 mode=follow "
            "state=ready offset_ns=-700 peers=1 heard=1 exchanges=40");
        const SessionClock::Reading reading = clock.read(1'000'000'000);
        EXPECT_EQ(reading.ptpNs, 999'999'300);
        EXPECT_EQ(reading.clockNumber, 4822678189205111);
    }
    ::close(pipeFds[1]);
    char text[1024] = {};
    const ssize_t n = ::read(pipeFds[0], text, sizeof text - 1);
    ::close(pipeFds[0]);
    ASSERT_GT(n, 0);
    EXPECT_EQ(std::string(text).rfind("[STATUS] clock_ready mode=ptp state=ready ", 0), 0u) << text;
    const auto asked = daemon.requests();
    ASSERT_GE(asked.size(), 3u);
    EXPECT_EQ(asked.front(), "R 10.78.0.2");  // registered on joining
    EXPECT_EQ(asked.back(), "U 10.78.0.2");   // and let go at the end
}

}  // namespace
