// The AirPlay 2 route up to its pairing, against canned answers of a
// receiver on loopback: what GET /info says is read through libplist, and
// each refusal becomes the error code the app tells apart.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <plist/plist.h>
#include <sys/socket.h>
#include <unistd.h>

#include <thread>

#include "airplay_tool/airplay2_route.h"
#include "airplay_tool/receiver_info.h"

using namespace vt::airplay_tool;

namespace {

std::string binaryPlist(plist_t root) {
    char* bin = nullptr;
    uint32_t length = 0;
    plist_to_bin(root, &bin, &length);
    std::string out(bin, length);
    free(bin);
    plist_free(root);
    return out;
}

std::string infoPlist(uint64_t flags) {
    plist_t dict = plist_new_dict();
    plist_dict_set_item(dict, "features", plist_new_uint(0x1E5A7FFFF7ull));
    plist_dict_set_item(dict, "statusFlags", plist_new_uint(flags));
    plist_dict_set_item(dict, "model", plist_new_string("AppleTV6,2"));
    return binaryPlist(dict);
}

TEST(ReceiverInfo, ReadsTheBinaryPlistAndRefusesAnythingElse) {
    auto info = parseReceiverInfo(infoPlist(0x8));
    ASSERT_TRUE(info);
    EXPECT_EQ(info->features, 0x1E5A7FFFF7ull);
    EXPECT_EQ(info->model, "AppleTV6,2");
    EXPECT_TRUE(info->wantsPin());
    EXPECT_FALSE(parseReceiverInfo(infoPlist(0x4))->wantsPin());

    EXPECT_FALSE(parseReceiverInfo("bplist00 and then nothing a plist has"));
    EXPECT_FALSE(parseReceiverInfo("<?xml version=\"1.0\"?><plist><dict/></plist>"));
    EXPECT_FALSE(parseReceiverInfo(binaryPlist(plist_new_array())));
    std::string cut = infoPlist(0x8);
    cut.resize(cut.size() / 2);
    EXPECT_FALSE(parseReceiverInfo("bplist00" + cut.substr(8)));
}

// Answers each request on one connection with the next canned answer.
class CannedReceiver {
  public:
    explicit CannedReceiver(std::vector<std::string> answers) {
        listener_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        bind(listener_, reinterpret_cast<sockaddr*>(&a), sizeof a);
        listen(listener_, 1);
        socklen_t len = sizeof a;
        getsockname(listener_, reinterpret_cast<sockaddr*>(&a), &len);
        port_ = ntohs(a.sin_port);
        thread_ = std::thread([this, answers = std::move(answers)] {
            const int fd = accept(listener_, nullptr, nullptr);
            std::string pending;
            char buf[4096];
            for (const std::string& answer : answers) {
                size_t end;
                while ((end = pending.find("\r\n\r\n")) == std::string::npos) {
                    const ssize_t n = read(fd, buf, sizeof buf);
                    if (n <= 0) return ::close(fd), void();
                    pending.append(buf, size_t(n));
                }
                size_t body = 0;
                if (size_t at = pending.find("Content-Length: "); at < end)
                    body = std::stoul(pending.substr(at + 16));
                while (pending.size() < end + 4 + body) {
                    const ssize_t n = read(fd, buf, sizeof buf);
                    if (n <= 0) return ::close(fd), void();
                    pending.append(buf, size_t(n));
                }
                requests.push_back(pending.substr(0, pending.find("\r\n")));
                pending.erase(0, end + 4 + body);
                (void)!write(fd, answer.data(), answer.size());
            }
            ::close(fd);
        });
    }
    ~CannedReceiver() {
        thread_.join();
        ::close(listener_);
    }
    int port() const { return port_; }
    std::vector<std::string> requests;

  private:
    int listener_ = -1;
    int port_ = 0;
    std::thread thread_;
};

std::string answer(int status, const std::string& body = "") {
    return "RTSP/1.0 " + std::to_string(status) +
           " X\r\nCSeq: 1\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
}

// The route's error line for a receiver giving these answers.
std::string errorLineFor(std::vector<std::string> answers, std::vector<std::string>& requests) {
    CannedReceiver receiver(std::move(answers));
    int err[2];
    EXPECT_EQ(pipe(err), 0);
    StatusWriter status(err[1], err[1]);
    ToolOptions options;
    options.protocol = Protocol::airplay2;
    options.host = "127.0.0.1";
    options.port = receiver.port();
    options.dacpID = "02:AA:BB:CC:DD:EE";
    {
        AirPlay2Route route(options, status);
        EXPECT_FALSE(route.connect());
    }
    ::close(err[1]);
    std::string text;
    char buf[4096];
    for (ssize_t n; (n = read(err[0], buf, sizeof buf)) > 0;) text.append(buf, size_t(n));
    ::close(err[0]);
    requests = receiver.requests;
    return text.substr(0, text.find('\n'));
}

TEST(AirPlay2Route, RefusalsBecomeTheCodesTheAppTellsApart) {
    std::vector<std::string> requests;
    EXPECT_EQ(errorLineFor({answer(403)}, requests),
              "[STATUS] error code=connect_failed http=403 "
              "detail=\"the receiver answered GET /info with HTTP 403\"");

    // A receiver that shows a PIN turns transient pairing away.
    EXPECT_NE(errorLineFor({answer(200, infoPlist(0x8)), answer(470)}, requests)
                  .find("code=auth_required http=470"),
              std::string::npos);
    ASSERT_EQ(requests.size(), 2u);
    EXPECT_EQ(requests[0], "GET /info RTSP/1.0");
    EXPECT_EQ(requests[1], "POST /pair-setup RTSP/1.0");

    // One waiting for a person to accept says 400.
    EXPECT_NE(errorLineFor({answer(200, infoPlist(0)), answer(400)}, requests)
                  .find("code=connect_failed http=400"),
              std::string::npos);
}

}  // namespace
