#include "airplay_tool/pairing_exchange.h"

#include "airplay_tool/hap/pair_verify.h"

namespace vt::airplay_tool {

namespace {

constexpr int kHttpOk = 200;
constexpr int kHttpNotFound = 404;
// X-Apple-HKP: 3 for pairings that are kept, 4 for transient ones.
constexpr const char* kHkpNormal = "3";
constexpr const char* kHkpTransient = "4";

PairingError transportError(std::string detail, int http = 0) {
    return {hap::PairingFailure{hap::PairingFailure::Kind::refused, std::move(detail)}, http};
}

template <class T>
PairingOutcome<T> failed(PairingError error) {
    return {std::nullopt, std::move(error)};
}

template <class T>
PairingOutcome<T> failed(const hap::PairingFailure& failure) {
    return {std::nullopt, {failure, 0}};
}

}  // namespace

PairingExchange::Answer PairingExchange::post(const std::string& path, const hap::Bytes& body,
                                              bool transient) {
    RtspRequest r;
    r.method = "POST";
    r.uri = path;
    r.add("Content-Type", "application/octet-stream");
    r.add("X-Apple-HKP", transient ? kHkpTransient : kHkpNormal);
    r.body.assign(body.begin(), body.end());
    RtspResult result = rtsp_.request(std::move(r), timeoutMs_);
    if (!result.response) return {std::nullopt, transportError(result.error)};
    const int status = result.response->status;
    if (status != kHttpOk)
        return {std::nullopt, transportError("the receiver answered " + path + " with HTTP " +
                                                 std::to_string(status),
                                             status)};
    const std::string& text = result.response->body;
    return {hap::Bytes(text.begin(), text.end()), {}};
}

std::optional<PairingError> PairingExchange::startPinDisplay() {
    Answer answer = post("/pair-pin-start", {}, false);
    if (answer.body || answer.error.http == kHttpNotFound) return std::nullopt;
    return answer.error;
}

PairingOutcome<hap::Bytes> PairingExchange::pairTransient(const std::string& code) {
    hap::PairSetupClient client(code);
    Answer m2 = post("/pair-setup", client.m1(), true);
    if (!m2.body) return failed<hap::Bytes>(m2.error);
    auto m3 = client.m3(*m2.body);
    if (!m3) return failed<hap::Bytes>(m3.failure());
    Answer m4 = post("/pair-setup", *m3, true);
    if (!m4.body) return failed<hap::Bytes>(m4.error);
    auto done = client.m5(*m4.body);
    if (!done) return failed<hap::Bytes>(done.failure());
    return {client.sessionKey(), {}};
}

PairingOutcome<hap::PairingCredentials> PairingExchange::pairWithPin(
    const std::string& code, const hap::ControllerIdentity& identity) {
    using Out = hap::PairingCredentials;
    hap::PairSetupClient client(code, identity);
    Answer m2 = post("/pair-setup", client.m1(), false);
    if (!m2.body) return failed<Out>(m2.error);
    auto m3 = client.m3(*m2.body);
    if (!m3) return failed<Out>(m3.failure());
    Answer m4 = post("/pair-setup", *m3, false);
    if (!m4.body) return failed<Out>(m4.error);
    auto m5 = client.m5(*m4.body);
    if (!m5) return failed<Out>(m5.failure());
    Answer m6 = post("/pair-setup", *m5, false);
    if (!m6.body) return failed<Out>(m6.error);
    auto accessory = client.finish(*m6.body);
    if (!accessory) return failed<Out>(accessory.failure());
    return {Out{identity.seed, identity.publicKey, accessory->publicKey}, {}};
}

PairingOutcome<hap::Bytes> PairingExchange::verify(const hap::PairingCredentials& credentials,
                                                   const std::string& controllerID) {
    hap::PairVerifyClient client(credentials, controllerID);
    Answer m2 = post("/pair-verify", client.m1(), false);
    if (!m2.body) return failed<hap::Bytes>(m2.error);
    auto m3 = client.m3(*m2.body);
    if (!m3) return failed<hap::Bytes>(m3.failure());
    Answer m4 = post("/pair-verify", *m3, false);
    if (!m4.body) return failed<hap::Bytes>(m4.error);
    auto secret = client.finish(*m4.body);
    if (!secret) return failed<hap::Bytes>(secret.failure());
    return {*secret, {}};
}

}  // namespace vt::airplay_tool
