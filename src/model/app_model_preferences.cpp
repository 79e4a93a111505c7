// The preferences the window and the tray follow: appearance, the tray icon,
// and opening at login through the desktop's autostart folder.
#include <system_error>

#include "model/app_model.h"
#include "model/autostart.h"

namespace vt::model {

namespace {

std::filesystem::path runningProgram() {
    std::error_code ec;
    std::filesystem::path self = std::filesystem::read_symlink("/proc/self/exe", ec);
    return ec ? std::filesystem::path("vellatone") : self;
}

}  // namespace

void AppModel::setAppearance(settings::Appearance appearance) {
    if (appearance_ == appearance) return;
    appearance_ = appearance;
    settings_.setAppearance(appearance);
}

void AppModel::setShowInMenuBar(bool on) {
    if (showInMenuBar_ == on) return;
    showInMenuBar_ = on;
    settings_.setShowInMenuBar(on);
}

void AppModel::setOpenAtLogin(bool on) {
    const std::filesystem::path dir = autostartDir_ ? *autostartDir_ : autostartDir();
    const std::optional<std::string> error =
        on ? writeAutostart(dir, programPath_ ? *programPath_ : runningProgram())
           : removeAutostart(dir);
    loginItemError_ = error;
    if (error) return;
    openAtLogin_ = on;
    settings_.setOpenAtLogin(on);
}

void AppModel::setAutostartPlace(std::filesystem::path dir, std::filesystem::path program) {
    autostartDir_ = std::move(dir);
    programPath_ = std::move(program);
}

}  // namespace vt::model
