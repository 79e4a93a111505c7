#include "ui/bridge/app_controller.h"

#include <QClipboard>
#include <QGuiApplication>
#include <QUrl>
#include <QVariantMap>
#include <algorithm>
#include <cmath>

#include "delay/delay_plan.h"
#include "discovery/offer_words.h"
#include "model/notice_words.h"
#include "settings/preferences.h"

namespace vt::ui {

namespace {

// The palette's ids of network outputs; a sink's id is its name as it stands.
constexpr const char* airplayPrefix = "air:";
constexpr const char* castPrefix = "cast:";

// A meter reads the last 60 dB; a peak is held and falls back smoothly.
double meterReading(const engine::MultiOutputEngine::Peak& peak) {
    const double p = std::max(peak.left, peak.right);
    if (!(p > 0)) return 0;
    return std::clamp((20.0 * std::log10(p) + 60.0) / 60.0, 0.0, 1.0);
}

constexpr double meterFall = 0.75;

}  // namespace

AppController::AppController(model::AppModel& model, QObject* parent)
    : QObject(parent), model_(model) {
    connect(this, &AppController::changed, this, &AppController::sync);
    ticker_.setInterval(int(model::AppModel::telemetrySeconds * 1000));
    connect(&ticker_, &QTimer::timeout, this, &AppController::tick);
    ticker_.start();
    sync();
}

void AppController::tick() {
    if (!model_.isRunning()) {
        levels_.clear();
        // Stopped, the model still hears of devices coming and going; half
        // a second is soon enough for the lists to follow.
        if (++idleTicks_ % 5 == 0) emit changed();
        return;
    }
    const int n = int(model_.rows().size());
    for (auto it = levels_.begin(); it != levels_.end();)
        it = it->first >= n ? levels_.erase(it) : std::next(it);
    for (int slot = 0; slot < n; ++slot) {
        const double now = meterReading(model_.engine().takePeak(slot));
        double& shown = levels_[slot];
        shown = std::max(now, shown * meterFall);
        if (shown < 0.01) shown = 0;
    }
    emit changed();
}

void AppController::sync() {
    rows_.sync(model_, levels_);
    notices_.sync(model_.notices());
}

QString AppController::playbackMode() const {
    return QString::fromUtf8(delay::title(model_.playbackMode()).data(),
                             qsizetype(delay::title(model_.playbackMode()).size()));
}

QString AppController::lastRemovedName() const {
    const auto& gone = model_.lastRemoved();
    return gone ? QString::fromStdString(gone->name) : QString();
}

bool AppController::canAddOutput() const {
    return model_.regularRowCount() < model::AppModel::maxRegularOutputs;
}

QVariantList AppController::addableOutputs() const {
    QVariantList list;
    for (const devices::AudioDevice& device : model_.addableDevices()) {
        QVariantMap entry;
        entry["id"] = QString::fromStdString(device.uid);
        entry["name"] = QString::fromStdString(device.name);
        entry["detail"] = QString::fromStdString(device.meta());
        list.push_back(entry);
    }
    // Network outputs after the computer's own, with their ids' prefixes as
    // the remote's list gives them.
    for (const discovery::AirPlayReceiver& receiver : model_.availableAirPlayReceivers()) {
        QVariantMap entry;
        entry["id"] = QString::fromStdString(airplayPrefix + receiver.id);
        entry["name"] = QString::fromStdString(receiver.name);
        entry["detail"] = QString::fromStdString(discovery::offerWords(receiver));
        list.push_back(entry);
    }
    for (const discovery::CastDevice& device : model_.availableCastDevices()) {
        QVariantMap entry;
        entry["id"] = QString::fromStdString(castPrefix + device.id);
        entry["name"] = QString::fromStdString(device.name);
        entry["detail"] = QString::fromStdString(discovery::offerWords(device));
        list.push_back(entry);
    }
    return list;
}

void AppController::startStop() {
    act([&] { model_.startStop(); });
}

void AppController::setMasterVolume(double volume) {
    act([&] { model_.setMasterVolume(std::clamp(volume, 0.0, 1.0)); });
}

bool AppController::addOutput(const QString& id) {
    bool added = false;
    const std::string text = id.toStdString();
    act([&] {
        if (text.rfind(airplayPrefix, 0) == 0)
            added = model_.addAirPlayOutput(text.substr(std::string(airplayPrefix).size()));
        else if (text.rfind(castPrefix, 0) == 0)
            added = model_.addCastOutput(text.substr(std::string(castPrefix).size()));
        else
            added = model_.addOutput(text);
    });
    return added;
}

void AppController::submitPassword(const QString& text) {
    act([&] { model_.submitPassword(text.toStdString()); });
}

void AppController::cancelPassword() {
    act([&] { model_.endPassword(); });
}

void AppController::beginPassword(int slot) {
    act([&] { model_.beginPassword(slot); });
}

void AppController::beginPairing(int slot) {
    act([&] { model_.beginPairing(slot); });
}

void AppController::submitPIN(const QString& typed) {
    act([&] { model_.submitPIN(typed.toStdString()); });
}

void AppController::cancelPairing() {
    act([&] { model_.endPairing(); });
}

void AppController::removeOutput(int slot) {
    act([&] {
        if (model_.canRemove(slot)) model_.removeOutput(slot);
    });
}

void AppController::undoRemove() {
    act([&] { model_.undoRemove(); });
}

void AppController::rename(int slot, const QString& name) {
    act([&] {
        const QString trimmed = name.trimmed();
        model_.rename(slot, trimmed.isEmpty() ? std::nullopt
                                              : std::optional<std::string>(trimmed.toStdString()));
    });
}

void AppController::toggleDisabled(int slot) {
    act([&] { model_.toggleDisabled(slot); });
}

void AppController::toggleMuted(int slot) {
    act([&] { model_.toggleMuted(slot); });
}

void AppController::dismissMeasureHint(int slot) {
    act([&] { model_.dismissMeasureHint(slot); });
}

void AppController::toggleSolo(int slot) {
    act([&] { model_.toggleSolo(slot); });
}

void AppController::reconnect(int slot) {
    act([&] {
        if (model_.canReconnect(slot)) model_.reconnect(slot);
    });
}

void AppController::setDelay(int slot, double ms) {
    act([&] { model_.setDelay(slot, std::clamp(ms, -5000.0, 5000.0)); });
}

void AppController::setVolume(int slot, double volume) {
    act([&] { model_.setVolume(slot, std::clamp(volume, 0.0, 1.0)); });
}

void AppController::moveRowDragging(int slot, int onto) {
    act([&] { model_.moveRowDragging(slot, onto); });
}

void AppController::moveRowBy(int slot, int delta) {
    act([&] {
        const std::vector<model::ShownRow> shown = model_.displayRows();
        for (int i = 0; i < int(shown.size()); ++i) {
            if (shown[size_t(i)].slot != slot) continue;
            const int to = i + delta;
            if (to >= 0 && to < int(shown.size()) && !shown[size_t(to)].row.isGuest())
                model_.moveRow(i, to);
            return;
        }
    });
}

void AppController::setPlaybackMode(const QString& mode) {
    act([&] { model_.setPlaybackMode(delay::playbackModeFromStored(mode.toStdString())); });
}

void AppController::setSyncSlowSpeakers(bool on) {
    act([&] { model_.setSyncSlowSpeakers(on); });
}

void AppController::actOnNotice(const QString& id, bool primary) {
    // The command that brings a sound server up goes where the person can
    // paste it; the model then looks again for a server.
    if (primary && id == QLatin1String("driver"))
        if (QClipboard* clipboard = QGuiApplication::clipboard())
            clipboard->setText(QString::fromStdString(model_.soundServerStartCommand()));
    act([&] {
        for (const model::Notice& n : model_.notices())
            if (n.id == id.toStdString()) {
                model_.act(n,
                           primary ? model::NoticeButton::primary : model::NoticeButton::secondary);
                return;
            }
    });
}

void AppController::dismissNotice(const QString& id) {
    act([&] {
        for (const model::Notice& n : model_.notices())
            if (n.id == id.toStdString()) {
                model_.dismissNotice(n);
                return;
            }
    });
}

QString AppController::visualiserStyle() const {
    const std::string_view raw = settings::rawValue(model_.visualiserStyle());
    return QString::fromUtf8(raw.data(), qsizetype(raw.size()));
}

void AppController::setVisualiserStyle(const QString& style) {
    act([&] { model_.setVisualiserStyle(settings::visualiserStyleFromRaw(style.toStdString())); });
}

void AppController::setVisualiserHidden(bool hidden) {
    act([&] { model_.setVisualiserHidden(hidden); });
}

QString AppController::appearance() const {
    const std::string_view raw = settings::rawValue(model_.appearance());
    return QString::fromUtf8(raw.data(), qsizetype(raw.size()));
}

bool AppController::showInMenuBar() const {
    return model_.showInMenuBar();
}

bool AppController::openAtLogin() const {
    return model_.openAtLogin();
}

QString AppController::loginItemError() const {
    return QString::fromStdString(model_.loginItemError().value_or(""));
}

void AppController::setAppearance(const QString& appearance) {
    act([&] { model_.setAppearance(settings::appearanceFromRaw(appearance.toStdString())); });
}

void AppController::setShowInMenuBar(bool on) {
    act([&] { model_.setShowInMenuBar(on); });
}

void AppController::setOpenAtLogin(bool on) {
    act([&] { model_.setOpenAtLogin(on); });
}

QString AppController::trackTitle() const {
    const auto& info = model_.nowPlayingInfo();
    return info ? QString::fromStdString(info->title) : QString();
}

QString AppController::trackArtist() const {
    const auto& info = model_.nowPlayingInfo();
    return info ? QString::fromStdString(info->artist) : QString();
}

QString AppController::trackArtwork() const {
    const auto& info = model_.nowPlayingInfo();
    if (!info || !info->artworkFile) return {};
    return QUrl::fromLocalFile(QString::fromStdString(*info->artworkFile)).toString();
}

bool AppController::trackPlaying() const {
    const auto& info = model_.nowPlayingInfo();
    return info && info->playing;
}

QString AppController::trackLine() const {
    const QString title = trackTitle(), artist = trackArtist();
    if (title.isEmpty()) return {};
    return artist.isEmpty() ? title : title + QStringLiteral(" \u00b7 ") + artist;
}

void AppController::mediaCommand(const QString& command) {
    using nowplaying::PlayerCommand;
    if (command == QLatin1String("togglePlayPause"))
        model_.mediaCommand(PlayerCommand::togglePlayPause);
    else if (command == QLatin1String("nextTrack"))
        model_.mediaCommand(PlayerCommand::nextTrack);
    else if (command == QLatin1String("previousTrack"))
        model_.mediaCommand(PlayerCommand::previousTrack);
}

}  // namespace vt::ui
