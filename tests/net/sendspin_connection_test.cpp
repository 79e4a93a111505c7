#include "net/sendspin_connection.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>

#include <atomic>
#include <mutex>
#include <thread>
#include <vector>

#include "net/http_response.h"
#include "net/monotonic.h"
#include "net/websocket_frame.h"
#include "socket_pair.h"

namespace vt::net {
namespace {

using WebSocketFrame::Frame;
using WebSocketFrame::Opcode;

constexpr std::array<uint8_t, 4> kMask{9, 8, 7, 6};

// A connection on its own thread, with the test playing the client at the other end.
class Harness {
  public:
    explicit Harness(SendspinConnection::Limits limits = {}, std::string leftover = {})
        : connection_(std::make_shared<SendspinConnection>(pair_.ours, 7, limits)) {
        pair_.ours = -1;  // the connection owns it now
        connection_->setOnText([this](std::string_view text, int64_t receivedUs) {
            std::lock_guard guard(lock_);
            texts_.emplace_back(text, receivedUs);
        });
        thread_ = std::thread([this, leftover] {
            connection_->run(leftover);
            finished_ = true;
        });
    }
    ~Harness() {
        connection_->close(std::nullopt);
        thread_.join();
    }

    void send(Opcode op, std::string_view payload, bool fin = true) {
        ASSERT_TRUE(
            HTTPResponse::writeAll(pair_.theirs, WebSocketFrame::encode(op, payload, fin, kMask)));
    }
    // The next frame from the server, or nothing if it closed or stayed silent for a second.
    std::optional<Frame> next() {
        while (pending_.empty()) {
            pollfd pfd{pair_.theirs, POLLIN, 0};
            if (poll(&pfd, 1, 1000) <= 0) return std::nullopt;
            char chunk[65536];
            const ssize_t n = recv(pair_.theirs, chunk, sizeof chunk, 0);
            if (n <= 0) return std::nullopt;
            auto frames = parser_.append(std::string_view(chunk, static_cast<size_t>(n)));
            if (!frames) return std::nullopt;
            pending_.insert(pending_.end(), frames->begin(), frames->end());
        }
        Frame f = pending_.front();
        pending_.erase(pending_.begin());
        return f;
    }
    void waitFinished() {
        for (int i = 0; i < 200 && !finished_; ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    std::vector<std::pair<std::string, int64_t>> texts() {
        std::lock_guard guard(lock_);
        return texts_;
    }
    void fillPeerBuffers() {
        // Shrink the client's buffers so a backlog builds after a few frames.
        const int small = 4096;
        setsockopt(pair_.theirs, SOL_SOCKET, SO_RCVBUF, &small, sizeof small);
    }

    testing::SocketPair pair_;
    std::shared_ptr<SendspinConnection> connection_;
    std::thread thread_;
    std::atomic<bool> finished_{false};
    WebSocketFrame::Parser parser_{1 << 24, WebSocketFrame::From::server};
    std::vector<Frame> pending_;
    std::mutex lock_;
    std::vector<std::pair<std::string, int64_t>> texts_;
};

TEST(SendspinConnection, HandlesAFrameThatCameWithTheRequestHead) {
    Harness h({}, WebSocketFrame::encode(Opcode::text, "early", true, kMask));
    for (int i = 0; i < 200 && h.texts().empty(); ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    ASSERT_EQ(h.texts().size(), 1u);
    EXPECT_EQ(h.texts()[0].first, "early");
}

TEST(SendspinConnection, ReassemblesAFragmentedTextOnceStampedAtTheFinalRead) {
    Harness h;
    h.send(Opcode::text, "one ", false);
    h.send(Opcode::continuation, "two ", false);
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    const int64_t beforeLast = monotonicUs();
    h.send(Opcode::continuation, "thr\xFF", true);
    for (int i = 0; i < 200 && h.texts().empty(); ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    const auto texts = h.texts();
    ASSERT_EQ(texts.size(), 1u);
    EXPECT_EQ(texts[0].first, "one two thr\xEF\xBF\xBD");
    EXPECT_GE(texts[0].second, beforeLast);
}

TEST(SendspinConnection, AnswersPingsAndEchoesTheCloseCode) {
    Harness h;
    const std::string payload(125, 'p');
    h.send(Opcode::ping, payload);
    auto pong = h.next();
    ASSERT_TRUE(pong);
    EXPECT_EQ(pong->opcode, static_cast<uint8_t>(Opcode::pong));
    EXPECT_EQ(pong->payload, payload);

    h.send(Opcode::close, "");
    auto close = h.next();
    ASSERT_TRUE(close);
    EXPECT_EQ(close->opcode, static_cast<uint8_t>(Opcode::close));
    EXPECT_EQ(close->payload, "");  // an empty close is answered empty, not with 1000
    EXPECT_FALSE(h.next());
    h.waitFinished();
    EXPECT_TRUE(h.finished_);
}

TEST(SendspinConnection, ClosesWith1009WhenAMessageOutgrowsItsLimit) {
    Harness h({.maxMessage = 10});
    h.send(Opcode::text, "12345", false);
    h.send(Opcode::continuation, "123456", true);
    auto close = h.next();
    ASSERT_TRUE(close);
    EXPECT_EQ(close->opcode, static_cast<uint8_t>(Opcode::close));
    EXPECT_EQ(close->payload, std::string("\x03\xF1", 2));
    EXPECT_FALSE(h.next());
}

TEST(SendspinConnection, ClosesWith1009WhenAFrameHeaderBreaksTheLimit) {
    Harness h({.maxMessage = 10});
    h.send(Opcode::text, std::string(11, 'x'));
    auto close = h.next();
    ASSERT_TRUE(close);
    EXPECT_EQ(close->opcode, static_cast<uint8_t>(Opcode::close));
    EXPECT_EQ(close->payload, std::string("\x03\xF1", 2));
    EXPECT_FALSE(h.next());
    h.waitFinished();
    EXPECT_TRUE(h.finished_);
}

TEST(SendspinConnection, MessagesOutOfTurnCloseWith1002) {
    for (const bool continuationFirst : {true, false}) {
        Harness h;
        if (continuationFirst) {
            h.send(Opcode::continuation, "nothing to continue");
        } else {
            h.send(Opcode::text, "one ", false);
            h.send(Opcode::text, "a new message inside the first");
        }
        auto close = h.next();
        ASSERT_TRUE(close);
        EXPECT_EQ(close->payload, std::string("\x03\xEA", 2)) << continuationFirst;
        EXPECT_FALSE(h.next());
        EXPECT_TRUE(h.texts().empty());
    }
}

TEST(SendspinConnection, DropsAudioBeyondTheQueueBoundAndCountsEachFrame) {
    Harness h;
    h.fillPeerBuffers();
    const std::string frame(1929, 'a');  // 1,933 bytes on the wire
    // Fill the kernel's buffers and then the queue.
    while (h.connection_->droppedFrames() == 0) h.connection_->sendBinary(frame);
    const size_t queued = h.connection_->queuedAudioBytes();
    EXPECT_EQ(queued, (kMaxQueuedAudioBytes / 1933) * 1933);
    for (int i = 0; i < 10; ++i) h.connection_->sendBinary(frame);
    EXPECT_EQ(h.connection_->droppedFrames(), 11);
    EXPECT_EQ(h.connection_->queuedAudioBytes(), queued);
    EXPECT_TRUE(h.connection_->isOpen());  // slow clients lose frames, not the connection

    // Control still goes first once the client reads again.
    h.connection_->sendText("control");
    int audioBefore = 0;
    while (auto f = h.next()) {
        if (f->opcode == static_cast<uint8_t>(Opcode::text)) break;
        ++audioBefore;
    }
    EXPECT_LT(audioBefore, 198);
}

TEST(SendspinConnection, DropsAClientThatCannotDrainItsControlQueue) {
    Harness h({.maxControlQueue = 3});
    h.fillPeerBuffers();
    const std::string big(60'000, 'c');
    int sent = 0;
    while (h.connection_->isOpen() && sent < 1000) {
        h.connection_->sendText(big);
        ++sent;
    }
    EXPECT_FALSE(h.connection_->isOpen());
    EXPECT_LT(sent, 1000);
    h.waitFinished();
    EXPECT_TRUE(h.finished_);
}

TEST(SendspinConnection, CloseMidFrameEndsWithoutACloseFrame) {
    Harness h;
    h.fillPeerBuffers();
    // One frame larger than the socket can hold (but within the audio bound) is left half written.
    h.connection_->sendBinary(std::string(380'000, 'z'));
    ASSERT_EQ(h.connection_->droppedFrames(), 0);
    h.connection_->close(1000);
    std::string all = h.pair_.drainTheirs();
    WebSocketFrame::Parser parser(1 << 24, WebSocketFrame::From::server);
    auto frames = parser.append(all);
    ASSERT_TRUE(frames);
    EXPECT_TRUE(frames->empty());  // the big frame never completed and no close followed
}

TEST(SendspinConnection, CloseWhenIdleSendsTheCode) {
    Harness h;
    h.connection_->close(1000);
    auto close = h.next();
    ASSERT_TRUE(close);
    EXPECT_EQ(close->payload, std::string("\x03\xE8", 2));
    h.connection_->sendText("after");  // a no-op once closed
    EXPECT_FALSE(h.next());
}

}  // namespace
}  // namespace vt::net
