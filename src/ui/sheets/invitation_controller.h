// What the invitation sheet says. Opening it starts the guest server if it
// is not up and takes the address afresh; then it shows the link (or why
// there is none), how many phones joined, and after half a minute with no
// one, a hint about the firewall.
#pragma once

#include <QtQml/qqmlregistration.h>
#include <QString>
#include <QTimer>
#include <functional>
#include <optional>

#include "ui/sheets/app_sheet_controller.h"

namespace vt::ui {

class InvitationSheetController : public AppSheetController {
    Q_OBJECT
    QML_ELEMENT
    Q_PROPERTY(bool hasLink READ hasLink NOTIFY stateChanged)
    Q_PROPERTY(QString joinURL READ joinURL NOTIFY stateChanged)
    Q_PROPERTY(QString message READ message NOTIFY stateChanged)
    Q_PROPERTY(int guestCount READ guestCount NOTIFY stateChanged)
    Q_PROPERTY(QString countText READ countText NOTIFY stateChanged)
    Q_PROPERTY(bool showFirewallHint READ showFirewallHint NOTIFY stateChanged)
    Q_PROPERTY(QString firewallHint READ firewallHint NOTIFY stateChanged)
    Q_PROPERTY(QString copyLabel READ copyLabel NOTIFY stateChanged)
    Q_PROPERTY(bool copied READ copied NOTIFY stateChanged)

  public:
    static constexpr double hintAfterSeconds = 30.0;

    using Clock = std::function<double()>;

    explicit InvitationSheetController(QObject* parent = nullptr);

    bool hasLink() const { return !joinURL_.isEmpty(); }
    QString joinURL() const { return joinURL_; }
    QString message() const { return message_; }
    int guestCount() const { return guestCount_; }
    QString countText() const;
    bool showFirewallHint() const { return hint_; }
    QString firewallHint() const;
    QString copyLabel() const;
    bool copied() const { return copied_; }

    // Seconds of a steady clock; tests move their own.
    void setClock(Clock clock) { clock_ = std::move(clock); }

    // The sheet is opening.
    Q_INVOKABLE void open();
    // The link to the clipboard.
    Q_INVOKABLE void copy();
    Q_INVOKABLE void refresh();

  signals:
    void stateChanged();

  private:
    void appUpdated() override { refresh(); }

    Clock clock_;
    std::optional<double> openedAt_;
    QTimer hintTimer_;
    QString joinURL_;
    QString message_;
    int guestCount_ = 0;
    uint16_t port_ = 0;
    bool hint_ = false;
    bool copied_ = false;
};

}  // namespace vt::ui
