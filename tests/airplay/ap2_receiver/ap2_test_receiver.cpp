#include "ap2_test_receiver.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <plist/plist.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>

#include "airplay_tool/hap/channel_cipher.h"
#include "airplay_tool/hap/hap_crypto.h"
#include "airplay_tool/hap/tlv8.h"
#include "airplay_tool/ptp/ptp_message.h"
#include "alac_verbatim.h"
#include "srp_server.h"

namespace vt::airplay_test {

namespace ptp = vt::airplay_tool::ptp;

namespace {

constexpr const char* kTransientCode = "3939";
constexpr size_t kMaxRequestBytes = 1 << 20;
constexpr int kSampleRate = 44100;
constexpr size_t kFramesPerPacket = 352;
constexpr size_t kHeaderBytes = 12;
constexpr size_t kTagBytes = 16;
constexpr size_t kNonceTailBytes = 8;
constexpr size_t kSyncBytes = 28;
constexpr uint32_t kAnchorFrames = 11035;
constexpr uint8_t kAudioType = 0x60;
constexpr uint8_t kSyncType = 0x57;
constexpr uint8_t kNtpSyncType = 0x54;
constexpr uint8_t kTimingReplyType = 0x53;
constexpr size_t kNtpSyncBytes = 20;
constexpr int64_t kNtpFixedLatencyFrames = 11025;
constexpr int64_t kNtpUnixEpochSeconds = 2'208'988'800;
constexpr uint8_t kResendType = 0x56;
constexpr size_t kLostPacketIndex = 20;
constexpr int kMaxResendCount = 64;
constexpr int kPtpEventPort = 319;
constexpr int kClockRequestIntervalMs = 125;
constexpr int64_t kNsPerSecond = 1'000'000'000;

uint16_t be16(const uint8_t* p) {
    return static_cast<uint16_t>(p[0] << 8 | p[1]);
}
uint32_t be32(const uint8_t* p) {
    return uint32_t{p[0]} << 24 | uint32_t{p[1]} << 16 | uint32_t{p[2]} << 8 | p[3];
}
uint64_t be64(const uint8_t* p) {
    return uint64_t{be32(p)} << 32 | be32(p + 4);
}

int udpSocket(const std::string& address, int& port) {
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(static_cast<uint16_t>(port));
    inet_pton(AF_INET, address.c_str(), &a.sin_addr);
    bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a);
    socklen_t len = sizeof a;
    getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len);
    port = ntohs(a.sin_port);
    return fd;
}

int tcpListener(const std::string& address, int& port) {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    int one = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(static_cast<uint16_t>(port));
    inet_pton(AF_INET, address.c_str(), &a.sin_addr);
    bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a);
    listen(fd, 4);
    socklen_t len = sizeof a;
    getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len);
    port = ntohs(a.sin_port);
    return fd;
}

struct PlistFree {
    void operator()(void* p) const { plist_free(static_cast<plist_t>(p)); }
};
using Plist = std::unique_ptr<void, PlistFree>;

Plist readPlist(const std::string& body) {
    plist_t raw = nullptr;
    if (body.compare(0, 8, "bplist00") == 0)
        plist_from_bin(body.data(), static_cast<uint32_t>(body.size()), &raw);
    return Plist(raw);
}

std::string binary(plist_t root) {
    char* bin = nullptr;
    uint32_t length = 0;
    plist_to_bin(root, &bin, &length);
    std::string out(bin, length);
    plist_to_bin_free(bin);
    plist_free(root);
    return out;
}

std::optional<uint64_t> uintItem(plist_t dict, const char* key) {
    plist_t item = dict ? plist_dict_get_item(dict, key) : nullptr;
    if (!item || plist_get_node_type(item) != PLIST_UINT) return std::nullopt;
    uint64_t v = 0;
    plist_get_uint_val(item, &v);
    return v;
}

std::optional<std::string> stringItem(plist_t node) {
    if (!node || plist_get_node_type(node) != PLIST_STRING) return std::nullopt;
    uint64_t length = 0;
    const char* p = plist_get_string_ptr(node, &length);
    return std::string(p, length);
}

struct Request {
    std::string method, uri;
    std::map<std::string, std::string> headers;  // names lower-cased
    std::string body;
    std::string header(const std::string& name) const {
        auto it = headers.find(name);
        return it == headers.end() ? std::string() : it->second;
    }
};

