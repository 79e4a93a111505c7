#include "session_requests.h"

#include <plist/plist.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <set>

#include "airplay_tool/hap/tlv8.h"

namespace vt::airplay_test {

namespace {

constexpr const char* kTransientCode = "3939";
constexpr size_t kMaxRequestBytes = 1 << 20;

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

// As receivers do: nothing held from the point the RTP-Info names is played.
Reply flush(ReceiverState& s, const Request& r) {
    unsigned seq = 0, rtptime = 0;
    if (std::sscanf(r.header("rtp-info").c_str(), "seq=%u;rtptime=%u", &seq, &rtptime) != 2 ||
        seq > 0xffff) {
        s.violations.push_back("a FLUSH without seq and rtptime in its RTP-Info");
        return {400};
    }
    s.flushFrom = {static_cast<uint16_t>(seq), static_cast<uint32_t>(rtptime)};
    if (s.firstRtp)
        std::erase_if(s.packets, [&](const auto& packet) {
            return static_cast<int32_t>(*s.firstRtp + packet.first - rtptime) >= 0;
        });
    return {};
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
    s.streamKey.assign(key, key + keyLength);
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

}  // namespace

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
    if (r.method == "FLUSH") return flush(s, r);
    if (r.method == "TEARDOWN") {
        s.tornDown = true;
        return {};
    }
    s.violations.push_back("an unknown request: " + what);
    return {501};
}

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

}  // namespace vt::airplay_test
