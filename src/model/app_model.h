// The one owner of the running program: the rows of outputs, the engine, the
// guard on the system output, the device monitors, what is remembered
// between runs and what the user is told. Everything here runs on the main
// queue; callbacks from other threads hop there first.
//
// A row's index in rows() is its engine slot: regular rows (devices, and
// later AirPlay and Cast) first, guests after them. Adding or removing a row
// renumbers the rows behind it, so slots are passed as plain indices and
// looked up afresh each time.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "airplay/airplay_pairing.h"
#include "airplay/airplay_sender.h"
#include "airplay/airplay_supervisor.h"
#include "calibration/calibrator.h"
#include "calibration/unavailable.h"
#include "cast/cast_supervisor.h"
#include "delay/playback_mode.h"
#include "devices/audio_device.h"
#include "devices/device_monitor.h"
#include "devices/server_connection.h"
#include "devices/sound_server.h"
#include "discovery/airplay_browser.h"
#include "discovery/cast_browser.h"
#include "discovery/local_interfaces.h"
#include "discovery/service_browser.h"
#include "dispatch/main_queue.h"
#include "engine/multi_output_engine.h"
#include "equaliser/eq_target.h"
#include "guard/output_guard.h"
#include "guard/output_restorer.h"
#include "guard/restored_output.h"
#include "guard/speaker_volumes.h"
#include "guests/guest_party.h"
#include "guests/guest_server.h"
#include "mixer/app_mixer.h"
#include "model/notice.h"
#include "model/notice_words.h"
#include "model/row_state.h"
#include "nowplaying/media_player_bus.h"
#include "nowplaying/now_playing.h"
#include "platform/audio_backend.h"
#include "secrets/airplay_password_store.h"
#include "secrets/secret_store.h"
#include "sendspin/artwork_thumbnail.h"
#include "settings/debug_log_writer.h"
#include "settings/settings.h"
#include "stage/room_types.h"

namespace vt::model {

// Where and how the guest server runs once playing starts.
struct GuestSetup {
    std::filesystem::path root;  // the guest web page's folder
    uint16_t port = guests::GuestLink::defaultPort;
    double patience = 15.0;
    guests::GuestServerOptions options;
};

class AppModel {
  public:
    static constexpr int maxRegularOutputs = engine::MultiOutputEngine::maxRegularOutputs;
    static constexpr int maxGuests = engine::MultiOutputEngine::maxGuests;
    static constexpr int maxOutputs = engine::MultiOutputEngine::maxOutputs;
    static constexpr double telemetrySeconds = 0.1;
    static constexpr double rateRestartSeconds = 1.0;
    static constexpr double clipMarkSeconds = 1.5;
    static constexpr double measureHintSeconds = 120.0;
    static constexpr double connectStallSeconds = 12.0;

    // Builds the model and launches it: gives the output back if the last
    // run died holding it, loads the rows, and starts the monitors and the
    // output guard. Nothing plays until startStop. The backend, the queues
    // and the settings must outlive the model. With no debug log writer the
    // drift log stays off whatever the setting says.
    AppModel(platform::AudioBackend& backend, dispatch::MainQueue& main,
             dispatch::WorkQueue& openQueue, settings::Settings& settings,
             std::unique_ptr<settings::DebugLogWriter> debugLog = nullptr);
    ~AppModel();
    AppModel(const AppModel&) = delete;
    AppModel& operator=(const AppModel&) = delete;

