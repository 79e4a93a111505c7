// What the invitation shows: the server started on demand, the address taken
// afresh each time it opens, and how many phones are in.
#include <algorithm>

#include "model/app_model.h"

namespace vt::model {

void AppModel::openInvitation() {
    startGuestServerIfNeeded();
    // A server started earlier keeps its port, but the machine may have
    // changed networks since, so the address is looked up again.
    if (!guestServer_) return;
    if (auto address = guests::GuestServer::lanIPv4())
        guestLink_ = guests::GuestLink{*address, guestServer_->port()};
    else
        guestLink_.reset();
    stateChanged();
}

int AppModel::guestCount() const {
    return int(
        std::count_if(rows_.begin(), rows_.end(), [](const RowState& r) { return r.isGuest(); }));
}

}  // namespace vt::model
