// Folders that hold what only this user may touch: the control socket, the
// settings. A folder that sits in a place every user may write to (/tmp) can
// be made there first by someone else, who would then own what we put in it;
// such a folder is used only when it is plainly ours.
#pragma once

#include <filesystem>
#include <optional>
#include <string>

namespace vt::settings {

// Makes `dir` and any missing parents with mode 0700. Every folder on the way
// whose parent every user may write to must be a real folder (not a symbolic
// link), owned by us and of mode 0700, whether we made it or found it.
// Nothing when `dir` is fit for use; otherwise the sentence that says why not.
std::optional<std::string> makePrivateFolder(const std::filesystem::path& dir);

}  // namespace vt::settings
