// The model's side of AirPlay: the supervisor's hooks into the rows, the
// engine and the settings, and the password sheet.
#include <cstdio>
#include <random>

#include "airplay/airplay_tool.h"
#include "airplay/receiver_traits.h"
#include "model/app_model.h"

namespace vt::model {

namespace {
constexpr const char* routesKey = "airplayRoutes";
constexpr const char* deviceIDKey = "airplayDeviceID";
constexpr const char* credentialsKey = "airplayCreds";
constexpr const char* ntpFlagKey = "airplayNTP";
constexpr double airplayRate = 44100.0;
}  // namespace

void AppModel::enableAirPlay(secrets::SecretStore& secrets) {
    if (airplay_) return;
    passwords_ = std::make_unique<secrets::AirPlayPasswordStore>(secrets);
    airplay::AirPlaySupervisor::Hooks hooks;
    hooks.engineRunning = [this] { return isRunning_; };
    hooks.rows = [this] {
        std::vector<airplay::AirPlaySupervisor::Row> out;
        for (int s = 0; s < int(rows_.size()); ++s)
            if (rows_[s].airplayID && !rows_[s].disabled)
                out.push_back({s, *rows_[s].airplayID, rows_[s].heldAfterRestart});
        return out;
    };
    hooks.tool = [] { return airplay::AirPlayTool::binaryURL(); };
    hooks.prepareSlot = [this](int slot) { engine_->prepareAirPlaySlot(slot, airplayRate); };
    // The engine outlives every sender: the model stops them before it goes.
    hooks.render = [engine = engine_.get()](int slot, float* into, uint32_t frames) {
        engine->renderAirPlay(slot, into, frames);
    };
    hooks.statusChanged = [this](int slot, const std::optional<airplay::AirPlayStatus>& status,
                                 bool connected) {
        if (validSlot(slot) < 0) return;
        rows_[slot].airplayStatus = status;
        rows_[slot].connected = connected;
        stateChanged();
    };
    hooks.latencyChanged = [this](int slot, double ms) {
        if (validSlot(slot) < 0 || rows_[slot].streamLatencyMs == ms) return;
        rows_[slot].streamLatencyMs = ms;
        pushDelays();
        stateChanged();
    };
    hooks.connectingChanged = [this](int slot, bool waiting) {
        if (validSlot(slot) < 0) return;
        RowState& row = rows_[slot];
        if (!waiting)
            row.connectingSince.reset();
        else if (!row.connectingSince)
            row.connectingSince = main_.now();
        row.connectStalled = false;
    };
    hooks.askPassword = [this](int slot) {
        if (validSlot(slot) < 0 || rows_[slot].passwordOffered) return;
        rows_[slot].passwordOffered = true;
        beginPassword(slot);
    };
    hooks.password = [this](const std::string& id) { return passwords_->password(id); };
    hooks.askPairing = [this](int slot) {
        if (validSlot(slot) < 0 || rows_[slot].pairingOffered) return;
        rows_[slot].pairingOffered = true;
        beginPairing(slot);
    };
    hooks.credential = [this](const std::string& id) { return airplayCredential(id); };
    hooks.route = [this](const std::string& id) { return airplayRoute(id); };
    hooks.setRoute = [this](const std::string& id, const std::optional<std::string>& route) {
        setAirplayRoute(id, route);
    };
    hooks.deviceID = [this] { return airplayDeviceID(); };
    airplay_ = std::make_unique<airplay::AirPlaySupervisor>(main_, std::move(hooks));
    airplay_->setReceivers(airplayReceivers_);
    pruneAirplayCredentials(airplayDeviceID());
    clearAirplayNTPFlags();
}

void AppModel::pruneAirplayCredentials(const std::string& deviceID) {
    const nlohmann::json stored = settings_.value(credentialsKey);
    if (!stored.is_object()) return;
    // A pairing belongs to the id this computer gave the receiver then: one
    // made under another id (a copied settings file, a reset id) is void.
    nlohmann::json kept = nlohmann::json::object();
    for (auto it = stored.begin(); it != stored.end(); ++it)
        if (it->is_object() && it->value("dacp", nlohmann::json()) == deviceID)
            kept[it.key()] = *it;
    if (kept != stored) settings_.setValue(credentialsKey, kept);
}

void AppModel::clearAirplayNTPFlags() {
    // The timing a receiver fell back to is learnt afresh each run.
    if (!settings_.value(ntpFlagKey).is_null()) settings_.removeValue(ntpFlagKey);
}

std::string AppModel::airplayDeviceID() {
    nlohmann::json stored = settings_.value(deviceIDKey);
    if (stored.is_string() && !stored.get<std::string>().empty()) return stored.get<std::string>();
    // A locally administered unicast MAC-shaped id, as receivers expect.
    std::random_device random;
    char id[18];
    std::snprintf(id, sizeof id, "%02X:%02X:%02X:%02X:%02X:%02X", (random() & 0xFC) | 0x02,
                  random() & 0xFF, random() & 0xFF, random() & 0xFF, random() & 0xFF,
                  random() & 0xFF);
    settings_.setValue(deviceIDKey, id);
    return id;
}

std::optional<std::string> AppModel::airplayRoute(const std::string& receiverID) const {
    const nlohmann::json routes = settings_.value(routesKey);
    if (!routes.is_object()) return std::nullopt;
    auto it = routes.find(receiverID);
    if (it == routes.end() || !it->is_string()) return std::nullopt;
    // Only the compatible route is ever kept; anything else means the native one.
    if (it->get<std::string>() != airplay::AirPlaySender::compatRoute) return std::nullopt;
    return it->get<std::string>();
}

void AppModel::setAirplayRoute(const std::string& receiverID,
                               const std::optional<std::string>& route) {
    nlohmann::json routes = settings_.value(routesKey);
    if (!routes.is_object()) routes = nlohmann::json::object();
    if (route)
        routes[receiverID] = *route;
    else
        routes.erase(receiverID);
    settings_.setValue(routesKey, routes);
}

bool AppModel::leadsOwnGroup(int slot) const {
    if (validSlot(slot) < 0 || !rows_[slot].airplayID) return false;
    for (const auto& r : airplayReceivers_)
        if (r.id == *rows_[slot].airplayID) return airplay::leadsOwnGroup(r);
    return false;
}

bool AppModel::canEnterPassword(int slot) const {
    return passwords_ && validSlot(slot) >= 0 && rows_[slot].airplayID.has_value();
}

void AppModel::beginPassword(int slot) {
    if (!canEnterPassword(slot)) return;
    passwordReceiverID_ = *rows_[slot].airplayID;
    passwordReceiverName_ = rows_[slot].shownName();
    // Opening while one is kept means the receiver refused it.
    passwordRejected_ = passwords_->password(*passwordReceiverID_).has_value();
    stateChanged();
}

void AppModel::submitPassword(const std::string& text) {
    if (!passwordReceiverID_ || !passwords_) return;
    const std::string id = *passwordReceiverID_;
    passwords_->set(text, id);
    setAirplayRoute(id, std::nullopt);
    endPassword();
    for (int s = 0; s < int(rows_.size()); ++s)
        if (rows_[s].airplayID == id) {
            rows_[s].passwordOffered = false;
            if (airplay_) airplay_->passwordGiven(s);
        }
}

void AppModel::endPassword() {
    passwordReceiverID_.reset();
    passwordReceiverName_.reset();
    passwordRejected_ = false;
    stateChanged();
}

}  // namespace vt::model