// One request off the front of `buffer`, if a whole one is there.
std::optional<Request> takeRequest(std::string& buffer, bool& malformed) {
    const size_t end = buffer.find("\r\n\r\n");
    if (end == std::string::npos) {
        malformed = buffer.size() > kMaxRequestBytes;
        return std::nullopt;
    }
    Request r;
    size_t lineEnd = buffer.find("\r\n");
    const std::string first = buffer.substr(0, lineEnd);
    const size_t s1 = first.find(' '), s2 = first.rfind(' ');
    if (s1 == std::string::npos || s2 == s1 || first.substr(s2 + 1) != "RTSP/1.0") {
        malformed = true;
        return std::nullopt;
    }
    r.method = first.substr(0, s1);
    r.uri = first.substr(s1 + 1, s2 - s1 - 1);
    size_t pos = lineEnd + 2;
    while (pos < end) {
        lineEnd = buffer.find("\r\n", pos);
        const std::string line = buffer.substr(pos, lineEnd - pos);
        const size_t colon = line.find(':');
        if (colon == std::string::npos) {
            malformed = true;
            return std::nullopt;
        }
        std::string name = line.substr(0, colon);
        std::transform(name.begin(), name.end(), name.begin(), ::tolower);
        r.headers[name] = line.substr(line.find_first_not_of(' ', colon + 1));
        pos = lineEnd + 2;
    }
    const size_t length = std::strtoul(r.header("content-length").c_str(), nullptr, 10);
    if (length > kMaxRequestBytes) {
        malformed = true;
        return std::nullopt;
    }
    if (buffer.size() < end + 4 + length) return std::nullopt;
    r.body = buffer.substr(end + 4, length);
    buffer.erase(0, end + 4 + length);
    return r;
}

struct Reply {
    int status = 200;
    std::string contentType;
    std::string body;
};

}  // namespace

struct ReceiverState {
    std::string address;
    std::vector<std::string> violations;
    int peak = 0;
    size_t frames = 0;
    std::vector<std::string> requests;
    // Session
    std::unique_ptr<SrpServer> srp;
    hap::Bytes pairingSecret;
    // A kept pairing, and the pair-verify under way.
    hap::KeyPair identity = hap::ed25519Generate();
    std::string controllerID;
    hap::Bytes controllerPublicKey;
    hap::KeyPair verifyEphemeral;
    hap::Bytes controllerEphemeral, verifyShared, verifyKey;
    bool ptp = false;
    bool tornDown = false;
    bool sessionSetUp = false;
    bool recorded = false;
    bool streamSetUp = false;
    uint64_t clockID = 0;
    std::string senderAddress;
    int senderControlPort = 0;
    int senderTimingPort = 0;  // NTP: where to ask the sender's time
    hap::Bytes audioKey;
    std::optional<double> volumeDb;
    std::string trackText;
    // Media
    int dataFd = -1, controlFd = -1, eventFd = -1, eventConnection = -1, ptpFd = -1;
    int dataPort = 0, controlPort = 0, eventPort = 0;
    size_t audioPackets = 0;
    std::optional<uint16_t> lostSeq;
    std::optional<uint16_t> newestSeq;
    int resent = 0;
    std::map<uint64_t, uint16_t> nonces;  // tail -> seq
    std::optional<uint32_t> firstRtp;
    std::map<uint32_t, std::vector<int16_t>> packets;  // by offset from firstRtp
    std::optional<std::pair<uint32_t, int64_t>> anchor;
    int syncs = 0;
    int64_t syncDeviationNs = 0;
};

