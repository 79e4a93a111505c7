// Where the local control socket lives: $VELLATONE_CONTROL_SOCKET if set,
// else $XDG_RUNTIME_DIR/vellatone/control.sock, else a folder of our own
// under /tmp. Its permissions are the only authorisation it has.
#pragma once

#include <filesystem>

namespace vt::app {

std::filesystem::path controlSocketPath();

}  // namespace vt::app
