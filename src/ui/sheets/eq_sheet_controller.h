// What the equaliser sheet edits: one row's equaliser (slot 0 and up) or the
// master (slot -1). Edits show at once and reach the model, which publishes
// them to the engine and remembers them; a stream of edits from a drag is
// handed on at most every flushMs, since every model change writes the
// settings file.
#pragma once

#include <QtQml/qqmlregistration.h>
#include <QStringList>
#include <QTimer>
#include <QVariantList>
#include <memory>
#include <span>

#include "equaliser/eq_settings.h"
#include "equaliser/eq_target.h"
#include "model/row_state.h"
#include "ui/sheets/app_sheet_controller.h"

namespace vt::spectrum {
class EQAnalyser;
}

namespace vt::ui {

class EqualiserSheetController : public AppSheetController {
    Q_OBJECT
    QML_ELEMENT
    Q_PROPERTY(int slot READ slot WRITE setSlot NOTIFY slotChanged)
    Q_PROPERTY(bool isMaster READ isMaster NOTIFY slotChanged)
    Q_PROPERTY(bool valid READ valid NOTIFY settingsChanged)
    Q_PROPERTY(QString title READ title NOTIFY settingsChanged)
    Q_PROPERTY(bool eqEnabled READ eqEnabled NOTIFY settingsChanged)
    Q_PROPERTY(double preampDb READ preampDb NOTIFY settingsChanged)
    Q_PROPERTY(QVariantList bands READ bands NOTIFY settingsChanged)
    Q_PROPERTY(int matchedPreset READ matchedPreset NOTIFY settingsChanged)
    Q_PROPERTY(bool canCopyToAll READ canCopyToAll NOTIFY settingsChanged)
    Q_PROPERTY(bool clipping READ clipping NOTIFY clippingChanged)
    Q_PROPERTY(bool spectrumLive READ spectrumLive NOTIFY spectrumChanged)
    Q_PROPERTY(QStringList presetNames READ presetNames CONSTANT)
    Q_PROPERTY(QStringList presetDetails READ presetDetails CONSTANT)
    Q_PROPERTY(QStringList kindTitles READ kindTitles CONSTANT)
    Q_PROPERTY(QStringList kindDetails READ kindDetails CONSTANT)
    Q_PROPERTY(int bandCount READ bandCount CONSTANT)

  public:
    static constexpr int flushMs = 50;
    static constexpr double sampleRate = 48000.0;

    explicit EqualiserSheetController(QObject* parent = nullptr);
    ~EqualiserSheetController() override;

    int slot() const { return slot_; }
    void setSlot(int slot);
    bool isMaster() const { return slot_ < 0; }

    bool valid() const;
    QString title() const;
    bool eqEnabled() const { return shown_.enabled; }
    double preampDb() const { return shown_.preampDb; }
    QVariantList bands() const;
    int matchedPreset() const;
    bool canCopyToAll() const;
    bool clipping() const { return clipping_; }
    QStringList presetNames() const;
    QStringList presetDetails() const;
    QStringList kindTitles() const;
    QStringList kindDetails() const;
    int bandCount() const { return int(equaliser::EQSettings::bandCount); }

    // What is shown now, pending edits included.
    const equaliser::EQSettings& shown() const { return shown_; }
    bool hasPendingEdits() const { return pending_; }

    Q_INVOKABLE void setEqEnabled(bool on);
    Q_INVOKABLE void setPreampDb(double db);
    Q_INVOKABLE void setBandKind(int band, int kindIndex);
    Q_INVOKABLE void setBandFrequency(int band, double hz);
    Q_INVOKABLE void setBandGainDb(int band, double db);
    Q_INVOKABLE void setBandQ(int band, double q);
    Q_INVOKABLE void applyPreset(int index);
    Q_INVOKABLE void copyToAll();
    // Hands pending edits to the model now: at the end of a drag, on closing.
    Q_INVOKABLE void commit();
    // Reads the model again (pending edits stay).
    Q_INVOKABLE void refresh();
    // The curve as the graph draws it: the response with the equaliser on,
    // so that the shape stays visible while it is switched off.
    Q_INVOKABLE double curveDb(double hz) const;

    // The live spectrum, 64 levels from 0 to 1 on a log axis from 40 Hz to
    // 16 kHz; empty while nothing plays or without an analyser.
    Q_INVOKABLE void sampleSpectrum();
    std::span<const float> spectrum() const;
    bool spectrumLive() const;

  signals:
    void slotChanged();
    void settingsChanged();
    void clippingChanged();
    void spectrumChanged();

  private:
    void leavingApp() override { commit(); }
    void appUpdated() override { refresh(); }
    equaliser::EQTarget target() const;
    void edited();
    void pushToModel();
    void announce();
    void followRow();

    int slot_ = -1;
    // The row the sheet was opened for: slots renumber when a row above goes
    // or rows are moved, and the sheet stays with its row. 0 until known.
    model::RowId rowId_ = 0;
    bool rowGone_ = false;
    equaliser::EQSettings shown_ = equaliser::EQSettings::flat();
    bool pending_ = false;
    bool clipping_ = false;
    // What was last announced, so that an unchanged refresh stays quiet.
    QString shownTitle_;
    bool shownCanCopy_ = false;
    bool shownValid_ = false;
    QTimer flush_;
    std::unique_ptr<spectrum::EQAnalyser> analyser_;
    bool spectrumLive_ = false;
};

}  // namespace vt::ui
