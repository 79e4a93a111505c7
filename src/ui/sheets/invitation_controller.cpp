#include "ui/sheets/invitation_controller.h"

#include <QClipboard>
#include <QGuiApplication>
#include <cmath>

#include "dispatch/clock.h"
#include "model/app_model.h"
#include "ui/bridge/app_controller.h"

namespace vt::ui {

InvitationSheetController::InvitationSheetController(QObject* parent)
    : AppSheetController(parent), clock_(&dispatch::monotonicSeconds) {
    hintTimer_.setSingleShot(true);
    connect(&hintTimer_, &QTimer::timeout, this, &InvitationSheetController::refresh);
}

QString InvitationSheetController::countText() const {
    return QStringLiteral("%1 of %2 phones joined")
        .arg(guestCount_)
        .arg(model::AppModel::maxGuests);
}

QString InvitationSheetController::firewallHint() const {
    return QStringLiteral("No one joined? Allow TCP port %1 in the firewall").arg(port_);
}

QString InvitationSheetController::copyLabel() const {
    return copied_ ? QStringLiteral("Copied") : QStringLiteral("Copy");
}

void InvitationSheetController::open() {
    openedAt_ = clock_();
    copied_ = false;
    if (model::AppModel* m = model()) {
        m->openInvitation();
        // The window and the remote show the link too.
        emit appController()->changed();
    }
    refresh();
    // The hint's moment comes whether or not anything else happens by then;
    // a little late rather than early, as timers may fire a hair too soon.
    hintTimer_.start(int(std::ceil(hintAfterSeconds * 1000)) + 50);
}

void InvitationSheetController::copy() {
    if (!hasLink()) return;
    if (QClipboard* clipboard = QGuiApplication::clipboard()) clipboard->setText(joinURL_);
    if (!copied_) {
        copied_ = true;
        emit stateChanged();
    }
}

void InvitationSheetController::refresh() {
    QString url;
    QString message;
    int count = 0;
    uint16_t port = 0;
    if (const model::AppModel* m = model()) {
        count = m->guestCount();
        if (m->guestServerError()) {
            message = QString::fromStdString(*m->guestServerError());
        } else if (m->guestLink()) {
            url = QString::fromStdString(m->guestLink()->joinURL());
            port = m->guestLink()->port;
        } else {
            message = QStringLiteral("This computer has no network address a phone can reach.");
        }
    }
    const bool hint =
        !url.isEmpty() && count == 0 && openedAt_ && clock_() - *openedAt_ >= hintAfterSeconds;
    // A new link is a new thing to copy.
    const bool copied = copied_ && url == joinURL_;
    if (url == joinURL_ && message == message_ && count == guestCount_ && port == port_ &&
        hint == hint_ && copied == copied_)
        return;
    joinURL_ = url;
    message_ = message;
    guestCount_ = count;
    port_ = port;
    hint_ = hint;
    copied_ = copied;
    emit stateChanged();
}

}  // namespace vt::ui
