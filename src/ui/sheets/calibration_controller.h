// What the calibration sheet shows and does: one row measured against a
// reference, by the method the person picks; the calibration itself is the
// model's, so the sheet only follows its phases and passes on taps, choices
// and the final apply or cancel.
#pragma once

#include <QtQml/qqmlregistration.h>
#include <QString>
#include <QVariantList>

#include "ui/sheets/app_sheet_controller.h"

namespace vt::calibration {
class Calibrator;
}

namespace vt::ui {

class CalibrationSheetController : public AppSheetController {
    Q_OBJECT
    QML_ELEMENT
    Q_PROPERTY(int slot READ slot NOTIFY stateChanged)
    Q_PROPERTY(QString rowName READ rowName NOTIFY stateChanged)
    Q_PROPERTY(int referenceSlot READ referenceSlot NOTIFY stateChanged)
    Q_PROPERTY(QString referenceName READ referenceName NOTIFY stateChanged)
    // [{slot, name}] of the rows that can be the reference.
    Q_PROPERTY(QVariantList references READ references NOTIFY stateChanged)
    // [{id, title, blurb, cost}], in the order shown.
    Q_PROPERTY(QVariantList methods READ methods CONSTANT)
    Q_PROPERTY(QString method READ method WRITE setMethod NOTIFY stateChanged)
    // "choosing", "measuringReference", "measuringOutput", "comparing",
    // "done", "failed", or "ended" once applied or cancelled.
    Q_PROPERTY(QString phase READ phase NOTIFY stateChanged)
    Q_PROPERTY(QString playingName READ playingName NOTIFY stateChanged)
    Q_PROPERTY(int progressTaps READ progressTaps NOTIFY stateChanged)
    Q_PROPERTY(int minimumTaps READ minimumTaps CONSTANT)
    Q_PROPERTY(double candidateA READ candidateA NOTIFY stateChanged)
    Q_PROPERTY(double candidateB READ candidateB NOTIFY stateChanged)
    Q_PROPERTY(int playingCandidate READ playingCandidate NOTIFY stateChanged)
    Q_PROPERTY(int round READ round NOTIFY stateChanged)
    Q_PROPERTY(int maximumRounds READ maximumRounds CONSTANT)
    Q_PROPERTY(QString resultText READ resultText NOTIFY stateChanged)
    Q_PROPERTY(QString message READ message NOTIFY stateChanged)

  public:
    explicit CalibrationSheetController(QObject* parent = nullptr);
    ~CalibrationSheetController() override;

    int slot() const { return slot_; }
    QString rowName() const;
    int referenceSlot() const { return referenceSlot_; }
    QString referenceName() const;
    QVariantList references() const;
    QVariantList methods() const;
    QString method() const;
    void setMethod(const QString& method);
    QString phase() const;
    QString playingName() const;
    int progressTaps() const;
    int minimumTaps() const;
    double candidateA() const;
    double candidateB() const;
    int playingCandidate() const;
    int round() const;
    int maximumRounds() const;
    QString resultText() const;
    QString message() const;

    // The sheet opens on a row: the first other audible row is the
    // reference until another is picked.
    Q_INVOKABLE void open(int slot);
    Q_INVOKABLE void setReference(int slot);
    Q_INVOKABLE void begin();
    Q_INVOKABLE void tap();
    // "a", "b" or "cannotTell".
    Q_INVOKABLE void choose(const QString& choice);
    Q_INVOKABLE void playCandidate(int index);
    Q_INVOKABLE void apply();
    Q_INVOKABLE void back();
    Q_INVOKABLE void cancel();

  signals:
    void stateChanged();

  private:
    void appUpdated() override { emit stateChanged(); }
    // The model's calibration while it is this sheet's.
    calibration::Calibrator* calibrator() const;
    QString nameOf(int slot) const;

    int slot_ = -1;
    int referenceSlot_ = -1;
    const calibration::Calibrator* opened_ = nullptr;
    bool ended_ = false;
};

}  // namespace vt::ui