namespace {

constexpr uint64_t kFeatureBits = (1ull << 9) | (1ull << 38) | (1ull << 41) | (1ull << 48);

Reply plistReply(plist_t root) {
    return {200, "application/x-apple-binary-plist", binary(root)};
}

Reply info() {
    plist_t dict = plist_new_dict();
    plist_dict_set_item(dict, "deviceID", plist_new_string("0A:0B:0C:0D:0E:0F"));
    plist_dict_set_item(dict, "features", plist_new_uint(kFeatureBits));
    plist_dict_set_item(dict, "statusFlags", plist_new_uint(0x4));
    plist_dict_set_item(dict, "model", plist_new_string("VellatoneTestReceiver1,1"));
    plist_dict_set_item(dict, "name", plist_new_string("Test receiver"));
    return plistReply(dict);
}

Reply pairSetup(ReceiverState& s, const Request& r, std::optional<hap::ChannelKeys>& keys) {
    auto tlv = hap::Tlv8::decode(hap::Bytes(r.body.begin(), r.body.end()));
    if (!tlv || r.header("x-apple-hkp") != "4") {
        s.violations.push_back("pair-setup: not a transient TLV8 message");
        return {400};
    }
    const auto state = tlv->byte(hap::tlv::state);
    hap::Tlv8 out;
    if (state == 1) {
        if (tlv->byte(hap::tlv::method) != 0 || tlv->byte(hap::tlv::flags) != 0x10)
            s.violations.push_back("pair-setup M1: not method 0 with the transient flag");
        s.srp = std::make_unique<SrpServer>(kTransientCode);
        out.add(hap::tlv::state, 2).add(hap::tlv::salt, s.srp->salt());
        out.add(hap::tlv::publicKey, s.srp->publicKey());
    } else if (state == 3 && s.srp && tlv->find(hap::tlv::publicKey) &&
               tlv->find(hap::tlv::proof)) {
        auto verified = s.srp->verify(*tlv->find(hap::tlv::publicKey), *tlv->find(hap::tlv::proof));
        out.add(hap::tlv::state, 4);
        if (!verified) {
            s.violations.push_back("pair-setup M3: a wrong proof");
            out.add(hap::tlv::error, hap::tlv_error::authentication);
        } else {
            out.add(hap::tlv::proof, verified->serverProof);
            // The sender's keys, the other way round.
            const hap::ChannelKeys sender = hap::controlChannelKeys(verified->sessionKey);
            keys = hap::ChannelKeys{sender.incoming, sender.outgoing};
            s.pairingSecret = verified->sessionKey;
        }
    } else {
        s.violations.push_back("pair-setup: a message out of turn");
        return {400};
    }
    const hap::Bytes body = out.encode();
    return {200, "application/octet-stream", std::string(body.begin(), body.end())};
}

constexpr const char* kAccessoryID = "0A:0B:0C:0D:0E:0F";

Reply tlvReply(const hap::Tlv8& tlv) {
    const hap::Bytes body = tlv.encode();
    return {200, "application/octet-stream", std::string(body.begin(), body.end())};
}

Reply pairVerify(ReceiverState& s, const Request& r, std::optional<hap::ChannelKeys>& keys) {
    auto tlv = hap::Tlv8::decode(hap::Bytes(r.body.begin(), r.body.end()));
    if (!tlv || r.header("x-apple-hkp") != "3" || s.controllerID.empty()) {
        s.violations.push_back("pair-verify: not a TLV8 message for a kept pairing");
        return {400};
    }
    hap::Tlv8 out;
    const hap::Bytes accessoryID = hap::bytesOf(kAccessoryID);
    if (tlv->byte(hap::tlv::state) == 1 && tlv->find(hap::tlv::publicKey)) {
        s.controllerEphemeral = *tlv->find(hap::tlv::publicKey);
        s.verifyEphemeral = hap::x25519Generate();
        auto shared = hap::x25519Shared(s.verifyEphemeral.privateKey, s.controllerEphemeral);
        if (!shared) {
            s.violations.push_back("pair-verify M1: an unusable key");
            return {400};
        }
        s.verifyShared = *shared;
        s.verifyKey =
            hap::hkdfSha512(s.verifyShared, "Pair-Verify-Encrypt-Salt", "Pair-Verify-Encrypt-Info");
        const auto signature = hap::ed25519Sign(
            s.identity.privateKey,
            hap::concat({&s.verifyEphemeral.publicKey, &accessoryID, &s.controllerEphemeral}));
        hap::Tlv8 inner;
        inner.add(hap::tlv::identifier, accessoryID).add(hap::tlv::signature, *signature);
        out.add(hap::tlv::state, 2).add(hap::tlv::publicKey, s.verifyEphemeral.publicKey);
        out.add(hap::tlv::encryptedData,
                hap::chachaSeal(s.verifyKey, hap::labelNonce("PV-Msg02"), {}, inner.encode()));
        return tlvReply(out);
    }
    const hap::Bytes* sealed = tlv->find(hap::tlv::encryptedData);
    if (tlv->byte(hap::tlv::state) != 3 || !sealed || s.verifyShared.empty()) {
        s.violations.push_back("pair-verify: a message out of turn");
        return {400};
    }
    out.add(hap::tlv::state, 4);
    const auto opened = hap::chachaOpen(s.verifyKey, hap::labelNonce("PV-Msg03"), {}, *sealed);
    const auto inner = opened ? hap::Tlv8::decode(*opened) : std::nullopt;
    const hap::Bytes* id = inner ? inner->find(hap::tlv::identifier) : nullptr;
    const hap::Bytes* signature = inner ? inner->find(hap::tlv::signature) : nullptr;
    if (!id || !signature || *id != hap::bytesOf(s.controllerID) ||
        !hap::ed25519Verify(s.controllerPublicKey,
                            hap::concat({&s.controllerEphemeral, id, &s.verifyEphemeral.publicKey}),
                            *signature)) {
        s.violations.push_back("pair-verify M3: not the controller paired with");
        out.add(hap::tlv::error, hap::tlv_error::authentication);
        return tlvReply(out);
    }
    const hap::ChannelKeys sender = hap::controlChannelKeys(s.verifyShared);
    keys = hap::ChannelKeys{sender.incoming, sender.outgoing};
    s.pairingSecret = s.verifyShared;
    return tlvReply(out);
}

Reply sessionSetup(ReceiverState& s, plist_t dict) {
    if (s.sessionSetUp) s.violations.push_back("a second session SETUP");
    s.sessionSetUp = true;
    const auto timing = stringItem(plist_dict_get_item(dict, "timingProtocol"));
    for (const char* key : {"deviceID", "sessionUUID", "groupUUID", "name"})
        if (!stringItem(plist_dict_get_item(dict, key)))
            s.violations.push_back(std::string("session SETUP without ") + key);
    if (timing == "PTP") {
        plist_t peer = plist_dict_get_item(dict, "timingPeerInfo");
        plist_t addresses = peer ? plist_dict_get_item(peer, "Addresses") : nullptr;
        const auto clock = uintItem(peer, "ClockID");
        if (!addresses || plist_get_node_type(addresses) != PLIST_ARRAY ||
            plist_array_get_size(addresses) == 0 || !clock ||
            !stringItem(plist_dict_get_item(peer, "ID")))
            s.violations.push_back(
                "session SETUP: timingPeerInfo without Addresses, ID or ClockID");
        s.clockID = clock.value_or(0);
        s.ptp = true;
    } else if (timing == "NTP" && uintItem(dict, "timingPort").value_or(0) > 0 &&
               uintItem(dict, "timingPort") <= 65535u) {
        s.senderTimingPort = static_cast<int>(*uintItem(dict, "timingPort"));
    } else {
        s.violations.push_back("session SETUP: no timing protocol this receiver knows");
    }
    plist_t answer = plist_new_dict();
    plist_dict_set_item(answer, "eventPort", plist_new_uint(static_cast<uint64_t>(s.eventPort)));
    plist_dict_set_item(answer, "timingPort", plist_new_uint(0));
    return plistReply(answer);
}

Reply streamSetup(ReceiverState& s, plist_t dict) {
    if (!s.recorded) s.violations.push_back("stream SETUP before RECORD");
    plist_t streams = plist_dict_get_item(dict, "streams");
    plist_t stream =
        streams && plist_get_node_type(streams) == PLIST_ARRAY && plist_array_get_size(streams) == 1
            ? plist_array_get_item(streams, 0)
            : nullptr;
    if (!stream || plist_get_node_type(stream) != PLIST_DICT) {
        s.violations.push_back("stream SETUP without one stream");
        return {400};
    }
    if (uintItem(stream, "type") != 96u || uintItem(stream, "ct") != 2u ||
        uintItem(stream, "audioFormat") != 0x40000u || uintItem(stream, "spf") != 352u ||
        uintItem(stream, "sr") != 44100u)
        s.violations.push_back("stream SETUP: not realtime ALAC 44100/16/2 in 352 frames");
    plist_t shk = plist_dict_get_item(stream, "shk");
    uint64_t keyLength = 0;
    const char* key = shk && plist_get_node_type(shk) == PLIST_DATA
                          ? plist_get_data_ptr(shk, &keyLength)
                          : nullptr;
    if (!key || keyLength != 32) {
        s.violations.push_back("stream SETUP: shk is not 32 bytes");
        return {400};
    }
    s.audioKey.assign(key, key + keyLength);
    const auto control = uintItem(stream, "controlPort");
    if (!control || *control == 0 || *control > 65535)
        s.violations.push_back("stream SETUP: no control port");
    s.senderControlPort = static_cast<int>(control.value_or(0));
    s.streamSetUp = true;
    plist_t answer = plist_new_dict();
    plist_t entry = plist_new_dict();
    plist_dict_set_item(entry, "type", plist_new_uint(96));
    plist_dict_set_item(entry, "dataPort", plist_new_uint(static_cast<uint64_t>(s.dataPort)));
    plist_dict_set_item(entry, "controlPort", plist_new_uint(static_cast<uint64_t>(s.controlPort)));
    plist_dict_set_item(entry, "audioBufferSize", plist_new_uint(8 * 1024 * 1024));
    plist_t list = plist_new_array();
    plist_array_append_item(list, entry);
    plist_dict_set_item(answer, "streams", list);
    return plistReply(answer);
}

Reply setPeers(ReceiverState& s, const Request& r) {
    Plist peers = readPlist(r.body);
    plist_t list = static_cast<plist_t>(peers.get());
    std::set<std::string> addresses;
    if (list && plist_get_node_type(list) == PLIST_ARRAY)
        for (uint32_t i = 0; i < plist_array_get_size(list); ++i)
            if (auto a = stringItem(plist_array_get_item(list, i))) addresses.insert(*a);
    if (!addresses.count(s.address) || !addresses.count(s.senderAddress))
        s.violations.push_back("SETPEERS does not name the receiver and the sender");
    return {};
}

Reply setParameter(ReceiverState& s, const Request& r) {
    const std::string type = r.header("content-type");
    if (type == "application/x-dmap-tagged" || type == "image/jpeg" || type == "image/png") {
        if (r.header("rtp-info").rfind("rtptime=", 0) != 0)
            s.violations.push_back("track metadata without its RTP time");
        if (type == "application/x-dmap-tagged" && r.body.compare(0, 4, "mlit") != 0)
            s.violations.push_back("DMAP metadata that is no listing item");
        if (type == "application/x-dmap-tagged") s.trackText = r.body;
        return {};
    }
    const std::string volume = "volume: ", progress = "progress: ";
    if (type == "text/parameters" && r.body.compare(0, progress.size(), progress) == 0) return {};
    if (type != "text/parameters" || r.body.compare(0, volume.size(), volume) != 0) {
        s.violations.push_back("SET_PARAMETER with something this receiver does not take");
        return {400};
    }
    char* end = nullptr;
    const double db = std::strtod(r.body.c_str() + volume.size(), &end);
    if (end == r.body.c_str() + volume.size() || !(db == -144.0 || (db >= -30.0 && db <= 0.0)))
        s.violations.push_back("SET_PARAMETER: a volume out of range");
    s.volumeDb = db;
    return {};
}

Reply handleRequest(ReceiverState& s, const Request& r, bool encrypted,
                    std::optional<hap::ChannelKeys>& keys) {
    const std::string what = r.method + " " + r.uri;
    if (r.method == "GET" && r.uri == "/info") return info();
    if (r.method == "POST" && r.uri == "/pair-setup") return pairSetup(s, r, keys);
    if (r.method == "POST" && r.uri == "/pair-verify") return pairVerify(s, r, keys);
    if (!encrypted) {
        s.violations.push_back(what + " before pairing");
        return {470};
    }
    if (r.method == "POST" && r.uri == "/feedback") return {};
    const bool plistBody = r.header("content-type") == "application/x-apple-binary-plist";
    if (r.method == "SETUP") {
        Plist body = readPlist(r.body);
        plist_t dict = static_cast<plist_t>(body.get());
        if (!plistBody || !dict || plist_get_node_type(dict) != PLIST_DICT) {
            s.violations.push_back("SETUP without a binary plist dictionary");
            return {400};
        }
        if (plist_dict_get_item(dict, "streams")) {
            if (!s.sessionSetUp) s.violations.push_back("stream SETUP before the session's");
            return streamSetup(s, dict);
        }
        return sessionSetup(s, dict);
    }
    if (r.method == "RECORD") {
        if (!s.sessionSetUp) s.violations.push_back("RECORD before SETUP");
        s.recorded = true;
        return {};
    }
    if (r.method == "SETPEERS") {
        if (!plistBody) s.violations.push_back("SETPEERS without a binary plist");
        return setPeers(s, r);
    }
    if (r.method == "SET_PARAMETER") return setParameter(s, r);
    if (r.method == "FLUSH") return {};
    if (r.method == "TEARDOWN") {
        s.tornDown = true;
        return {};
    }
    s.violations.push_back("an unknown request: " + what);
    return {501};
}

}  // namespace

