// The interface's handle on the application model. Every Qt part (the
// window, the sheets, the visualisers, the tray) is given this one object and
// reads the model through it on the main thread, which is Qt's event loop.
// changed() is the one signal that something may look different: after every
// action taken through the interface, whenever the model reports a change of
// its own, and on every telemetry tick while playing.
//
// The properties and invokable calls below are the window's view of the
// model; other parts may use them too, or reach model() from their own C++.
#pragma once

#include <QObject>
#include <QString>
#include <QTimer>
#include <QVariantList>
#include <map>

#include "model/app_model.h"
#include "ui/bridge/mixer_controller.h"
#include "ui/bridge/notice_list_model.h"
#include "ui/bridge/row_list_model.h"

namespace vt::ui {

class AppController : public QObject {
    Q_OBJECT
    Q_PROPERTY(bool running READ running NOTIFY changed)
    Q_PROPERTY(double masterVolume READ masterVolume NOTIFY changed)
    Q_PROPERTY(QString playbackMode READ playbackMode NOTIFY changed)
    Q_PROPERTY(bool syncSlowSpeakers READ syncSlowSpeakers NOTIFY changed)
    Q_PROPERTY(bool canUndoRemove READ canUndoRemove NOTIFY changed)
    Q_PROPERTY(QString lastRemovedName READ lastRemovedName NOTIFY changed)
    Q_PROPERTY(bool canAddOutput READ canAddOutput NOTIFY changed)
    Q_PROPERTY(QVariantList addableOutputs READ addableOutputs NOTIFY changed)
    Q_PROPERTY(vt::ui::RowListModel* rows READ rows CONSTANT)
    Q_PROPERTY(vt::ui::NoticeListModel* notices READ notices CONSTANT)
    Q_PROPERTY(vt::ui::MixerController* mixer READ mixer CONSTANT)
    Q_PROPERTY(QString appearance READ appearance NOTIFY changed)
    Q_PROPERTY(bool showInMenuBar READ showInMenuBar NOTIFY changed)
    Q_PROPERTY(bool openAtLogin READ openAtLogin NOTIFY changed)
    Q_PROPERTY(QString loginItemError READ loginItemError NOTIFY changed)
    Q_PROPERTY(QString visualiserStyle READ visualiserStyle NOTIFY changed)
    Q_PROPERTY(bool visualiserHidden READ visualiserHidden NOTIFY changed)
    Q_PROPERTY(bool hasSheets READ hasSheets CONSTANT)
    Q_PROPERTY(QString passwordReceiverName READ passwordReceiverName NOTIFY changed)
    Q_PROPERTY(bool passwordRejected READ passwordRejected NOTIFY changed)
    Q_PROPERTY(QString pairingReceiverName READ pairingReceiverName NOTIFY changed)
    Q_PROPERTY(bool pairingAwaitingPIN READ pairingAwaitingPIN NOTIFY changed)
    Q_PROPERTY(QString pairingError READ pairingError NOTIFY changed)
    Q_PROPERTY(bool hasVisualiser READ hasVisualiser CONSTANT)
    Q_PROPERTY(bool hasTrack READ hasTrack NOTIFY changed)
    Q_PROPERTY(QString trackTitle READ trackTitle NOTIFY changed)
    Q_PROPERTY(QString trackArtist READ trackArtist NOTIFY changed)
    Q_PROPERTY(QString trackArtwork READ trackArtwork NOTIFY changed)
    Q_PROPERTY(bool trackPlaying READ trackPlaying NOTIFY changed)

  public:
    explicit AppController(model::AppModel& model, QObject* parent = nullptr);

    model::AppModel& model() { return model_; }
    const model::AppModel& model() const { return model_; }

    // Which of the other interface modules are built in.
    void setModules(bool sheets, bool visualiser) {
        hasSheets_ = sheets;
        hasVisualiser_ = visualiser;
    }
    bool hasSheets() const { return hasSheets_; }
    bool hasVisualiser() const { return hasVisualiser_; }

