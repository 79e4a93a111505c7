#include "ui/tray/tray_icon.h"

#include <QAction>
#include <QMenu>
#include <QSystemTrayIcon>

#include "ui/bridge/app_controller.h"
#include "ui/tray/app_icon.h"

namespace vt::ui {

bool TrayIcon::available() {
    return QSystemTrayIcon::isSystemTrayAvailable();
}

TrayIcon::TrayIcon(AppController& app, std::function<void()> showWindow, std::function<void()> quit,
                   QObject* parent)
    : QObject(parent),
      app_(app),
      showWindow_(std::move(showWindow)),
      quit_(std::move(quit)),
      menu_(std::make_unique<QMenu>()),
      icon_(std::make_unique<QSystemTrayIcon>(appIcon())) {
    icon_->setContextMenu(menu_.get());
    connect(icon_.get(), &QSystemTrayIcon::activated, this,
            [this](QSystemTrayIcon::ActivationReason reason) {
                if (reason == QSystemTrayIcon::Trigger || reason == QSystemTrayIcon::DoubleClick)
                    showWindow_();
            });
    connect(&app_, &AppController::changed, this, &TrayIcon::update);
    update();
}

TrayIcon::~TrayIcon() = default;

bool TrayIcon::isVisible() const {
    return icon_->isVisible();
}

void TrayIcon::update() {
    icon_->setVisible(app_.showInMenuBar());
    std::vector<TrayRow> rows;
    for (const RowListModel::Entry& e : app_.rows()->entries())
        rows.push_back({e.name.toStdString(), e.connected, e.muted, e.disabled, e.guest});
    const bool running = app_.running();
    const std::string track = app_.trackLine().toStdString();
    std::vector<TrayEntry> entries = trayMenu(running, rows, track);
    icon_->setToolTip(QString::fromStdString(trayToolTip(running, int(rows.size()), track)));
    if (entries == shown_) return;
    shown_ = entries;
    menu_->clear();
    for (const TrayEntry& entry : entries) {
        if (entry.kind == TrayEntry::Kind::separator) {
            menu_->addSeparator();
            continue;
        }
        QAction* action = menu_->addAction(QString::fromStdString(entry.text));
        action->setEnabled(entry.enabled);
        switch (entry.kind) {
            case TrayEntry::Kind::toggle:
                action->setCheckable(true);
                action->setChecked(entry.checked);
                connect(action, &QAction::triggered, this, [this] { app_.startStop(); });
                break;
            case TrayEntry::Kind::showWindow:
                connect(action, &QAction::triggered, this, [this] { showWindow_(); });
                break;
            case TrayEntry::Kind::quit:
                connect(action, &QAction::triggered, this, [this] { quit_(); });
                break;
            default:
                break;
        }
    }
}

}  // namespace vt::ui
