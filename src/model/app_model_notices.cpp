// Notices derived from the model's state, and what their buttons do.
#include <cstdio>

#include "airplay/receiver_traits.h"
#include "discovery/local_interfaces.h"
#include "model/app_model.h"
#include "model/notice_words.h"

namespace vt::model {

std::vector<Notice> AppModel::allNotices() const {
    AppNoticeFacts facts;
    facts.captureAvailable = captureSinkPresent_;
    facts.soundServer = devices::soundServerWord(soundServerKind());
    facts.startCommand = soundServerStartCommand();
    facts.soundServerAwaySeconds = soundServerAwaySeconds();
    facts.driverInstallError = driverInstallError_;
    facts.startError = startError_;
    facts.restoredOutput = restoredOutput_;
    bool airplayRows = false;
    for (const RowState& row : rows_) airplayRows = airplayRows || row.isAirPlay();
    if (airplayRows && localInterfaces_)
        facts.sharedSubnetInterfaces = discovery::interfacesSharingASubnet(localInterfaces_());
    std::vector<Notice> all = applicationNotices(facts);

    // Rows with the same notice share one card.
    for (int slot = 0; slot < int(rows_.size()); ++slot) {
        std::optional<Notice> n = rowNotice(rows_[slot], rowNoticeFacts(slot));
        if (!n) continue;
        bool known = false;
        for (const Notice& have : all) known = known || have.id == n->id;
        if (!known) all.push_back(std::move(*n));
    }
    const double now = main_.now();
    for (Notice& n : all) n.since = noticeBoard_.birth(n.id).value_or(now);
    return all;
}

std::vector<Notice> AppModel::notices() {
    return noticeBoard_.update(allNotices(), main_.now());
}

std::optional<Notice> AppModel::noticeFor(const RowState& row) const {
    const int slot = slotOf(row.id);
    return rowNotice(row, slot >= 0 ? rowNoticeFacts(slot) : RowNoticeFacts{});
}

RowNoticeFacts AppModel::rowNoticeFacts(int slot) const {
    RowNoticeFacts facts;
    const RowState& row = rows_[slot];
    if (!row.airplayID) return facts;
    for (const auto& r : airplayReceivers_)
        if (r.id == *row.airplayID) {
            facts.leadsOwnGroup = airplay::leadsOwnGroup(r);
            facts.appleModel = airplay::isAppleModel(r);
        }
    facts.exhausted = airplay_ && airplay_->isExhausted(slot);
    return facts;
}

void AppModel::dismissNotice(const Notice& notice) {
    noticeBoard_.dismiss(notice.id);
}

std::vector<int> AppModel::noticeSlots(const std::string& id) const {
    std::vector<int> slots;
    for (int slot = 0; slot < int(rows_.size()); ++slot) {
        std::optional<Notice> n = rowNotice(rows_[slot], rowNoticeFacts(slot));
        if (n && n->id == id) slots.push_back(slot);
    }
    return slots;
}

void AppModel::act(const Notice& notice, NoticeButton button) {
    if (button != NoticeButton::primary) return;
    if (notice.id == "start" || notice.id == "crash") {
        if (!isRunning_) startStop();
    } else if (notice.id == "cast-firewall" || notice.id == "forbidden" || notice.id == "grouped" ||
               notice.id == "approval") {
        for (int slot : noticeSlots(notice.id)) reconnect(slot);
    } else if (notice.id == "multihomed") {
        // The interfaces may have been sorted out meanwhile.
        for (int slot = 0; slot < int(rows_.size()); ++slot)
            if (rows_[slot].isAirPlay() && canReconnect(slot)) reconnect(slot);
    } else if (notice.id == "device-failed") {
        for (int slot : noticeSlots(notice.id)) pushRow(slot);
    } else if (notice.id == "driver") {
        // Putting the command on the clipboard is the window's part; the
        // model looks again, since a server may have come up meanwhile.
        captureRefused_ = false;
        refreshCaptureAvailable();
    }
}

std::string AppModel::meta(const RowState& row) const {
    if (row.isAirPlay() && !row.isCast()) {
        int slot = -1;
        for (int s = 0; s < int(rows_.size()); ++s)
            if (rows_[s].id == row.id) slot = s;
        std::string words = airplay::airplaySubtitle(isMissing(row), row.airplayStatus,
                                                     row.streamLatencyMs, leadsOwnGroup(slot));
        if (row.delayMs != 0) {
            char buf[48];
            std::snprintf(buf, sizeof buf, " · %.0f ms", row.delayMs);
            words += buf;
        }
        return words;
    }
    return rowMeta(row, deviceOf(row), row.isCast() && !row.castStatus && isMissing(row));
}

}  // namespace vt::model
