// The tray icon (a StatusNotifierItem through Qt where the desktop has one):
// the switch, each output's name and state, "Show window" and "Quit". The
// menu is rebuilt only when what it shows changes.
#pragma once

#include <QObject>
#include <functional>
#include <memory>
#include <vector>

#include "ui/tray/tray_menu.h"

class QMenu;
class QSystemTrayIcon;

namespace vt::ui {

class AppController;

class TrayIcon : public QObject {
    Q_OBJECT

  public:
    // Whether the desktop has somewhere to put a tray icon.
    static bool available();

    TrayIcon(AppController& app, std::function<void()> showWindow, std::function<void()> quit,
             QObject* parent = nullptr);
    ~TrayIcon() override;

    // Shown while the "showInMenuBar" preference is on.
    bool isVisible() const;

  private:
    void update();

    AppController& app_;
    std::function<void()> showWindow_, quit_;
    std::unique_ptr<QMenu> menu_;
    std::unique_ptr<QSystemTrayIcon> icon_;
    std::vector<TrayEntry> shown_;
};

}  // namespace vt::ui