    // ---- Observed state.
    const std::vector<RowState>& rows() const { return rows_; }
    std::vector<ShownRow> displayRows() const;
    bool isRunning() const { return isRunning_; }
    double masterVolume() const { return masterVolume_; }
    const std::vector<devices::AudioDevice>& outputDevices() const { return outputDevices_; }
    bool captureAvailable() const { return captureSinkPresent_; }
    // The sound server answers. While it is away the model keeps its rows,
    // settings and guests, and a running model stays on: it carries on by
    // itself when the server is back.
    bool soundServerConnected() const { return soundServer_.connected(); }
    // Seconds since the sound server went away, or nothing.
    std::optional<double> soundServerAwaySeconds() const;
    // The server the desktop uses, by name, and the command that starts it.
    devices::SoundServerKind soundServerKind() const;
    std::string soundServerStartCommand() const;
    const std::optional<std::string>& startError() const { return startError_; }
    const std::optional<guard::RestoredOutput>& restoredOutput() const { return restoredOutput_; }
    delay::PlaybackMode playbackMode() const { return playbackMode_; }
    bool syncSlowSpeakers() const { return syncSlowSpeakers_; }
    const stage::RoomState& room() const { return room_; }
    const std::vector<double>& engineDelays() const { return engineDelays_; }
    const std::vector<double>& heardMs() const { return heardMs_; }
    std::optional<int> soloSlot() const;
    double launched() const { return launched_; }
    engine::MultiOutputEngine& engine() { return *engine_; }
    // Devices that no row plays to yet.
    std::vector<devices::AudioDevice> addableDevices() const;
    int regularRowCount() const;

    // ---- Guests.
    // Without this no guest server is ever started. Call before startStop.
    void enableGuests(GuestSetup setup);
    // The link to show once the server runs, or why guests cannot join.
    const std::optional<guests::GuestLink>& guestLink() const { return guestLink_; }
    const std::optional<std::string>& guestServerError() const { return guestServerError_; }
    guests::GuestParty* guestParty() { return guestParty_.get(); }
    guests::GuestServer* guestServer() { return guestServer_.get(); }
    // The invitation opening: starts the server on first demand and takes the
    // address afresh, since the computer may have moved to another network.
    void openInvitation();
    // Rows that are guests' phones.
    int guestCount() const;
    // Something changed on its own (a guest came, went or changed status).
    std::function<void()> onStateChanged;

    // ---- Discovery (app_model_discovery.cpp).
    // Starts watching the network for AirPlay receivers and Cast devices;
    // without it both lists stay empty. `services` must outlive the model.
    void enableDiscovery(discovery::ServiceBrowser& services);
    const std::vector<discovery::AirPlayReceiver>& airplayReceivers() const {
        return airplayReceivers_;
    }
    const std::vector<discovery::CastDevice>& castDevices() const { return castDevices_; }
    // The discovered ones no row plays to yet, in the published order.
    std::vector<discovery::AirPlayReceiver> availableAirPlayReceivers() const;
    std::vector<discovery::CastDevice> availableCastDevices() const;
    // Adds a row for a discovered receiver; false when eight regular rows
    // exist, the receiver is not listed or already has a row.
    bool addAirPlayOutput(const std::string& receiverID);
    // The same for a discovered Cast TV.
    bool addCastOutput(const std::string& deviceID);

    // ---- Cast (app_model_cast.cpp).
    // Without this no Cast row ever plays. `senderQueue` runs the senders'
    // protocol work and must outlive the model.
    void enableCast(dispatch::MainQueue& senderQueue);
    // Tests give senders of their own; with `trySync` a TV is asked for the
    // clock-synced receiver first.
    void enableCast(cast::CastSupervisor::SenderFactory factory, bool trySync = false);
    cast::CastSupervisor* castSupervisor() { return castSupervisor_.get(); }
    // Someone acts on a row whose receiver has not resolved yet.
    void retryUnresolvedReceivers();

    // ---- AirPlay outputs (app_model_airplay.cpp).
    // Without it AirPlay rows never play. `secrets` keeps the receivers'
    // passwords and must outlive the model.
    // Per-app volume on the server's streams; off until enabled. `identity`
    // null: the desktop entries of this session.
    void enableMixer(mixer::AppStreams& streams,
                     std::unique_ptr<mixer::AppIdentity> identity = nullptr);
    mixer::AppMixer* mixer() { return mixer_.get(); }

