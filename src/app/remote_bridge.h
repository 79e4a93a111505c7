// The model as a paired phone sees it and drives it: the whole state as one
// MacState record, and each PhoneMessage turned into the model call an
// authorised session makes. Messages whose subsystem does not exist yet
// (measuring, the room, pairing) are ignored without harm.
// Main thread only.
#pragma once

#include <optional>
#include <string>

#include "model/app_model.h"
#include "platform/audio_backend.h"
#include "remote/mac_message.h"
#include "remote/mac_state.h"
#include "remote/phone_message.h"

namespace vt::app {

class RemoteBridge {
  public:
    RemoteBridge(model::AppModel& model, platform::AudioBackend& backend, std::string macName,
                 std::string appVersion);

    remote::MacState snapshot() const;
    // The reply a message asks for at once (a ping's pong), if any; every
    // other effect shows in the next state.
    std::optional<remote::MacMessage> handle(const remote::PhoneMessage& message);

    // The id an output is offered under: its memory key.
    static std::string deviceOutputID(const std::string& uid) { return "uid:" + uid; }

  private:
    remote::RowInfo rowInfo(int slot, const model::RowState& row) const;

    model::AppModel& model_;
    platform::AudioBackend& backend_;
    std::string macName_;
    std::string appVersion_;
};

// The computer's name as the phone shows it: the host name.
std::string computerName();

}  // namespace vt::app
