// Commands that only the local control socket takes, never a phone: they
// carry what must not cross the network, such as a receiver's password. One
// JSON object per line with one key, as the remote's messages are written.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace vt::app {

// The password for the AirPlay receiver of the row at `slot`, as the
// password sheet would hand it over.
struct PasswordCommand {
    int slot = 0;
    std::string password;
};

std::string encodeLocalCommand(const PasswordCommand& command);
// Nothing for a line that is not exactly such a command.
std::optional<PasswordCommand> decodeLocalCommand(std::string_view line);

}  // namespace vt::app