    void enableAirPlay(secrets::SecretStore& secrets);
    airplay::AirPlaySupervisor* airplay() { return airplay_.get(); }
    // The row's receiver leads a group of its own (false when not listed).
    bool leadsOwnGroup(int slot) const;
    // The password sheet: opens for the row's receiver; says so when the
    // receiver refused the password kept here.
    bool canEnterPassword(int slot) const;
    void beginPassword(int slot);
    void submitPassword(const std::string& text);
    void endPassword();
    const std::optional<std::string>& passwordReceiverID() const { return passwordReceiverID_; }
    const std::optional<std::string>& passwordReceiverName() const { return passwordReceiverName_; }
    bool passwordRejected() const { return passwordRejected_; }
    // The PIN sheet (app_model_pairing.cpp): a one-time pairing with the
    // row's receiver, whose credential every later sender hands on. At most
    // one runs; a second one ends the first.
    bool canPair(int slot) const;
    void beginPairing(int slot);
    void submitPIN(const std::string& typed);
    void endPairing();
    const std::optional<std::string>& pairingReceiverID() const { return pairingReceiverID_; }
    const std::optional<std::string>& pairingReceiverName() const { return pairingReceiverName_; }
    bool pairingAwaitingPIN() const { return pairingAwaitingPIN_; }
    const std::optional<std::string>& pairingError() const { return pairingError_; }
    std::optional<airplay::AirPlayCredential> airplayCredential(
        const std::string& receiverID) const;
    void setAirplayCredential(const airplay::AirPlayCredential& credential,
                              const std::string& receiverID);
    // This computer's id towards AirPlay receivers, made once and kept.
    std::string airplayDeviceID();
    // At launch: drops kept pairings made under another device id, and the
    // timing flags of the last run.
    void pruneAirplayCredentials(const std::string& deviceID);
    void clearAirplayNTPFlags();

    // ---- Now playing (app_model_nowplaying.cpp).
    // Follows the desktop's media players from now until the model goes;
    // without it there is never a track. `bus` and `artworkQueue` (a serial
    // queue) must outlive the model; staged images go in `artworkDir`.
    void enableNowPlaying(nowplaying::MediaPlayerBus& bus, dispatch::WorkQueue& artworkQueue,
                          std::filesystem::path artworkDir);
    const std::optional<nowplaying::NowPlayingInfo>& nowPlayingInfo() const {
        return nowPlayingInfo_;
    }
    // The track as every sender takes it, or nothing.
    std::optional<airplay::AirPlaySender::Metadata> currentTrack() const;
    // Hands the track to every AirPlay, Cast and guest sender: the one place
    // they all hang from.
    void pushNowPlaying();
    // The remote's cover of the track: a key named for the thumbnail's bytes
    // and the JPEG itself, once the thumbnail is made (off the main thread,
    // before the track is pushed); nothing before then or without a cover.
    struct TrackArtwork {
        std::string key;
        std::string jpeg;
    };
    std::optional<TrackArtwork> trackArtwork() const;
    void mediaCommand(nowplaying::PlayerCommand command);
    void seekPlayer(double seconds);

    // ---- The one switch.
    void startStop();
    // Quitting: stops first when running, which gives the output back.
    void shutDown();

    // ---- Rows.
    // Adds a row for a device; false when eight regular rows exist, the
    // device is unknown or already has a row.
    bool addOutput(const std::string& uid);
    bool canRemove(int slot) const;
    void removeOutput(int slot);
    void removeRow(int slot);
    bool canUndoRemove() const;
    void undoRemove();
    const std::optional<RemovedOutput>& lastRemoved() const { return lastRemoved_; }
    // Display positions.
    void moveRow(int from, int to);
    // Slots: the dragged row lands where the other one is shown.
    void moveRowDragging(int slot, int onto);
    void rename(int slot, const std::optional<std::string>& name);
    void toggleDisabled(int slot);
    void toggleMuted(int slot);
    void toggleSolo(int slot);
    bool isSoloed(int slot) const;
    void applyMuted(int slot, bool muted);
    void setMutedWithoutRemembering(int slot, bool muted);
    // Measurements silence rows for a while; several may overlap.
    void beginForcedMutes(const void* holder);
    void endForcedMutes(const void* holder);
    bool canReconnect(int slot) const;
    void reconnect(int slot);
    std::vector<int> heldSlots() const;
    void reconnectHeld(int slot);
    void reconnectAllHeld();
    // The row's output is absent from the list it comes from.
    bool isMissing(const RowState& row) const;