Ap2TestReceiver::Ap2TestReceiver(std::string address, int port)
    : address_(std::move(address)), port_(port), state_(std::make_unique<ReceiverState>()) {
    listenFd_ = tcpListener(address_, port_);
    stopFd_ = eventfd(0, EFD_CLOEXEC);
    ReceiverState& s = *state_;
    s.address = address_;
    s.dataFd = udpSocket(address_, s.dataPort);
    s.controlFd = udpSocket(address_, s.controlPort);
    s.eventFd = tcpListener(address_, s.eventPort);
    int any = 0;
    s.ptpFd = udpSocket(address_, any);
    control_ = std::thread([this] { serveControl(); });
    media_ = std::thread([this] { serveMedia(); });
}

Ap2TestReceiver::~Ap2TestReceiver() {
    const uint64_t one = 1;
    [[maybe_unused]] ssize_t n = write(stopFd_, &one, sizeof one);
    control_.join();
    media_.join();
    ReceiverState& s = *state_;
    for (int fd :
         {listenFd_, stopFd_, s.dataFd, s.controlFd, s.eventFd, s.eventConnection, s.ptpFd})
        if (fd >= 0) close(fd);
}

void Ap2TestReceiver::serveControl() {
    pollfd waitFds[2] = {{listenFd_, POLLIN, 0}, {stopFd_, POLLIN, 0}};
    while (poll(waitFds, 2, -1) > 0 && !waitFds[1].revents) {
        const int fd = accept4(listenFd_, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0) continue;
        {
            // A new session: what the one before set up is gone.
            std::lock_guard lock(mutex_);
            ReceiverState& s = *state_;
            s.srp.reset();
            s.verifyShared.clear();
            s.sessionSetUp = s.recorded = s.streamSetUp = s.ptp = s.tornDown = false;
            s.senderTimingPort = 0;
            s.audioPackets = 0;
            s.lostSeq.reset();
            s.newestSeq.reset();
            s.nonces.clear();
            s.firstRtp.reset();
            s.packets.clear();
            s.anchor.reset();
            s.syncs = 0;
            if (s.eventConnection >= 0) close(s.eventConnection);
            s.eventConnection = -1;
        }
        serveConnection(fd);
        close(fd);
    }
}

