#include "ui/sheets/calibration_controller.h"

#include <QVariantMap>

#include "calibration/calibrator.h"
#include "model/app_model.h"
#include "ui/bridge/app_controller.h"

namespace vt::ui {

using calibration::Calibrator;
using calibration::NarrowingSearch;
using Kind = Calibrator::PhaseKind;

namespace {

QString qs(std::string_view text) {
    return QString::fromUtf8(text.data(), qsizetype(text.size()));
}

}  // namespace

CalibrationSheetController::CalibrationSheetController(QObject* parent)
    : AppSheetController(parent) {}

CalibrationSheetController::~CalibrationSheetController() {
    // A sheet closed any other way than by its buttons leaves nothing held.
    if (Calibrator* c = calibrator()) c->cancel();
}

Calibrator* CalibrationSheetController::calibrator() const {
    model::AppModel* m = model();
    if (!m || ended_) return nullptr;
    Calibrator* c = m->calibrator();
    return c == opened_ ? c : nullptr;
}

QString CalibrationSheetController::nameOf(int slot) const {
    model::AppModel* m = model();
    if (!m || slot < 0 || slot >= int(m->rows().size())) return {};
    return QString::fromStdString(m->rows()[size_t(slot)].shownName());
}

QString CalibrationSheetController::rowName() const {
    return nameOf(slot_);
}

QString CalibrationSheetController::referenceName() const {
    return nameOf(referenceSlot_);
}

QVariantList CalibrationSheetController::references() const {
    QVariantList out;
    model::AppModel* m = model();
    if (!m) return out;
    for (int s = 0; s < int(m->rows().size()); ++s)
        if (s != slot_ && m->canCalibrate(s))
            out.append(QVariantMap{{"slot", s}, {"name", nameOf(s)}});
    return out;
}

QVariantList CalibrationSheetController::methods() const {
    QVariantList out;
    for (Calibrator::Method m : Calibrator::allMethods)
        out.append(QVariantMap{{"id", qs(Calibrator::rawValue(m))},
                               {"title", qs(Calibrator::rawValue(m))},
                               {"blurb", qs(Calibrator::blurb(m))},
                               {"cost", qs(Calibrator::costWord(m))}});
    return out;
}

QString CalibrationSheetController::method() const {
    const Calibrator* c = calibrator();
    return c ? qs(Calibrator::rawValue(c->method())) : QString();
}

void CalibrationSheetController::setMethod(const QString& method) {
    Calibrator* c = calibrator();
    const auto m = Calibrator::methodFromRaw(method.toStdString());
    if (c && m) c->setMethod(*m);
}

QString CalibrationSheetController::phase() const {
    const Calibrator* c = calibrator();
    if (!c) return QStringLiteral("ended");
    switch (c->phase().kind) {
        case Kind::choosing:
            return QStringLiteral("choosing");
        case Kind::measuringReference:
            return QStringLiteral("measuringReference");
        case Kind::measuringOutput:
            return QStringLiteral("measuringOutput");
        case Kind::comparing:
            return QStringLiteral("comparing");
        case Kind::done:
            return QStringLiteral("done");
        case Kind::failed:
            return QStringLiteral("failed");
    }
    return QStringLiteral("ended");
}

QString CalibrationSheetController::playingName() const {
    const Calibrator* c = calibrator();
    if (!c) return {};
    if (c->phase().kind == Kind::measuringReference) return referenceName();
    if (c->phase().kind == Kind::measuringOutput) return rowName();
    return {};
}

int CalibrationSheetController::progressTaps() const {
    const Calibrator* c = calibrator();
    return c ? c->progressTaps() : 0;
}

int CalibrationSheetController::minimumTaps() const {
    return Calibrator::minimumTaps;
}

double CalibrationSheetController::candidateA() const {
    const Calibrator* c = calibrator();
    return c && c->search() ? c->search()->candidates().first : 0;
}

double CalibrationSheetController::candidateB() const {
    const Calibrator* c = calibrator();
    return c && c->search() ? c->search()->candidates().second : 0;
}

int CalibrationSheetController::playingCandidate() const {
    const Calibrator* c = calibrator();
    return c && c->playingCandidate() ? *c->playingCandidate() : -1;
}

int CalibrationSheetController::round() const {
    const Calibrator* c = calibrator();
    return c && c->search() ? c->search()->rounds + 1 : 0;
}

int CalibrationSheetController::maximumRounds() const {
    return NarrowingSearch::maximumRounds;
}

QString CalibrationSheetController::resultText() const {
    const Calibrator* c = calibrator();
    if (!c || c->phase().kind != Kind::done) return {};
    return QStringLiteral("%1 ms").arg(c->phase().milliseconds, 0, 'f', 1);
}

QString CalibrationSheetController::message() const {
    const Calibrator* c = calibrator();
    return c && c->phase().kind == Kind::failed ? QString::fromStdString(c->phase().message)
                                                : QString();
}

void CalibrationSheetController::open(int slot) {
    model::AppModel* m = model();
    if (!m) return;
    slot_ = slot;
    const auto reference = m->calibrationReference(slot);
    referenceSlot_ = reference.value_or(-1);
    opened_ = reference ? m->beginCalibration(slot, *reference) : nullptr;
    ended_ = opened_ == nullptr;
    emit stateChanged();
}

void CalibrationSheetController::setReference(int slot) {
    model::AppModel* m = model();
    Calibrator* c = calibrator();
    if (!m || !c || c->phase().kind != Kind::choosing || slot == referenceSlot_) return;
    const Calibrator::Method method = c->method();
    c->cancel();
    referenceSlot_ = slot;
    opened_ = m->beginCalibration(slot_, slot);
    ended_ = opened_ == nullptr;
    if (Calibrator* next = calibrator()) next->setMethod(method);
    emit stateChanged();
}

void CalibrationSheetController::begin() {
    if (Calibrator* c = calibrator()) c->begin();
}

void CalibrationSheetController::tap() {
    if (Calibrator* c = calibrator()) c->tap();
}

void CalibrationSheetController::choose(const QString& choice) {
    Calibrator* c = calibrator();
    if (!c) return;
    if (choice == QLatin1String("a"))
        c->choose(NarrowingSearch::Choice::a);
    else if (choice == QLatin1String("b"))
        c->choose(NarrowingSearch::Choice::b);
    else if (choice == QLatin1String("cannotTell"))
        c->choose(NarrowingSearch::Choice::cannotTell);
}

void CalibrationSheetController::playCandidate(int index) {
    if (Calibrator* c = calibrator()) c->playCandidate(index);
}

void CalibrationSheetController::apply() {
    if (Calibrator* c = calibrator()) c->apply();
    ended_ = true;
    emit stateChanged();
}

void CalibrationSheetController::back() {
    if (Calibrator* c = calibrator()) c->back();
}

void CalibrationSheetController::cancel() {
    if (Calibrator* c = calibrator()) c->cancel();
    if (!ended_) {
        ended_ = true;
        emit stateChanged();
    }
}

}  // namespace vt::ui
