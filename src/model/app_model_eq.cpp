// The equalisers of the rows and the master, and the marks that show a clip.
#include "equaliser/eq_preset.h"
#include "model/app_model.h"

namespace vt::model {

using equaliser::EQBand;
using equaliser::EQSettings;
using equaliser::EQTarget;

EQSettings AppModel::eq(const EQTarget& target) const {
    if (target.isMaster()) return masterEQ_;
    const int slot = int(*target.rowIndex());
    return validSlot(slot) >= 0 ? rows_[slot].eq : EQSettings::flat();
}

void AppModel::setEQ(int slot, const EQSettings& settings) {
    if (validSlot(slot) < 0) return;
    rows_[slot].eq = settings.clamped();
    engine_->setEQ(slot, rows_[slot].eq);
    persist(slot);
}

void AppModel::setMasterEQ(const EQSettings& settings) {
    masterEQ_ = settings.clamped();
    settings_.setMasterEQ(masterEQ_);
    engine_->setMasterEQ(masterEQ_);
}

void AppModel::setEQBand(const EQTarget& target, int band, const EQBand& value) {
    if (band < 0 || band >= int(EQSettings::bandCount)) return;
    EQSettings settings = eq(target);
    settings.bands = EQSettings::sized(std::move(settings.bands));
    settings.bands[band] = value.clamped();
    if (target.isMaster())
        setMasterEQ(settings);
    else
        setEQ(int(*target.rowIndex()), settings);
}

void AppModel::copyEQToAllOutputs(int from) {
    if (validSlot(from) < 0) return;
    const EQSettings source = rows_[from].eq;
    for (int slot = 0; slot < int(rows_.size()); ++slot)
        if (slot != from) setEQ(slot, source);
}

std::optional<std::string> AppModel::matchedEQPreset(int slot) const {
    if (validSlot(slot) < 0) return std::nullopt;
    if (const equaliser::EQPreset* p = equaliser::EQPreset::matching(rows_[slot].eq)) return p->id;
    return std::nullopt;
}

bool AppModel::isEQClipping(int slot) const {
    if (validSlot(slot) < 0 || !rows_[slot].eqClippedAt) return false;
    return main_.now() - *rows_[slot].eqClippedAt < clipMarkSeconds;
}

}  // namespace vt::model