    bool running() const { return model_.isRunning(); }
    double masterVolume() const { return model_.masterVolume(); }
    QString playbackMode() const;
    bool syncSlowSpeakers() const { return model_.syncSlowSpeakers(); }
    bool canUndoRemove() const { return model_.canUndoRemove(); }
    QString lastRemovedName() const;
    bool canAddOutput() const;
    // Each as {id, name, detail}.
    QVariantList addableOutputs() const;
    RowListModel* rows() { return &rows_; }
    NoticeListModel* notices() { return &notices_; }
    MixerController* mixer() { return &mixer_; }
    QString appearance() const;
    bool showInMenuBar() const;
    bool openAtLogin() const;
    QString loginItemError() const;
    // The raw style: "Spectrum", "Scope", ...
    QString visualiserStyle() const;
    bool visualiserHidden() const { return model_.visualiserHidden(); }

    // What the desktop plays; the artwork as a file URL, or empty.
    bool hasTrack() const { return model_.nowPlayingInfo().has_value(); }
    QString trackTitle() const;
    QString trackArtist() const;
    QString trackArtwork() const;
    bool trackPlaying() const;
    // "Title · Artist", or empty: the tray's line.
    QString trackLine() const;
    // "togglePlayPause", "nextTrack" or "previousTrack".
    Q_INVOKABLE void mediaCommand(const QString& command);

    Q_INVOKABLE void startStop();
    Q_INVOKABLE void setMasterVolume(double volume);
    Q_INVOKABLE bool addOutput(const QString& id);
    // The password sheet: empty while no receiver asks.
    QString passwordReceiverName() const {
        return QString::fromStdString(model_.passwordReceiverName().value_or(""));
    }
    bool passwordRejected() const { return model_.passwordRejected(); }
    Q_INVOKABLE void submitPassword(const QString& text);
    Q_INVOKABLE void cancelPassword();
    Q_INVOKABLE void beginPassword(int slot);
    // The PIN sheet: empty while no pairing runs.
    QString pairingReceiverName() const {
        return QString::fromStdString(model_.pairingReceiverName().value_or(""));
    }
    bool pairingAwaitingPIN() const { return model_.pairingAwaitingPIN(); }
    QString pairingError() const {
        return QString::fromStdString(model_.pairingError().value_or(""));
    }
    Q_INVOKABLE void beginPairing(int slot);
    Q_INVOKABLE void submitPIN(const QString& typed);
    Q_INVOKABLE void cancelPairing();
    Q_INVOKABLE void removeOutput(int slot);
    Q_INVOKABLE void undoRemove();
    Q_INVOKABLE void rename(int slot, const QString& name);
    Q_INVOKABLE void toggleDisabled(int slot);
    Q_INVOKABLE void toggleMuted(int slot);
    Q_INVOKABLE void dismissMeasureHint(int slot);
    Q_INVOKABLE void toggleSolo(int slot);
    Q_INVOKABLE void reconnect(int slot);
    Q_INVOKABLE void setDelay(int slot, double ms);
    Q_INVOKABLE void setVolume(int slot, double volume);
    // The dragged row lands where `onto` is shown.
    Q_INVOKABLE void moveRowDragging(int slot, int onto);
    // One place up (-1) or down (+1) in the shown order.
    Q_INVOKABLE void moveRowBy(int slot, int delta);
    Q_INVOKABLE void setPlaybackMode(const QString& mode);
    Q_INVOKABLE void setSyncSlowSpeakers(bool on);
    Q_INVOKABLE void actOnNotice(const QString& id, bool primary);
    Q_INVOKABLE void dismissNotice(const QString& id);
    Q_INVOKABLE void setAppearance(const QString& appearance);
    Q_INVOKABLE void setShowInMenuBar(bool on);
    Q_INVOKABLE void setOpenAtLogin(bool on);
    Q_INVOKABLE void setVisualiserStyle(const QString& style);
    Q_INVOKABLE void setVisualiserHidden(bool hidden);

    // The model changed on its own: refresh and tell everyone.
    void refresh() { emit changed(); }

  signals:
    void changed();

  protected:
    model::AppModel& model_;

  private:
    void sync();
    void tick();
    template <typename F>
    void act(F&& f) {
        f();
        emit changed();
    }

    RowListModel rows_;
    NoticeListModel notices_;
    std::map<int, double> levels_;
    QTimer ticker_;
    int idleTicks_ = 0;
    bool hasSheets_ = false;
    bool hasVisualiser_ = false;
    // Last: it follows this object's changes from its construction on.
    MixerController mixer_{*this};
};

}  // namespace vt::ui
