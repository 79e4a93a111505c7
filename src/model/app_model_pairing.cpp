// The PIN sheet's side of the model: one pairing run of the AirPlay tool at
// a time, and the credentials it leaves, kept in the settings by receiver.
#include "airplay/airplay_tool.h"
#include "airplay/receiver_traits.h"
#include "model/app_model.h"

namespace vt::model {

namespace {
constexpr const char* credentialsKey = "airplayCreds";
}  // namespace

bool AppModel::canPair(int slot) const {
    if (!airplay_ || validSlot(slot) < 0 || !rows_[slot].airplayID) return false;
    if (!airplay::AirPlayTool::binaryURL()) return false;
    for (const auto& r : airplayReceivers_)
        if (r.id == *rows_[slot].airplayID) return !airplay::isAirPlay1(r);
    return false;
}

void AppModel::beginPairing(int slot) {
    if (!canPair(slot)) return;
    if (pairing_) pairing_->cancel();
    endPairing();
    const std::string id = *rows_[slot].airplayID;
    pairingReceiverID_ = id;
    pairingReceiverName_ = rows_[slot].shownName();
    discovery::AirPlayReceiver receiver;
    for (const auto& r : airplayReceivers_)
        if (r.id == id) receiver = r;
    pairing_ = std::make_unique<airplay::AirPlayPairing>(*airplay::AirPlayTool::binaryURL(),
                                                         receiver, airplayDeviceID(), main_);
    pairing_->onEvent = [this](const airplay::AirPlayPairing::Event& e) { pairingEvent(e); };
    pairing_->start();
    stateChanged();
}

void AppModel::submitPIN(const std::string& typed) {
    if (pairing_) pairing_->submitPIN(typed);
}

void AppModel::pairingEvent(const airplay::AirPlayPairing::Event& event) {
    using Kind = airplay::AirPlayPairing::Event::Kind;
    switch (event.kind) {
        case Kind::connecting:
            return;
        case Kind::awaitingPIN:
            pairingAwaitingPIN_ = true;
            pairingError_.reset();
            break;
        case Kind::paired: {
            if (!pairingReceiverID_) return;
            const std::string id = *pairingReceiverID_;
            setAirplayCredential(event.credential, id);
            endPairing();
            // A sender with the credential takes the place of the one refused.
            for (int s = 0; s < int(rows_.size()); ++s)
                if (rows_[s].airplayID == id && airplay_) airplay_->passwordGiven(s);
            return;
        }
        case Kind::failed:
            pairingError_ = event.text;
            pairingAwaitingPIN_ = false;
            break;
    }
    stateChanged();
}

void AppModel::endPairing() {
    if (pairing_) {
        pairing_->cancel();
        // Not destroyed here: endPairing may be called from its own event.
        main_.post([done = std::shared_ptr<airplay::AirPlayPairing>(std::move(pairing_))] {});
    }
    pairingReceiverID_.reset();
    pairingReceiverName_.reset();
    pairingAwaitingPIN_ = false;
    pairingError_.reset();
    stateChanged();
}

std::optional<airplay::AirPlayCredential> AppModel::airplayCredential(
    const std::string& receiverID) const {
    const nlohmann::json stored = settings_.value(credentialsKey);
    if (!stored.is_object()) return std::nullopt;
    auto it = stored.find(receiverID);
    if (it == stored.end() || !it->is_object()) return std::nullopt;
    const auto dacp = it->value("dacp", nlohmann::json());
    const auto creds = it->value("creds", nlohmann::json());
    if (!dacp.is_string() || !creds.is_string() || creds.get<std::string>().empty())
        return std::nullopt;
    return airplay::AirPlayCredential{dacp.get<std::string>(), creds.get<std::string>()};
}

void AppModel::setAirplayCredential(const airplay::AirPlayCredential& credential,
                                    const std::string& receiverID) {
    nlohmann::json stored = settings_.value(credentialsKey);
    if (!stored.is_object()) stored = nlohmann::json::object();
    stored[receiverID] = {{"dacp", credential.dacp}, {"creds", credential.creds}};
    settings_.setValue(credentialsKey, stored);
}

}  // namespace vt::model
