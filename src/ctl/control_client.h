// The control tool's side of the local control socket: connect, read the
// state the app sends, send messages, and wait until the app has dealt with
// them (a ping after the command: its pong comes after any state the command
// changed).
#pragma once

#include <filesystem>
#include <functional>
#include <nlohmann/json.hpp>
#include <optional>
#include <stdexcept>
#include <string>

#include "remote/line_codec.h"
#include "remote/mac_state.h"
#include "remote/phone_message.h"

namespace vt::ctl {

// A failure with one sentence for the user.
class ControlError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

class ControlClient {
  public:
    static constexpr double timeoutSeconds = 10.0;

    // Connects and reads the first state. Throws ControlError.
    explicit ControlClient(const std::filesystem::path& path);
    ~ControlClient();
    ControlClient(const ControlClient&) = delete;
    ControlClient& operator=(const ControlClient&) = delete;

    const remote::MacState& state() const { return state_; }
    // Sends one line as it is (a newline is added).
    void sendLine(const std::string& line);
    void send(const remote::PhoneMessage& message);
    // Waits until the app has handled everything sent so far; the state is
    // then current.
    void sync();
    // Sends a mixer line (the socket's own, not the phone's) and returns
    // the app's one-line answer, as JSON.
    nlohmann::json mixerRequest(const nlohmann::json& line);
    // The same for a measurement, which takes seconds rather than a moment.
    nlohmann::json calibrationRequest(const nlohmann::json& line);

  private:
    // A measurement drains what is playing (up to 4 s), then plays and
    // records through each of two speakers.
    static constexpr double calibrationTimeoutSeconds = 60.0;

    nlohmann::json request(const nlohmann::json& line, const std::string& typePrefix,
                           double timeout);
    // Reads lines until one satisfies `done`; keeps the newest state.
    void readUntil(const std::function<bool(const std::string& line)>& done,
                   double timeout = timeoutSeconds);

    int fd_ = -1;
    remote::LineCodec codec_{remote::maxLineBytes};
    remote::MacState state_;
    int64_t nextPing_ = 1;
};

}  // namespace vt::ctl