void Ap2TestReceiver::serveConnection(int fd) {
    {
        sockaddr_in peer{};
        socklen_t len = sizeof peer;
        getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &len);
        char text[INET_ADDRSTRLEN] = {};
        inet_ntop(AF_INET, &peer.sin_addr, text, sizeof text);
        std::lock_guard lock(mutex_);
        state_->senderAddress = text;
    }
    std::optional<hap::FrameSealer> sealer;
    std::optional<hap::FrameOpener> opener;
    std::optional<hap::ChannelKeys> pendingKeys;
    std::string plain;
    char buf[4096];
    pollfd fds[2] = {{fd, POLLIN, 0}, {stopFd_, POLLIN, 0}};
    while (poll(fds, 2, -1) > 0 && !fds[1].revents) {
        const ssize_t n = read(fd, buf, sizeof buf);
        if (n <= 0) break;
        if (opener) {
            if (opener->append(std::string_view(buf, static_cast<size_t>(n)), plain) ==
                hap::FrameOpener::State::broken) {
                std::lock_guard lock(mutex_);
                state_->violations.push_back("a frame of the encrypted channel did not open");
                break;
            }
        } else {
            plain.append(buf, static_cast<size_t>(n));
        }
        bool malformed = false;
        while (auto request = takeRequest(plain, malformed)) {
            Reply reply;
            {
                std::lock_guard lock(mutex_);
                state_->requests.push_back(request->method + " " + request->uri);
                reply = handleRequest(*state_, *request, opener.has_value(), pendingKeys);
            }
            std::string out = "RTSP/1.0 " + std::to_string(reply.status) +
                              (reply.status == 200 ? " OK" : " Error") +
                              "\r\nCSeq: " + request->header("cseq") +
                              "\r\nServer: AirTunes/377.40.00\r\n";
            if (!reply.body.empty()) out += "Content-Type: " + reply.contentType + "\r\n";
            out += "Content-Length: " + std::to_string(reply.body.size()) + "\r\n\r\n" + reply.body;
            std::string wire;
            if (sealer)
                sealer->seal(out, wire);
            else
                wire = out;
            if (send(fd, wire.data(), wire.size(), MSG_NOSIGNAL) < 0) break;
            if (pendingKeys) {
                // The answer that ends pairing goes in clear; all after it is sealed.
                sealer.emplace(pendingKeys->outgoing);
                opener.emplace(pendingKeys->incoming);
                if (!plain.empty()) {
                    std::string rest;
                    rest.swap(plain);
                    opener->append(rest, plain);
                }
                pendingKeys.reset();
            }
        }
        if (malformed) {
            std::lock_guard lock(mutex_);
            state_->violations.push_back("a request that does not parse");
            break;
        }
    }
}

