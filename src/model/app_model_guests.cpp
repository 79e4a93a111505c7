// Guests' phones as rows. The guest server starts the first time playing
// starts (once enabled), and each phone that joins gets a row behind the
// regular ones; the party drives those rows through the hooks set up here.
#include <algorithm>
#include <set>
#include <string_view>

#include "model/app_model.h"
#include "model/row_records.h"

namespace vt::model {

namespace {

// The party hands over the name as the row shows it; the row keeps what the
// phone called itself so that the shown name is built in one place.
std::optional<std::string> phoneName(const std::string& rowName) {
    const std::string prefix = guests::guestRowName(std::string());
    if (rowName.size() > prefix.size() && rowName.starts_with(prefix))
        return rowName.substr(prefix.size());
    return std::nullopt;
}

}  // namespace

void AppModel::enableGuests(GuestSetup setup) {
    guestSetup_ = std::move(setup);
}

void AppModel::startGuestServerIfNeeded() {
    if (!guestSetup_ || guestServer_) return;
    guestServer_ = std::make_unique<guests::GuestServer>(guestSetup_->root, guestSetup_->port,
                                                         guestSetup_->patience, main_, main_,
                                                         guestSetup_->options);

    guests::GuestParty::Hooks hooks;
    hooks.addRow = [this](const std::string& id, const std::string& name) {
        return addGuestRow(id, name);
    };
    hooks.removeRow = [this](const std::string& id) {
        for (int slot = 0; slot < int(rows_.size()); ++slot)
            if (rows_[slot].guestID == id) {
                removeRow(slot);
                break;
            }
        stateChanged();
    };
    hooks.statusChanged = [this](const std::string& id, guests::GuestSender::Status status) {
        guestStatusChanged(id, status);
    };
    hooks.prepareSlot = [this](int slot) { engine_->prepareAirPlaySlot(slot, 48000); };
    hooks.render = [this](int slot, float* into, size_t frames) {
        engine_->renderAirPlay(slot, into, uint32_t(frames));
    };
    const std::string name = guestSetup_->options.computerName.empty()
                                 ? std::string("Computer")
                                 : guestSetup_->options.computerName;
    guestParty_ =
        std::make_unique<guests::GuestParty>(*guestServer_, main_, std::move(hooks), name);
    guestServer_->onEvent = [this](const guests::GuestServer::Event& e) {
        if (guestParty_) guestParty_->handle(e);
    };
    hookGuestsToNowPlaying();

    guests::GuestServerStart started = guests::startGuestServer(*guestServer_);
    guestLink_ = started.link;
    guestServerError_ = started.error;
    if (!started.started) {
        // Left unmade, so that the next start tries the port again.
        guestParty_.reset();
        guestServer_.reset();
    }
}

std::optional<int> AppModel::addGuestRow(const std::string& clientID, const std::string& rowName) {
    const int guests = int(rows_.size()) - regularRowCount();
    if (guests >= maxGuests || int(rows_.size()) >= maxOutputs) return std::nullopt;

    RowState row;
    row.id = newRowId();
    row.guestID = clientID;
    row.guestName = phoneName(rowName);
    row.guestStatus = guests::GuestSender::Status::waiting;
    row.streamLatencyMs = guests::GuestSender::streamLatencyMs();
    // The page makes up for its own output's latency.
    row.measuredLatencyMs = 0;
    row.latencySource = settings::LatencySource::reported;
    stampNewRow(row);
    rows_.push_back(std::move(row));

    const int slot = int(rows_.size()) - 1;
    engine_->setOutputDevice(slot, std::nullopt);
    pushRow(slot);
    pushDelays();
    stateChanged();
    return slot;
}

void AppModel::guestStatusChanged(const std::string& clientID, guests::GuestSender::Status status) {
    for (RowState& row : rows_) {
        if (row.guestID != clientID) continue;
        row.guestStatus = status;
        row.connected = status == guests::GuestSender::Status::playing;
    }
    stateChanged();
}

void AppModel::rebindGuests() {
    if (!guestParty_) return;
    // The party skips guests whose slot stayed put.
    for (int slot = 0; slot < int(rows_.size()); ++slot)
        if (rows_[slot].guestID) guestParty_->rebind(*rows_[slot].guestID, slot);
}

}  // namespace vt::model