    void setDelay(int slot, double ms);
    void setVolume(int slot, double volume);
    void clearMeasuredLatency(int slot);
    void setMasterVolume(double volume);
    void setPlaybackMode(delay::PlaybackMode mode);
    void setSyncSlowSpeakers(bool on);

    // ---- Preferences (app_model_preferences.cpp), read at launch.
    settings::Appearance appearance() const { return appearance_; }
    void setAppearance(settings::Appearance appearance);
    // Whether the tray icon shows, which also keeps the program running
    // when its window closes.
    bool showInMenuBar() const { return showInMenuBar_; }
    void setShowInMenuBar(bool on);
    // Writes or removes the autostart entry; when that fails the
    // preference stays as it was and loginItemError says why.
    bool openAtLogin() const { return openAtLogin_; }
    const std::optional<std::string>& loginItemError() const { return loginItemError_; }
    void setOpenAtLogin(bool on);
    // Where the autostart entry goes and the program it opens; tests point
    // them elsewhere.
    void setAutostartPlace(std::filesystem::path dir, std::filesystem::path program);

    // ---- Visualiser (app_model_visualiser.cpp).
    bool visualiserHidden() const { return visualiserHidden_; }
    settings::VisualiserStyle visualiserStyle() const { return visualiserStyle_; }
    void setVisualiserHidden(bool hidden);
    void setVisualiserStyle(settings::VisualiserStyle style);

    // ---- Equalisers.
    equaliser::EQSettings eq(const equaliser::EQTarget& target) const;
    void setEQ(int slot, const equaliser::EQSettings& settings);
    void setMasterEQ(const equaliser::EQSettings& settings);
    void setEQBand(const equaliser::EQTarget& target, int band, const equaliser::EQBand& value);
    void copyEQToAllOutputs(int from);
    std::optional<std::string> matchedEQPreset(int slot) const;
    const equaliser::EQSettings& masterEQ() const { return masterEQ_; }
    bool isEQClipping(int slot) const;
    const std::optional<double>& masterEQClippedAt() const { return masterEQClippedAt_; }
    bool isMasterEQClipping() const {
        return masterEQClippedAt_ && main_.now() - *masterEQClippedAt_ < clipMarkSeconds;
    }

    // ---- Calibration (app_model_calibration.cpp).
    // Where measurements listen and play; without it they fail with their
    // own sentences. Both must outlive the model.
    void enableCalibration(calibration::Microphone& microphone, calibration::ToneOutput& tones);
    // Running, the row is there, on and audible, and another row is too.
    bool canCalibrate(int slot) const;
    // The first other audible row, the reference a calibration offers first.
    std::optional<int> calibrationReference(int slot) const;
    // Opens a calibration of `slot` against `referenceSlot`, ending any
    // other; null when the row cannot be measured against that one.
    calibration::Calibrator* beginCalibration(int slot, int referenceSlot);
    // The open calibration; null once it has been applied or cancelled.
    calibration::Calibrator* calibrator();
    // Cancels the running calibration, if any.
    void endCalibration();
    // Held to the row's range (a local speaker cannot be early), pushed to
    // the delays and kept.
    void setMeasuredLatency(int slot, double ms, settings::LatencySource source);
    // The delay the engine applies to the row now.
    double engineDelayMs(int slot) const;
    // A Bluetooth speaker whose delay nobody has measured yet: the row
    // offers a measurement until the user dismisses that for the output.
    bool showsMeasureHint(int slot) const;
    void dismissMeasureHint(int slot);
    // What the row's device says of its latency beyond what the stream's
    // timing already tells the engine; a network output's own report.
    double reportedLatency(int slot) const;

    // ---- Pushing to the engine and the disk.
    void pushRow(int slot);
    void pushDelays();
    void pushMix();
    void persist(int slot);
    void normaliseOrder();
    void seedReportedLatency(int slot);

