#include "cast/cast_stream_server.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "cast/wav_stream.h"

namespace vt::cast {
namespace {

using namespace std::chrono_literals;

int connectTo(uint16_t port, int receiveBuffer = 0) {
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (receiveBuffer > 0)
        ::setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &receiveBuffer, sizeof receiveBuffer);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    EXPECT_EQ(::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    return fd;
}

// Reads until `want` bytes came, the peer closed, or a second of quiet.
std::string readSome(int fd, size_t want) {
    std::string got;
    char buffer[8192];
    while (got.size() < want) {
        pollfd p{fd, POLLIN, 0};
        if (::poll(&p, 1, 1000) <= 0) break;
        const ssize_t n = ::read(fd, buffer, std::min(sizeof buffer, want - got.size()));
        if (n <= 0) break;
        got.append(buffer, static_cast<size_t>(n));
    }
    return got;
}

bool peerClosed(int fd) {
    pollfd p{fd, POLLIN, 0};
    if (::poll(&p, 1, 2000) <= 0) return false;
    char byte;
    return ::read(fd, &byte, 1) == 0;
}

std::string request(uint16_t port, const std::string& text) {
    const int fd = connectTo(port);
    ::write(fd, text.data(), text.size());
    std::string all = readSome(fd, 1 << 20);
    ::close(fd);
    return all;
}

const std::string kStreamHead =
    "HTTP/1.1 200 OK\r\nContent-Type: audio/wav\r\nCache-Control: no-cache\r\nConnection: "
    "close\r\n\r\n";

class CastStreamServerTest : public ::testing::Test {
  protected:
    void SetUp() override {
        server_.setOnStreamClient([this] { ++streamClients_; });
        server_.start();
        port_ = server_.port();
        ASSERT_NE(port_, 0);
    }

    // A GET of the stream; returns the socket once the head and WAV header arrived.
    int fetch(int receiveBuffer = 0) {
        const int fd = connectTo(port_, receiveBuffer);
        const std::string get = "GET /stream.wav HTTP/1.1\r\nHost: x\r\n\r\n";
        ::write(fd, get.data(), get.size());
        const std::string got = readSome(fd, kStreamHead.size() + kWavHeaderBytes);
        EXPECT_EQ(got.substr(0, kStreamHead.size()), kStreamHead);
        const auto header = endlessWavHeader();
        EXPECT_EQ(got.substr(kStreamHead.size()), std::string(header.begin(), header.end()));
        waitFor([&] { return server_.clientsServed() == served_ + 1; });
        ++served_;
        return fd;
    }

    void waitFor(const std::function<bool()>& done) {
        for (int i = 0; i < 400 && !done(); ++i) std::this_thread::sleep_for(5ms);
        ASSERT_TRUE(done());
    }

    void writeBlock(size_t bytes = 1764, uint8_t value = 7) {
        std::vector<uint8_t> block(bytes, value);
        server_.write(block.data(), block.size(), now_.load());
    }