namespace {

void requestResend(ReceiverState& s, uint16_t seq, uint16_t count) {
    uint8_t request[8] = {0x80,
                          0xD5,
                          0x00,
                          0x01,
                          static_cast<uint8_t>(seq >> 8),
                          static_cast<uint8_t>(seq),
                          static_cast<uint8_t>(count >> 8),
                          static_cast<uint8_t>(count)};
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(static_cast<uint16_t>(s.senderControlPort));
    inet_pton(AF_INET, s.senderAddress.c_str(), &to.sin_addr);
    sendto(s.controlFd, request, sizeof request, 0, reinterpret_cast<sockaddr*>(&to), sizeof to);
}

void audioPacket(ReceiverState& s, std::span<const uint8_t> p, bool resent) {
    if (!s.streamSetUp) {
        s.violations.push_back("audio before the stream SETUP");
        return;
    }
    if (p.size() < kHeaderBytes + kTagBytes + kNonceTailBytes + 1 || p[0] != 0x80 ||
        (p[1] & 0x7f) != kAudioType) {
        s.violations.push_back("a datagram on the data port that is no audio packet");
        return;
    }
    const uint16_t seq = be16(&p[2]);
    const uint32_t rtp = be32(&p[4]);
    if (s.ptp && be32(&p[8]) != 0) s.violations.push_back("an SSRC other than 0 under PTP");
    if (!resent) {
        // What a gap in the numbers lost on the way (a busy host drops
        // datagrams too) is asked for again, as receivers do.
        const auto ahead = s.newestSeq ? static_cast<int16_t>(seq - *s.newestSeq) : int16_t{1};
        if (ahead > 1)
            requestResend(s, static_cast<uint16_t>(*s.newestSeq + 1),
                          static_cast<uint16_t>(std::min<int>(ahead - 1, kMaxResendCount)));
        if (ahead > 0) s.newestSeq = seq;
    }
    if (!resent && ++s.audioPackets == kLostPacketIndex) {
        // Lost on the way: asked for again at once, before the next shows the gap.
        s.lostSeq = seq;
        requestResend(s, seq, 1);
        return;
    }
    if (resent && s.lostSeq == seq) ++s.resent;
    uint64_t tail = 0;
    for (size_t i = 0; i < kNonceTailBytes; ++i)
        tail |= uint64_t{p[p.size() - kNonceTailBytes + i]} << (8 * i);
    if (auto [it, fresh] = s.nonces.emplace(tail, seq); !fresh && it->second != seq)
        s.violations.push_back("a nonce used for two packets");
    hap::Bytes nonce(4 + kNonceTailBytes, 0);
    for (size_t i = 0; i < kNonceTailBytes; ++i) nonce[4 + i] = p[p.size() - kNonceTailBytes + i];
    const hap::Bytes aad(p.begin() + 4, p.begin() + kHeaderBytes);
    const hap::Bytes sealed(p.begin() + kHeaderBytes, p.end() - kNonceTailBytes);
    const auto frame = hap::chachaOpen(s.audioKey, nonce, aad, sealed);
    if (!frame) {
        s.violations.push_back("an audio packet that does not open with the stream's key");
        return;
    }
    const auto samples = decodeVerbatimAlac(*frame, kFramesPerPacket);
    if (!samples) {
        s.violations.push_back("an audio packet whose ALAC frame does not decode");
        return;
    }
    if (!s.firstRtp) {
        if (!(p[1] & 0x80)) s.violations.push_back("the first audio packet has no marker");
        s.firstRtp = rtp;
    }
    const uint32_t offset = rtp - *s.firstRtp;
    if (offset % kFramesPerPacket != 0) s.violations.push_back("an RTP time off the packet grid");
    s.packets[offset] = *samples;
    s.frames += samples->size() / 2;
    for (int16_t v : *samples) s.peak = std::max(s.peak, std::abs(int{v}));
}

// Where the sync packets put the stream: `heard` is heard at `ns`.
void anchorAt(ReceiverState& s, uint32_t heard, int64_t ns) {
    if (!s.anchor) {
        s.anchor = {heard, ns};
        return;
    }
    const int64_t frames = static_cast<int32_t>(heard - s.anchor->first);
    const int64_t expected = s.anchor->second + frames * kNsPerSecond / kSampleRate;
    s.syncDeviationNs = std::max(s.syncDeviationNs, std::abs(ns - expected));
}

// Under PTP: bytes 4-7 less 11035 frames are heard at the PTP time of 8-15.
void ptpSync(ReceiverState& s, std::span<const uint8_t> p) {
    if (be64(&p[20]) != s.clockID)
        s.violations.push_back("a sync packet names a clock other than the SETUP's");
    if (static_cast<int32_t>(be32(&p[16]) - be32(&p[4])) < -static_cast<int32_t>(kAnchorFrames))
        s.violations.push_back("a sync packet with a negative latency");
    anchorAt(s, be32(&p[4]) - kAnchorFrames, static_cast<int64_t>(be64(&p[8])));
}

// Under NTP: bytes 16-19 are heard at the NTP time of 8-15 plus the latency,
// which is their distance from bytes 4-7 and the receiver's fixed 11025.
void ntpSync(ReceiverState& s, std::span<const uint8_t> p) {
    const uint32_t now = be32(&p[16]);
    const int64_t latency = int64_t{now - be32(&p[4])} + kNtpFixedLatencyFrames;
    const uint64_t ntp = be64(&p[8]);
    const int64_t unixNs = (static_cast<int64_t>(ntp >> 32) - kNtpUnixEpochSeconds) * kNsPerSecond +
                           static_cast<int64_t>(((ntp & 0xffffffffu) * kNsPerSecond) >> 32);
    anchorAt(s, now, unixNs + latency * kNsPerSecond / kSampleRate);
}

void controlPacket(ReceiverState& s, std::span<const uint8_t> p) {
    if (p.size() < 4) {
        s.violations.push_back("a runt on the control port");
        return;
    }
    const uint8_t type = p[1] & 0x7f;
    if (type == kResendType) {
        audioPacket(s, p.subspan(4), true);
        return;
    }
    if (type == kTimingReplyType && !s.ptp) return;  // the clock is ours, on this host
    const bool ptpSync =
        s.ptp && type == kSyncType && p.size() == kSyncBytes && be16(&p[2]) == kSyncBytes / 4 - 1;
    const bool ntpSync =
        !s.ptp && type == kNtpSyncType && p.size() == kNtpSyncBytes && be16(&p[2]) == 7;
    if (!ptpSync && !ntpSync) {
        s.violations.push_back("a datagram on the control port that is neither sync nor resend");
        return;
    }
    if (s.syncs++ == 0 && p[0] != 0x90)
        s.violations.push_back("the first sync is not marked first");
    if (ptpSync)
        vt::airplay_test::ptpSync(s, p);
    else
        vt::airplay_test::ntpSync(s, p);
}

void sendTimingRequest(ReceiverState& s) {
    uint8_t request[32] = {0x80, 0xD2, 0x00, 0x07};
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(static_cast<uint16_t>(s.senderTimingPort));
    inet_pton(AF_INET, s.senderAddress.c_str(), &to.sin_addr);
    sendto(s.controlFd, request, sizeof request, 0, reinterpret_cast<sockaddr*>(&to), sizeof to);
}

void sendDelayRequest(ReceiverState& s, uint16_t sequence) {
    ptp::Message m;
    m.type = ptp::MessageType::delayReq;
    m.transportSpecific = 1;
    m.flags = ptp::flag::unicast;
    m.source.clock = {0x0a, 0x0b, 0x0c, 0xff, 0xfe, 0x0d, 0x0e, 0x0f};
    m.source.port = 1;
    m.sequenceId = sequence;
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    m.timestamp = ptp::Timestamp::fromNs(int64_t{now.tv_sec} * kNsPerSecond + now.tv_nsec);
    const std::vector<uint8_t> bytes = ptp::encodeMessage(m);
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(kPtpEventPort);
    inet_pton(AF_INET, s.senderAddress.c_str(), &to.sin_addr);
    sendto(s.ptpFd, bytes.data(), bytes.size(), 0, reinterpret_cast<sockaddr*>(&to), sizeof to);
}

}  // namespace

