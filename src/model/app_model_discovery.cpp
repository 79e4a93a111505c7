// The model's side of discovery: the lists it publishes, and rows for
// AirPlay receivers found on the network.
#include <algorithm>

#include "model/app_model.h"
#include "model/row_records.h"

namespace vt::model {

void AppModel::enableDiscovery(discovery::ServiceBrowser& services) {
    if (airplayBrowser_) return;
    airplayBrowser_ = std::make_unique<discovery::AirPlayBrowser>(services, main_);
    airplayBrowser_->onChange = [this](const std::vector<discovery::AirPlayReceiver>& list) {
        airplayReceivers_ = list;
        if (airplay_) airplay_->setReceivers(list);
        stateChanged();
    };
    castBrowser_ = std::make_unique<discovery::CastBrowser>(services, main_);
    castBrowser_->onChange = [this](const std::vector<discovery::CastDevice>& list) {
        castDevices_ = list;
        reconcileCastSenders();
        stateChanged();
    };
    airplayBrowser_->start();
    castBrowser_->start();
}

std::vector<discovery::AirPlayReceiver> AppModel::availableAirPlayReceivers() const {
    std::vector<discovery::AirPlayReceiver> out;
    for (const auto& r : airplayReceivers_)
        if (std::none_of(rows_.begin(), rows_.end(),
                         [&](const RowState& row) { return row.airplayID == r.id; }))
            out.push_back(r);
    return out;
}

std::vector<discovery::CastDevice> AppModel::availableCastDevices() const {
    std::vector<discovery::CastDevice> out;
    for (const auto& d : castDevices_)
        if (std::none_of(rows_.begin(), rows_.end(),
                         [&](const RowState& row) { return row.castID == d.id; }))
            out.push_back(d);
    return out;
}

bool AppModel::addAirPlayOutput(const std::string& receiverID) {
    if (regularRowCount() >= maxRegularOutputs) return false;
    const auto available = availableAirPlayReceivers();
    auto receiver = std::find_if(available.begin(), available.end(),
                                 [&](const auto& r) { return r.id == receiverID; });
    if (receiver == available.end()) return false;

    RowState row;
    row.id = newRowId();
    row.airplayID = receiver->id;
    row.airplayName = receiver->name;
    addNewRow(std::move(row));
    if (isRunning_) reconcileAirPlaySenders();
    return true;
}

void AppModel::retryUnresolvedReceivers() {
    if (airplayBrowser_) airplayBrowser_->retryUnresolved();
}

}  // namespace vt::model
