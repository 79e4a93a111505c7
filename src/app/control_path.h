// Where the local control socket lives: $VELLATONE_CONTROL_SOCKET if set,
// else $XDG_RUNTIME_DIR/vellatone/control.sock, else a folder of our own
// under $TMPDIR (/tmp by default). Its permissions are the only authorisation
// it has, so that last folder is used only when it is plainly ours.
#pragma once

#include <filesystem>
#include <optional>
#include <string>

namespace vt::app {

std::filesystem::path controlSocketPath();

// For a client about to connect: nothing when the socket's folder may be
// trusted (its owner is us or root, and nobody else may write to it);
// otherwise the sentence that says why not. Whoever made that folder could
// have put a listener of their own in the socket's place.
std::optional<std::string> controlFolderProblem(const std::filesystem::path& socket);

}  // namespace vt::app
