#include "ui/sheets/eq_sheet_controller.h"

#include <QVariantMap>
#include <cmath>

#include "dispatch/clock.h"
#include "equaliser/eq_preset.h"
#include "model/app_model.h"
#include "ui/bridge/app_controller.h"

#ifdef VELLATONE_HAVE_EQ_ANALYSER
#include "spectrum/eq_analyser.h"
#else
namespace vt::spectrum {
class EQAnalyser {};
}  // namespace vt::spectrum
#endif

namespace vt::ui {

using equaliser::EQBand;
using equaliser::EQKind;
using equaliser::EQPreset;
using equaliser::EQSettings;
using equaliser::EQTarget;

namespace {

QString qs(std::string_view s) {
    return QString::fromUtf8(s.data(), qsizetype(s.size()));
}

// Slider positions come back through a conversion; a change smaller than
// this is the same value, so a binding loop settles at once.
bool same(double a, double b) {
    return std::abs(a - b) <= 1e-9 * std::max(1.0, std::abs(a));
}

}  // namespace

EqualiserSheetController::EqualiserSheetController(QObject* parent) : AppSheetController(parent) {
    flush_.setSingleShot(true);
    flush_.setInterval(flushMs);
    connect(&flush_, &QTimer::timeout, this, &EqualiserSheetController::commit);
}

EqualiserSheetController::~EqualiserSheetController() {
    // Edits made just before the sheet went away are still the user's; the
    // news of them must not come back to this half-gone object.
    stopFollowingApp();
    commit();
}

void EqualiserSheetController::setSlot(int slot) {
    slot = std::max(slot, -1);
    if (slot == slot_) return;
    commit();
    slot_ = slot;
    rowId_ = 0;
    rowGone_ = false;
    emit slotChanged();
    refresh();
}

void EqualiserSheetController::followRow() {
    const model::AppModel* m = model();
    if (!m || isMaster() || rowGone_) return;
    const auto& rows = m->rows();
    if (rowId_ == 0) {
        if (slot_ < int(rows.size())) rowId_ = rows[size_t(slot_)].id;
        return;
    }
    if (slot_ < int(rows.size()) && rows[size_t(slot_)].id == rowId_) return;
    for (size_t i = 0; i < rows.size(); ++i) {
        if (rows[i].id == rowId_) {
            slot_ = int(i);
            emit slotChanged();
            return;
        }
    }
    rowGone_ = true;
    emit slotChanged();
}

EQTarget EqualiserSheetController::target() const {
    return isMaster() ? EQTarget::master() : EQTarget::row(size_t(slot_));
}

bool EqualiserSheetController::valid() const {
    const model::AppModel* m = model();
    return m && (isMaster() || (!rowGone_ && slot_ < int(m->rows().size())));
}

QString EqualiserSheetController::title() const {
    if (isMaster()) return QStringLiteral("Master equaliser");
    if (!valid()) return QStringLiteral("Equaliser");
    return QStringLiteral("Equaliser \u00b7 ") + qs(model()->rows()[slot_].shownName());
}

QVariantList EqualiserSheetController::bands() const {
    QVariantList list;
    for (const EQBand& b : shown_.bands) {
        QVariantMap m;
        m["kind"] = int(equaliser::index(b.kind));
        m["frequency"] = b.frequency;
        m["gainDb"] = b.gainDb;
        m["q"] = b.q;
        m["usesGain"] = equaliser::usesGain(b.kind);
        m["usesQ"] = equaliser::usesQ(b.kind);
        m["frequencyLabel"] = qs(equaliser::frequencyLabel(b.kind));
        m["detail"] = qs(equaliser::detail(b.kind));
        list.append(m);
    }
    return list;
}

int EqualiserSheetController::matchedPreset() const {
    std::optional<std::string> id;
    if (!isMaster() && !pending_ && valid()) {
        id = model()->matchedEQPreset(slot_);
    } else if (const EQPreset* p = EQPreset::matching(shown_)) {
        id = p->id;
    }
    if (!id) return -1;
    const auto& all = EQPreset::all();
    for (size_t i = 0; i < all.size(); ++i)
        if (all[i].id == *id) return int(i);
    return -1;
}

bool EqualiserSheetController::canCopyToAll() const {
    return !isMaster() && valid() && model()->rows().size() > 1;
}

QStringList EqualiserSheetController::presetNames() const {
    QStringList names;
    for (const EQPreset& p : EQPreset::all()) names << qs(p.name);
    return names;
}

QStringList EqualiserSheetController::presetDetails() const {
    QStringList details;
    for (const EQPreset& p : EQPreset::all()) details << qs(p.detail);
    return details;
}

QStringList EqualiserSheetController::kindTitles() const {
    QStringList titles;
    for (EQKind k : equaliser::allKinds) titles << qs(equaliser::title(k));
    return titles;
}

QStringList EqualiserSheetController::kindDetails() const {
    QStringList details;
    for (EQKind k : equaliser::allKinds) details << qs(equaliser::detail(k));
    return details;
}

void EqualiserSheetController::edited() {
    pending_ = true;
    emit settingsChanged();
    if (!flush_.isActive()) flush_.start();
}

void EqualiserSheetController::setEqEnabled(bool on) {
    if (!valid() || shown_.enabled == on) return;
    shown_.enabled = on;
    edited();
    commit();
}

void EqualiserSheetController::setPreampDb(double db) {
    if (!valid() || std::isnan(db)) return;
    db = EQSettings::preampRange.clamp(db, 0.0);
    if (same(db, shown_.preampDb)) return;
    shown_.preampDb = db;
    // Shaping the sound with the equaliser off would do nothing audible.
    shown_.enabled = true;
    edited();
}

void EqualiserSheetController::setBandKind(int band, int kindIndex) {
    const auto kind = equaliser::kindFromIndex(uint32_t(std::max(kindIndex, 0)));
    if (!valid() || band < 0 || band >= bandCount() || kindIndex < 0 || !kind) return;
    if (shown_.bands[band].kind == *kind) return;
    shown_.bands[band].kind = *kind;
    shown_.enabled = true;
    edited();
    commit();
}

void EqualiserSheetController::setBandFrequency(int band, double hz) {
    if (!valid() || band < 0 || band >= bandCount() || std::isnan(hz)) return;
    hz = EQBand::frequencyRange.clamp(hz, 1000.0);
    if (same(hz, shown_.bands[band].frequency)) return;
    shown_.bands[band].frequency = hz;
    shown_.enabled = true;
    edited();
}

void EqualiserSheetController::setBandGainDb(int band, double db) {
    if (!valid() || band < 0 || band >= bandCount() || std::isnan(db)) return;
    db = EQBand::gainRange.clamp(db, 0.0);
    if (same(db, shown_.bands[band].gainDb)) return;
    shown_.bands[band].gainDb = db;
    shown_.enabled = true;
    edited();
}

void EqualiserSheetController::setBandQ(int band, double q) {
    if (!valid() || band < 0 || band >= bandCount() || std::isnan(q)) return;
    q = EQBand::qRange.clamp(q, 0.707);
    if (same(q, shown_.bands[band].q)) return;
    shown_.bands[band].q = q;
    shown_.enabled = true;
    edited();
}

void EqualiserSheetController::applyPreset(int index) {
    const auto& all = EQPreset::all();
    if (!valid() || index < 0 || index >= int(all.size())) return;
    flush_.stop();
    pending_ = false;
    if (isMaster())
        model()->setMasterEQ(all[index].settings);
    else
        model()->setEQ(slot_, all[index].settings);
    announce();
}

void EqualiserSheetController::copyToAll() {
    if (!canCopyToAll()) return;
    commit();
    model()->copyEQToAllOutputs(slot_);
    announce();
}

void EqualiserSheetController::commit() {
    flush_.stop();
    if (!pending_) return;
    followRow();
    pending_ = false;
    if (!valid()) return;
    pushToModel();
    announce();
}

void EqualiserSheetController::pushToModel() {
    model::AppModel& m = *model();
    const EQSettings stored = m.eq(target());
    const EQTarget t = target();
    if (stored.enabled != shown_.enabled || stored.preampDb != shown_.preampDb ||
        stored.bands.size() != shown_.bands.size()) {
        if (isMaster())
            m.setMasterEQ(shown_);
        else
            m.setEQ(slot_, shown_);
        return;
    }
    for (int i = 0; i < bandCount(); ++i)
        if (!(stored.bands[i] == shown_.bands[i])) m.setEQBand(t, i, shown_.bands[i]);
}

void EqualiserSheetController::announce() {
    // The rest of the window (the row's equaliser button, the remote) hears
    // of it as of any other action; that also brings this sheet up to date.
    if (AppController* app = appController())
        emit app->changed();
    else
        refresh();
}

void EqualiserSheetController::refresh() {
    followRow();
    const bool wasClipping = clipping_;
    if (!valid()) {
        clipping_ = false;
        pending_ = false;
        if (shownValid_) {
            shown_ = EQSettings::flat();
            shownValid_ = false;
            emit settingsChanged();
        }
    } else {
        const model::AppModel& m = *model();
        clipping_ = isMaster() ? m.isMasterEQClipping() : m.isEQClipping(slot_);
        EQSettings now = pending_ ? shown_ : m.eq(target()).clamped();
        // The row's name or the row count may change as well; the telemetry
        // tick calls this ten times a second, so only a real change is told.
        const QString name = title();
        const bool copy = canCopyToAll();
        if (!(now == shown_) || name != shownTitle_ || copy != shownCanCopy_ || !shownValid_) {
            shown_ = std::move(now);
            shownTitle_ = name;
            shownCanCopy_ = copy;
            shownValid_ = true;
            emit settingsChanged();
        }
    }
    if (clipping_ != wasClipping) emit clippingChanged();
}

double EqualiserSheetController::curveDb(double hz) const {
    EQSettings on = shown_;
    on.enabled = true;
    return on.responseDb(hz, sampleRate);
}

void EqualiserSheetController::sampleSpectrum() {
#ifdef VELLATONE_HAVE_EQ_ANALYSER
    model::AppModel* m = model();
    const bool live = m && m->isRunning();
    if (live) {
        if (!analyser_) analyser_ = std::make_unique<spectrum::EQAnalyser>();
        m->engine().fillRecentSamples(analyser_->scratch(), 0.0);
        analyser_->run(dispatch::monotonicSeconds());
    }
    if (live != spectrumLive_ || live) {
        spectrumLive_ = live;
        emit spectrumChanged();
    }
#endif
}

std::span<const float> EqualiserSheetController::spectrum() const {
#ifdef VELLATONE_HAVE_EQ_ANALYSER
    if (spectrumLive_ && analyser_) return analyser_->levels();
#endif
    return {};
}

bool EqualiserSheetController::spectrumLive() const {
    return spectrumLive_;
}

}  // namespace vt::ui