    // ---- Notices.
    std::vector<Notice> allNotices() const;
    std::vector<Notice> notices();
    std::optional<Notice> noticeFor(const RowState& row) const;
    void dismissNotice(const Notice& notice);
    void act(const Notice& notice, NoticeButton button);
    std::vector<int> noticeSlots(const std::string& id) const;
    std::string meta(const RowState& row) const;
    // Where the "multihomed" check reads this computer's interfaces; tests
    // give their own.
    void setLocalInterfaces(std::function<std::vector<discovery::LocalInterface>()> read) {
        localInterfaces_ = std::move(read);
    }

  private:
    RowNoticeFacts rowNoticeFacts(int slot) const;
    int validSlot(int slot) const { return slot >= 0 && slot < int(rows_.size()) ? slot : -1; }
    int slotOf(RowId id) const;
    RowId newRowId() { return nextRowId_++; }
    void loadRows();
    void installCallbacks();
    void startGuard();

    // Device list and latency.
    void deviceListChanged();
    void refreshDeviceNames();
    void refreshLatencyWatches();
    void refreshCaptureAvailable();
    std::optional<devices::AudioDevice> deviceOf(const RowState& row) const;

    // Start and stop.
    void start();
    void stop();
    // The sound server went away, or is back (app_model_server.cpp).
    void watchSoundServer();
    void soundServerLost();
    void soundServerBack();
    void captureRateChanged();
    void startTelemetry();
    void stopTelemetry();
    void tick();

    // Rows.
    // A new row from its output's identity: remembered settings, colour and
    // place, then in the list and the engine. Returns its slot.
    int addNewRow(RowState row);
    int insertRegularRow(RowState row);
    void stampNewRow(RowState& row) const;
    void afterAdding(int slot);
    bool mutedToStore(const RowState& row) const;
    bool audible(const RowState& row) const;
    // All the latency the delay plan allows for the row.
    double plannedLatencyMs(const RowState& row) const;
    void storeOutputCount();

    // Seams for the network outputs, the mixer and the room, which come with
    // their own subsystems; until then they do nothing.
    void reconcileAirPlaySenders() {
        if (airplay_) airplay_->reconcile();
    }
    std::optional<std::string> airplayRoute(const std::string& receiverID) const;
    void setAirplayRoute(const std::string& receiverID, const std::optional<std::string>& route);
    void reconcileCastSenders();
    void castStatusChanged(int slot);
    void castLatencyChanged(int slot, double ms);
    void stopCastSenders();
    void startGuestServerIfNeeded();
    void rebindGuests();
    std::optional<int> addGuestRow(const std::string& clientID, const std::string& rowName);
    void guestStatusChanged(const std::string& clientID, guests::GuestSender::Status status);
    void stateChanged() {
        if (onStateChanged) onStateChanged();
    }
    void stopFly() {}
    void placeNewRows() {}
    void startMixer() {
        if (mixer_) mixer_->start();
    }
    void shutDownMixer() {
        if (mixer_) mixer_->shutDown();
    }

    platform::AudioBackend& backend_;
    dispatch::MainQueue& main_;
    settings::Settings& settings_;
    guard::SpeakerVolumes speakerVolumes_{settings_};
    std::unique_ptr<engine::MultiOutputEngine> engine_;
    guard::OutputRestorer restorer_;
    std::unique_ptr<guard::OutputGuard> guard_;
    devices::DeviceMonitor monitor_;
    devices::LatencyWatcher latencyWatcher_;
    devices::ServerConnection soundServer_;
    std::unique_ptr<settings::DebugLogWriter> debugLog_;
    // Read here rather than at launch: settings_ is bound by now.
    settings::Appearance appearance_ = settings_.appearance();
    bool showInMenuBar_ = settings_.showInMenuBar();
    bool openAtLogin_ = settings_.openAtLogin();
    std::optional<std::string> loginItemError_;
    std::optional<std::filesystem::path> autostartDir_, programPath_;
    bool visualiserHidden_ = settings_.visualiserHidden();
    settings::VisualiserStyle visualiserStyle_ = settings_.visualiserStyle();