void Ap2TestReceiver::serveMedia() {
    ReceiverState& s = *state_;
    pollfd fds[4] = {{s.dataFd, POLLIN, 0},
                     {s.controlFd, POLLIN, 0},
                     {s.eventFd, POLLIN, 0},
                     {stopFd_, POLLIN, 0}};
    uint16_t ptpSequence = 0;
    uint8_t buf[2048];
    auto nextClockRequest = std::chrono::steady_clock::now();
    for (;;) {
        const int ready = poll(fds, 4, kClockRequestIntervalMs);
        if (ready < 0 || fds[3].revents) return;
        std::lock_guard lock(mutex_);
        if (fds[2].revents & POLLIN) {
            const int fd = accept4(s.eventFd, nullptr, nullptr, SOCK_CLOEXEC);
            if (s.eventConnection >= 0) s.violations.push_back("a second event connection");
            if (s.eventConnection < 0)
                s.eventConnection = fd;
            else
                close(fd);
        }
        if (fds[0].revents & POLLIN) {
            const ssize_t n = recv(s.dataFd, buf, sizeof buf, 0);
            if (n > 0) audioPacket(s, {buf, static_cast<size_t>(n)}, false);
        }
        if (fds[1].revents & POLLIN) {
            const ssize_t n = recv(s.controlFd, buf, sizeof buf, 0);
            if (n > 0) controlPacket(s, {buf, static_cast<size_t>(n)});
        }
        const auto now = std::chrono::steady_clock::now();
        if (now >= nextClockRequest && !s.senderAddress.empty() && (s.ptp || s.senderTimingPort)) {
            if (s.ptp)
                sendDelayRequest(s, ptpSequence++);
            else
                sendTimingRequest(s);
            nextClockRequest = now + std::chrono::milliseconds(kClockRequestIntervalMs);
        }
    }
}

