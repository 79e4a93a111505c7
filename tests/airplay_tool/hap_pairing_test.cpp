// The tool's pairing against a real HomeKit accessory server: hap-nodejs
// (tests/airplay/hap-accessory, on loopback, never advertised) speaks the
// same pair-setup, pair-verify and encrypted framing as AirPlay 2 receivers.
// The tool pairs by PIN as the app drives it (a wrong code first), and the
// credentials it prints then verify a new connection, over which an
// encrypted request is answered.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>

#include "airplay_tool/child_process.h"
#include "airplay_tool/hap/credentials.h"
#include "airplay_tool/hap/hap_crypto.h"
#include "airplay_tool/pairing_exchange.h"
#include "airplay_tool/rtsp_client.h"

using namespace vt::airplay_tool;
using namespace vt::airplay_tool::testing;
using namespace std::chrono_literals;
namespace fs = std::filesystem;

namespace {

constexpr const char* kSetupCode = "031-45-154";
constexpr const char* kDacpID = "1f2e3d4c5b6a7988";
constexpr int kRequestMs = 5000;
constexpr auto kStepTimeout = 10s;

size_t countLines(ChildProcess& child, const std::string& text) {
    const auto lines = child.lines();
    return static_cast<size_t>(std::count_if(lines.begin(), lines.end(), [&](const auto& l) {
        return l.find(text) != std::string::npos;
    }));
}

bool waitForCount(ChildProcess& child, const std::string& text, size_t count) {
    const auto until = std::chrono::steady_clock::now() + kStepTimeout;
    while (countLines(child, text) < count) {
        if (std::chrono::steady_clock::now() > until) return false;
        child.waitForLine("\x01never", 20ms);
    }
    return true;
}

std::optional<std::string> nodePath() {
    for (const char* dir : {"/usr/local/bin", "/usr/bin"}) {
        const fs::path p = fs::path(dir) / "node";
        if (access(p.c_str(), X_OK) == 0) return p.string();
    }
    return std::nullopt;
}

class HapPairing : public ::testing::Test {
  protected:
    void SetUp() override {
        const fs::path accessoryDir = VELLATONE_HAP_ACCESSORY_DIR;
        auto node = nodePath();
        if (!node) {
            if (std::getenv("CI")) FAIL() << "node is not installed";
            GTEST_SKIP() << "node is not installed";
        }
        if (!fs::exists(accessoryDir / "node_modules/hap-nodejs")) {
            const std::string install =
                "cd '" + accessoryDir.string() + "' && npm ci --no-audit --no-fund >/dev/null";
            ASSERT_EQ(std::system(install.c_str()), 0) << "npm ci failed";
        }
        char storageTemplate[] = "/tmp/vellatone-hap.XXXXXX";
        ASSERT_TRUE(mkdtemp(storageTemplate));
        storage_ = storageTemplate;
        accessory_ = std::make_unique<ChildProcess>(
            std::vector<std::string>{*node, (accessoryDir / "accessory.js").string(), kSetupCode,
                                     storage_},
            false);
        auto listening = accessory_->waitForLine("listening ", kStepTimeout);
        ASSERT_TRUE(listening) << accessory_->transcript();
        port_ = listening->substr(listening->rfind(' ') + 1);
    }

    void TearDown() override {
        if (accessory_) {
            accessory_->kill(SIGTERM);
            accessory_->wait(5s);
        }
        if (!storage_.empty()) fs::remove_all(storage_);
    }

    std::unique_ptr<RtspClient> connectHttp() {
        std::string error;
        auto rtsp = RtspClient::connect("127.0.0.1", std::stoi(port_), kRequestMs, error);
        EXPECT_TRUE(rtsp) << error;
        if (rtsp) rtsp->setVersion(kHttpVersion);
        return rtsp;
    }

    std::string storage_;
    std::string port_;
    std::unique_ptr<ChildProcess> accessory_;
};

TEST_F(HapPairing, PinPairingThenVerifiedEncryptedSession) {
    const auto began = std::chrono::steady_clock::now();
    ChildProcess tool({VELLATONE_AIRPLAY_TOOL, "--pair-setup", "--http", "--name", "Test", "--port",
                       port_, "--dacp", kDacpID, "127.0.0.1"},
                      true);
    const std::string prompt = "enter the PIN";
    ASSERT_TRUE(waitForCount(tool, prompt, 1)) << tool.transcript();
    const std::string wrong = "111-22-333\n";
    tool.write(wrong.data(), wrong.size());
    ASSERT_TRUE(tool.waitForLine("[ERROR] wrong PIN", kStepTimeout)) << tool.transcript();
    ASSERT_TRUE(waitForCount(tool, prompt, 2)) << tool.transcript();
    const std::string right = std::string(kSetupCode) + "\n";
    tool.write(right.data(), right.size());
    auto printed = tool.waitForLine("out: CREDENTIALS: ", kStepTimeout);
    ASSERT_TRUE(printed) << tool.transcript();
    EXPECT_EQ(tool.wait(kStepTimeout), 0);
    auto credentials =
        vt::hap::PairingCredentials::fromHex(printed->substr(printed->rfind(' ') + 1));
    ASSERT_TRUE(credentials) << *printed;
    std::string upperID = kDacpID;
    std::transform(upperID.begin(), upperID.end(), upperID.begin(), ::toupper);
    EXPECT_TRUE(accessory_->waitForLine("paired " + upperID, kStepTimeout));

    // Verified under the identifier paired with, then an encrypted request.
    auto rtsp = connectHttp();
    ASSERT_TRUE(rtsp);
    PairingExchange exchange(*rtsp, kRequestMs);
    auto secret = exchange.verify(*credentials, upperID);
    ASSERT_TRUE(secret.value) << secret.error.failure.detail;
    rtsp->encrypt(vt::hap::controlChannelKeys(*secret.value));
    RtspRequest get;
    get.method = "GET";
    get.uri = "/accessories";
    auto answer = rtsp->request(get, kRequestMs);
    ASSERT_TRUE(answer.response) << answer.error;
    EXPECT_EQ(answer.response->status, 200);
    EXPECT_NE(answer.response->body.find("\"aid\":1"), std::string::npos) << answer.response->body;
    EXPECT_TRUE(accessory_->waitForLine("accessories " + upperID, kStepTimeout));

    // An identity the accessory does not know is turned away; and an
    // accessory key other than the one paired with is caught on our side.
    auto stranger = connectHttp();
    ASSERT_TRUE(stranger);
    PairingExchange strangerExchange(*stranger, kRequestMs);
    auto refused = strangerExchange.verify(*credentials, "SOMEONE-ELSE");
    ASSERT_FALSE(refused.value);
    EXPECT_EQ(refused.error.failure.kind, vt::hap::PairingFailure::Kind::refused);

    auto impostor = connectHttp();
    ASSERT_TRUE(impostor);
    vt::hap::PairingCredentials wrongKey = *credentials;
    wrongKey.accessoryPublicKey = vt::hap::ed25519Generate().publicKey;
    PairingExchange impostorExchange(*impostor, kRequestMs);
    auto caught = impostorExchange.verify(wrongKey, upperID);
    ASSERT_FALSE(caught.value);
    EXPECT_EQ(caught.error.failure.kind, vt::hap::PairingFailure::Kind::notGenuine);

    std::printf("hap pairing: PIN pairing, verify and encrypted request in %lld ms\n",
                static_cast<long long>(std::chrono::duration_cast<std::chrono::milliseconds>(
                                           std::chrono::steady_clock::now() - began)
                                           .count()));
}

}  // namespace