    std::vector<RowState> rows_;
    bool isRunning_ = false;
    double masterVolume_ = 1.0;
    std::vector<devices::AudioDevice> outputDevices_;
    std::vector<std::string> lastDeviceIDs_;
    bool captureSinkPresent_ = true;
    bool captureRefused_ = false;
    std::optional<std::string> driverInstallError_;
    std::optional<std::string> startError_;
    std::optional<guard::RestoredOutput> restoredOutput_;
    delay::PlaybackMode playbackMode_ = delay::PlaybackMode::together;
    bool syncSlowSpeakers_ = true;
    stage::RoomState room_;
    equaliser::EQSettings masterEQ_ = equaliser::EQSettings::flat();
    std::optional<double> masterEQClippedAt_;

    std::unique_ptr<dispatch::TimerHandle> telemetryTimer_;
    std::unique_ptr<dispatch::TimerHandle> rateRestart_;
    bool restartForRatePending_ = false;

    std::vector<double> engineDelays_;
    std::vector<bool> lastFast_;
    std::vector<double> heardMs_;

    std::optional<RemovedOutput> lastRemoved_;
    std::optional<std::map<RowId, bool>> preSolo_;
    std::optional<std::map<RowId, bool>> forcedMutes_;
    std::set<const void*> forcedMuteHolders_;

    std::unique_ptr<discovery::AirPlayBrowser> airplayBrowser_;
    std::unique_ptr<discovery::CastBrowser> castBrowser_;
    std::vector<discovery::AirPlayReceiver> airplayReceivers_;
    std::vector<discovery::CastDevice> castDevices_;
    std::unique_ptr<cast::CastSupervisor> castSupervisor_;
    std::unique_ptr<secrets::AirPlayPasswordStore> passwords_;
    std::unique_ptr<airplay::AirPlaySupervisor> airplay_;
    std::function<std::vector<discovery::LocalInterface>()> localInterfaces_ =
        discovery::localIPv4Interfaces;
    std::unique_ptr<mixer::AppMixer> mixer_;
    std::optional<std::string> passwordReceiverID_, passwordReceiverName_;
    bool passwordRejected_ = false;
    void pairingEvent(const airplay::AirPlayPairing::Event& event);
    std::unique_ptr<airplay::AirPlayPairing> pairing_;
    std::optional<std::string> pairingReceiverID_, pairingReceiverName_, pairingError_;
    bool pairingAwaitingPIN_ = false;

    std::unique_ptr<nowplaying::NowPlaying> nowPlaying_;
    std::optional<nowplaying::NowPlayingInfo> nowPlayingInfo_;
    std::optional<airplay::AirPlaySender::Metadata> pushedTrack_;
    dispatch::WorkQueue* artworkQueue_ = nullptr;
    std::shared_ptr<sendspin::ArtworkThumbnails> thumbnails_ =
        std::make_shared<sendspin::ArtworkThumbnails>();
    // Thumbnails made on the artwork queue come back only while this holds.
    std::shared_ptr<bool> nowPlayingAlive_ = std::make_shared<bool>(true);
    void nowPlayingChanged(const std::optional<nowplaying::NowPlayingInfo>& info);
    void hookGuestsToNowPlaying();

    std::optional<GuestSetup> guestSetup_;
    std::unique_ptr<guests::GuestServer> guestServer_;
    std::unique_ptr<guests::GuestParty> guestParty_;
    std::optional<guests::GuestLink> guestLink_;
    std::optional<std::string> guestServerError_;

    class CalibrationRows;
    calibration::NoMicrophone noMicrophone_;
    calibration::NoToneOutput noToneOutput_;
    calibration::Microphone* microphone_ = &noMicrophone_;
    calibration::ToneOutput* toneOutput_ = &noToneOutput_;
    std::unique_ptr<calibration::CalibrationHost> calibrationRows_;
    std::unique_ptr<calibration::Calibrator> calibrator_;

    NoticeBoard noticeBoard_;
    double launched_ = 0;
    RowId nextRowId_ = 1;
};

}  // namespace vt::model
