#include "discovery/airplay_browser.h"

#include <algorithm>

#include "net/text.h"

namespace vt::discovery {

bool namesInOrder(const std::string& a, const std::string& b) {
    const std::string la = net::toLowerAscii(a), lb = net::toLowerAscii(b);
    return la != lb ? la < lb : a < b;
}

AirPlayBrowser::AirPlayBrowser(ServiceBrowser& services, dispatch::MainQueue& main,
                               std::function<LocalIdentity()> identity)
    : services_(services),
      main_(main),
      identity_(std::move(identity)),
      resolvers_(services, main) {}

std::string AirPlayBrowser::idOf(const std::string& rawName) {
    const size_t at = rawName.find('@');
    return at == std::string::npos ? rawName : rawName.substr(at + 1);
}

void AirPlayBrowser::start() {
    if (!browsers_.empty()) return;
    for (const char* type : {airplayType, raopType}) {
        const std::string t = type;
        browsers_.push_back(services_.browse(
            t, [this, t](const std::vector<ServiceResult>& results) { handle(t, results); }));
    }
    sweep_ = main_.repeat(sweepSeconds, [this] { resolveUnresolved(false); });
}

void AirPlayBrowser::stop() {
    sweep_.reset();
    browsers_.clear();
    resolvers_.clear();
    found_.clear();
    endpoints_.clear();
    advertised_.clear();
    rawNames_.clear();
    publish();
}

void AirPlayBrowser::handle(const std::string& type, const std::vector<ServiceResult>& results) {
    const bool airplay2 = type == airplayType;
    std::set<std::string> seen;
    for (const ServiceResult& result : results) {
        const std::string id = idOf(result.name);
        if (id.empty()) continue;
        rawNames_[id] = result.name;
        auto [it, added] = found_.try_emplace(id);
        AirPlayReceiver& receiver = it->second;
        if (added) {
            receiver.id = id;
            receiver.name = id;
        }
        // New values win; keys the new set lacks stay.
        for (const auto& [key, value] : result.txt) receiver.txt[key] = value;
        if (airplay2) receiver.supportsAirPlay2 = true;
        if (!receiver.host && result.address) {
            receiver.host = result.address->host;
            receiver.port = result.address->port;
        }
        seen.insert(id);
        endpoints_[id] = ServiceEndpoint{type, result.name};
        if (!receiver.host) resolve(id);
    }
    advertised_[type] = std::move(seen);
    // A receiver lives while either service still announces it.
    for (auto it = found_.begin(); it != found_.end();) {
        const std::string& id = it->first;
        const bool announced = std::any_of(advertised_.begin(), advertised_.end(),
                                           [&](const auto& a) { return a.second.count(id) > 0; });
        if (announced) {
            ++it;
            continue;
        }
        endpoints_.erase(id);
        rawNames_.erase(id);
        resolvers_.cancel(id);
        it = found_.erase(it);
    }
    publish();
}

void AirPlayBrowser::resolve(const std::string& id) {
    auto endpoint = endpoints_.find(id);
    if (endpoint == endpoints_.end()) return;
    resolvers_.resolve(id, endpoint->second, [this, id](const ServiceResult& result) {
        auto it = found_.find(id);
        if (it == found_.end()) return;
        for (const auto& [key, value] : result.txt) it->second.txt[key] = value;
        it->second.host = result.address->host;
        it->second.port = result.address->port;
        publish();
    });
}

void AirPlayBrowser::resolveUnresolved(bool force) {
    for (const auto& [id, receiver] : found_) {
        if (receiver.host || !endpoints_.count(id)) continue;
        if (force) resolvers_.cancel(id);
        resolve(id);
    }
}

bool AirPlayBrowser::isThisComputer(const AirPlayReceiver& receiver, const LocalIdentity& own) {
    if (!computerName_) computerName_ = services_.computerName();
    if (!receiver.host && computerName_ && receiver.name == *computerName_) return true;
    auto raw = rawNames_.find(receiver.id);
    const std::string rawName = raw != rawNames_.end() ? raw->second : receiver.name;
    auto deviceID = receiver.txt.find("deviceid");
    if (deviceID != receiver.txt.end() && own.linkAddresses.count(normaliseMac(deviceID->second)))
        return true;
    const size_t at = rawName.find('@');
    if (at != std::string::npos) {
        const std::string before = rawName.substr(0, at);
        if (isMacShaped(before) && own.linkAddresses.count(normaliseMac(before))) return true;
    }
    return receiver.host && own.ipv4.count(*receiver.host) > 0;
}

void AirPlayBrowser::publish() {
    const LocalIdentity own = identity_ ? identity_() : LocalIdentity{};
    std::vector<AirPlayReceiver> list;
    for (const auto& [id, receiver] : found_)
        if (!isThisComputer(receiver, own)) list.push_back(receiver);
    std::sort(list.begin(), list.end(), [](const AirPlayReceiver& a, const AirPlayReceiver& b) {
        return namesInOrder(a.name, b.name);
    });
    if (list == receivers_) return;
    receivers_ = std::move(list);
    if (onChange) onChange(receivers_);
}

}  // namespace vt::discovery
