#include "discovery/cast_browser.h"

#include <algorithm>
#include <set>

#include "discovery/airplay_browser.h"

namespace vt::discovery {

CastBrowser::CastBrowser(ServiceBrowser& services, dispatch::MainQueue& main)
    : services_(services), main_(main), resolvers_(services, main) {}

void CastBrowser::start() {
    if (browser_) return;
    browser_ =
        services_.browse(castType, [this](const std::vector<ServiceResult>& r) { handle(r); });
    sweep_ = main_.repeat(sweepSeconds, [this] { resolveUnresolved(); });
}

void CastBrowser::stop() {
    sweep_.reset();
    browser_.reset();
    resolvers_.clear();
    found_.clear();
    endpoints_.clear();
    publish();
}

void CastBrowser::handle(const std::vector<ServiceResult>& results) {
    std::set<std::string> seen;
    for (const ServiceResult& result : results) {
        std::optional<CastDevice> device = CastDevice::from(result.name, result.txt);
        if (!device) continue;
        const std::string id = device->id;
        auto old = found_.find(id);
        if (old != found_.end()) {
            device->host = old->second.host;
            device->port = old->second.port;
        }
        if (!device->host && result.address) {
            device->host = result.address->host;
            device->port = result.address->port;
        }
        found_[id] = *device;
        endpoints_[id] = ServiceEndpoint{castType, result.name};
        seen.insert(id);
        if (!device->host) resolve(id);
    }
    for (auto it = found_.begin(); it != found_.end();) {
        if (seen.count(it->first)) {
            ++it;
            continue;
        }
        endpoints_.erase(it->first);
        resolvers_.cancel(it->first);
        it = found_.erase(it);
    }
    publish();
}

void CastBrowser::resolve(const std::string& id) {
    auto endpoint = endpoints_.find(id);
    if (endpoint == endpoints_.end()) return;
    resolvers_.resolve(id, endpoint->second, [this, id](const ServiceResult& result) {
        auto it = found_.find(id);
        if (it == found_.end()) return;
        it->second.host = result.address->host;
        it->second.port = result.address->port;
        publish();
    });
}

void CastBrowser::resolveUnresolved() {
    for (const auto& [id, device] : found_)
        if (!device.host) resolve(id);
}

void CastBrowser::publish() {
    std::vector<CastDevice> list;
    for (const auto& [id, device] : found_) list.push_back(device);
    std::sort(list.begin(), list.end(), [](const CastDevice& a, const CastDevice& b) {
        return namesInOrder(a.name, b.name);
    });
    if (list == devices_) return;
    devices_ = std::move(list);
    if (onChange) onChange(devices_);
}

}  // namespace vt::discovery