std::vector<std::string> Ap2TestReceiver::violations() const {
    std::lock_guard lock(mutex_);
    std::vector<std::string> all = state_->violations;
    if (state_->sessionSetUp && state_->eventConnection < 0)
        all.push_back("the sender never opened the event connection");
    return all;
}

std::vector<std::string> Ap2TestReceiver::requests() const {
    std::lock_guard lock(mutex_);
    return state_->requests;
}

std::optional<double> Ap2TestReceiver::volumeDb() const {
    std::lock_guard lock(mutex_);
    return state_->volumeDb;
}

hap::Bytes Ap2TestReceiver::pairWith(const std::string& controllerID,
                                     const hap::Bytes& controllerPublicKey) {
    std::lock_guard lock(mutex_);
    state_->controllerID = controllerID;
    state_->controllerPublicKey = controllerPublicKey;
    return state_->identity.publicKey;
}

std::string Ap2TestReceiver::trackText() const {
    std::lock_guard lock(mutex_);
    return state_->trackText;
}

int Ap2TestReceiver::peakLevel() const {
    std::lock_guard lock(mutex_);
    return state_->peak;
}

size_t Ap2TestReceiver::framesReceived() const {
    std::lock_guard lock(mutex_);
    return state_->frames;
}

int Ap2TestReceiver::resentPackets() const {
    std::lock_guard lock(mutex_);
    return state_->resent;
}

int Ap2TestReceiver::syncPackets() const {
    std::lock_guard lock(mutex_);
    return state_->syncs;
}

int64_t Ap2TestReceiver::syncDeviationNs() const {
    std::lock_guard lock(mutex_);
    return state_->syncDeviationNs;
}

bool Ap2TestReceiver::tornDown() const {
    std::lock_guard lock(mutex_);
    return state_->tornDown;
}

std::optional<PlayedAudio> Ap2TestReceiver::played() const {
    std::lock_guard lock(mutex_);
    const ReceiverState& s = *state_;
    if (!s.firstRtp || !s.anchor || s.packets.empty()) return std::nullopt;
    PlayedAudio out;
    out.firstRtp = *s.firstRtp;
    const int64_t fromAnchor = static_cast<int32_t>(*s.firstRtp - s.anchor->first);
    out.firstFrameNs = s.anchor->second + fromAnchor * kNsPerSecond / kSampleRate;
    const uint32_t last = s.packets.rbegin()->first;
    for (uint32_t offset = 0; offset <= last; offset += kFramesPerPacket) {
        auto it = s.packets.find(offset);
        if (it == s.packets.end()) {
            ++out.missingPackets;
            out.samples.insert(out.samples.end(), kFramesPerPacket * 2, 0);
        } else {
            out.samples.insert(out.samples.end(), it->second.begin(), it->second.end());
        }
    }
    return out;
}

}  // namespace vt::airplay_test