    std::atomic<double> now_{500.0};
    CastStreamServer server_{[this] { return now_.load(); }};
    uint16_t port_ = 0;
    int served_ = 0;
    std::atomic<int> streamClients_{0};
};

TEST(WavStream, HeaderSaysEndless441kStereo16) {
    const auto h = endlessWavHeader();
    const std::string text(h.begin(), h.end());
    EXPECT_EQ(text.substr(0, 4), "RIFF");
    EXPECT_EQ(text.substr(4, 4), "\xFF\xFF\xFF\xFF");
    EXPECT_EQ(text.substr(8, 8), "WAVEfmt ");
    EXPECT_EQ(text.substr(16, 8), std::string("\x10\0\0\0\x01\0\x02\0", 8));
    EXPECT_EQ(text.substr(24, 8), std::string("\x44\xAC\0\0\x10\xB1\x02\0", 8));  // 44100, 176400
    EXPECT_EQ(text.substr(32, 4), std::string("\x04\0\x10\0", 4));
    EXPECT_EQ(text.substr(36, 8), "data\xFF\xFF\xFF\xFF");
}

TEST_F(CastStreamServerTest, StreamsToOneClientAndANewerOneTakesOver) {
    // A probe neither counts nor takes the stream.
    EXPECT_EQ(request(port_, "HEAD /stream.wav HTTP/1.1\r\n\r\n"), kStreamHead);
    EXPECT_EQ(server_.clientsServed(), 0);
    writeBlock();
    EXPECT_FALSE(server_.clientStart()) << "no client, nothing piles up";
    EXPECT_EQ(server_.stats().backlog, 0u);

    const int first = fetch();
    EXPECT_EQ(streamClients_, 1);
    EXPECT_FALSE(server_.clientStart()) << "the time line starts with the first audio byte";
    // ...at the time that block was rendered for, however late it comes.
    const std::vector<uint8_t> firstBlock(1764, 1);
    server_.write(firstBlock.data(), firstBlock.size(), 499.996);
    EXPECT_EQ(server_.clientStart(), 499.996);
    now_ = 500.01;
    writeBlock(1764, 2);
    EXPECT_EQ(server_.clientStart(), 499.996);
    const std::string audio = readSome(first, 3528);
    EXPECT_EQ(audio, std::string(1764, '\1') + std::string(1764, '\2'));

    const int second = fetch();
    EXPECT_EQ(server_.clientsServed(), 2);
    EXPECT_EQ(streamClients_, 2);
    EXPECT_TRUE(peerClosed(first));
    EXPECT_FALSE(server_.clientStart());
    now_ = 501.0;
    writeBlock(1764, 3);
    EXPECT_EQ(server_.clientStart(), 501.0);
    EXPECT_EQ(readSome(second, 1764), std::string(1764, '\3'));
    ::close(first);
    ::close(second);
}

TEST_F(CastStreamServerTest, ABacklogPastTwoSecondsDropsWholeFramesAndMovesTheStart) {
    // A TV that stops reading: the kernel's buffers fill, then the backlog.
    const int fd = fetch(4096);
    // Blocks of an odd size, so the excess over the limit is not whole frames.
    for (int i = 0; i < 12000; ++i) writeBlock(1766);
    const auto stats = server_.stats();
    ASSERT_GT(stats.dropped, 0);
    EXPECT_EQ(stats.dropped % kCastBytesPerFrame, 0);
    EXPECT_LE(stats.backlog, kCastBacklogLimitBytes);
    EXPECT_GT(stats.backlog, kCastBacklogLimitBytes - kCastBytesPerFrame);
    EXPECT_GT(stats.stalls, 0);
    ASSERT_TRUE(server_.clientStart());
    EXPECT_NEAR(*server_.clientStart(),
                500.0 + static_cast<double>(stats.dropped) / kCastBytesPerSecond, 1e-9);
    ::close(fd);
}

TEST_F(CastStreamServerTest, AWriteErrorEndsTheTimeLineUntilTheNextFetch) {
    const int fd = fetch();
    writeBlock();
    ASSERT_TRUE(server_.clientStart());
    ::close(fd);
    // The first write after the close may still be taken by the kernel.
    for (int i = 0; i < 200 && server_.clientStart(); ++i) {
        std::this_thread::sleep_for(2ms);
        writeBlock();
    }
    EXPECT_FALSE(server_.clientStart());
    writeBlock();
    EXPECT_FALSE(server_.clientStart());
    EXPECT_EQ(server_.stats().backlog, 0u);
    const int again = fetch();
    now_ = 600.0;
    writeBlock();
    EXPECT_EQ(server_.clientStart(), 600.0);
    ::close(again);
}

TEST_F(CastStreamServerTest, ServesArtworkAndRefusesEverythingElse) {
    const std::string notFound =
        "HTTP/1.1 404 Not Found\r\nContent-Length: 0\r\nConnection: close\r\n\r\n";
    EXPECT_EQ(request(port_, "GET /art HTTP/1.1\r\n\r\n"), notFound) << "no artwork yet";
    EXPECT_EQ(request(port_, "GET /other HTTP/1.1\r\n\r\n"), notFound);

    const auto dir =
        std::filesystem::temp_directory_path() / ("vt-cast-art-" + std::to_string(::getpid()));
    std::filesystem::create_directories(dir);
    const auto png = dir / "cover.png";
    std::ofstream(png, std::ios::binary) << std::string("\x89PNG\r\n\x1a\n\0data", 13);
    server_.setArtwork(png.string());
    EXPECT_EQ(request(port_, "GET /art?v=42 HTTP/1.1\r\n\r\n"),
              "HTTP/1.1 200 OK\r\nContent-Type: image/png\r\nContent-Length: 13\r\nConnection: "
              "close\r\n\r\n" +
                  std::string("\x89PNG\r\n\x1a\n\0data", 13));
    const auto jpeg = dir / "cover.jpg";
    std::ofstream(jpeg, std::ios::binary) << "jpeg";
    server_.setArtwork(jpeg.string());
    EXPECT_NE(request(port_, "GET /art HTTP/1.1\r\n\r\n").find("Content-Type: image/jpeg\r\n"),
              std::string::npos);
    server_.setArtwork((dir / "gone.png").string());
    EXPECT_EQ(request(port_, "GET /art HTTP/1.1\r\n\r\n"), notFound);
    std::filesystem::remove_all(dir);

    EXPECT_EQ(server_.clientsServed(), 0);
}

TEST_F(CastStreamServerTest, StopClosesTheClientAndIsIdempotent) {
    const int fd = fetch();
    server_.stop();
    EXPECT_TRUE(peerClosed(fd));
    EXPECT_FALSE(server_.clientStart());
    writeBlock();
    EXPECT_FALSE(server_.clientStart());
    server_.stop();
    ::close(fd);
}

}  // namespace
}  // namespace vt::cast
