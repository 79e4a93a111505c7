// The local control socket: a Unix stream socket that speaks the remote's
// wire. Each line a client sends is a PhoneMessage; the server answers with
// a state line at connect and whenever the state it would send differs from
// the last one that client got. No pairing: only the owner can reach the
// socket (its folder is 0700, the socket 0600).
//
// One thread does the socket work (accepting, reading, writing out what is
// queued); every message is handled on the main queue.
#pragma once

#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <thread>

#include "dispatch/main_queue.h"
#include "remote/mac_message.h"
#include "remote/mac_state.h"
#include "remote/phone_message.h"

namespace vt::app {

class ControlServer {
  public:
    using Snapshot = std::function<remote::MacState()>;
    using Handler = std::function<std::optional<remote::MacMessage>(const remote::PhoneMessage&)>;
    // A line that is no phone message: true when it was a local command and
    // was dealt with, false to end the link as for any bad line.
    using LocalHandler = std::function<bool(const std::string& line)>;
    // Lines of the socket's own, never part of the phone's wire: one JSON
    // object whose "type" starts with "mixer."; the answer is one line.
    using MixerHandler = std::function<std::string(const nlohmann::json&)>;
    // Lines whose "type" starts with "calibration.": the answer comes when
    // the measurement ends, through `reply` (main thread; a client gone by
    // then is no error).
    using Reply = std::function<void(const std::string& line)>;
    using CalibrationHandler = std::function<void(const nlohmann::json&, Reply reply)>;

    // At most this many clients at once; more are turned away.
    static constexpr int maxClients = 16;
    // A client that lets this much output pile up unread is dropped.
    static constexpr size_t maxQueuedBytes = 16 << 20;

    ControlServer(dispatch::MainQueue& main, std::filesystem::path path, Snapshot snapshot,
                  Handler handler, LocalHandler local = {});
    ~ControlServer();
    ControlServer(const ControlServer&) = delete;
    ControlServer& operator=(const ControlServer&) = delete;

    void setMixerHandler(MixerHandler handler) { mixer_ = std::move(handler); }
    void setCalibrationHandler(CalibrationHandler handler) { calibration_ = std::move(handler); }
    // The JPEG of the state's `nowPlaying.artworkKey`, if it is still the
    // one: each client gets it once, before the state that names it.
    using ArtworkLookup = std::function<std::optional<std::string>(const std::string& key)>;
    void setArtworkLookup(ArtworkLookup lookup) { artwork_ = std::move(lookup); }

    // Makes the folder and the socket and starts serving. Throws
    // std::runtime_error with a sentence for the user when another instance
    // already answers there or the socket cannot be made.
    void start();
    // Main thread: sends the state to each client whose last one differs,
    // or to all with `force`.
    void publish(bool force = false);
    const std::filesystem::path& path() const { return path_; }

  private:
    struct Io;
    void handleLine(uint64_t client, const std::string& line);
    void sendState(uint64_t client, bool force);
    bool sendArtwork(uint64_t client, const remote::MacState& state);

    dispatch::MainQueue& main_;
    std::filesystem::path path_;
    Snapshot snapshot_;
    Handler handler_;
    LocalHandler local_;
    MixerHandler mixer_;
    CalibrationHandler calibration_;
    ArtworkLookup artwork_;
    // Main thread: the artwork key each client was last sent.
    std::map<uint64_t, std::string> artworkSent_;
    std::shared_ptr<Io> io_;
    std::thread thread_;
    // Main thread: the last state each client was sent.
    std::map<uint64_t, std::optional<remote::MacState>> lastSent_;
    std::shared_ptr<bool> alive_;
};

}  // namespace vt::app
