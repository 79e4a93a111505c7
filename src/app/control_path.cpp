#include "app/control_path.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

namespace vt::app {

namespace {

std::filesystem::path temporaryFolder() {
    // Like mkstemp's users, honour TMPDIR, but only as an absolute path.
    if (const char* t = std::getenv("TMPDIR"); t && *t == '/') return t;
    return "/tmp";
}

}  // namespace

std::filesystem::path controlSocketPath() {
    if (const char* p = std::getenv("VELLATONE_CONTROL_SOCKET"); p && *p) return p;
    if (const char* r = std::getenv("XDG_RUNTIME_DIR"); r && *r)
        return std::filesystem::path(r) / "vellatone" / "control.sock";
    return temporaryFolder() / ("vellatone-" + std::to_string(::getuid())) / "control.sock";
}

std::optional<std::string> controlFolderProblem(const std::filesystem::path& socket) {
    const std::filesystem::path dir = socket.parent_path().empty() ? "." : socket.parent_path();
    struct stat st {};
    if (::lstat(dir.c_str(), &st) != 0) return std::nullopt;  // connecting will say it is missing
    if (S_ISLNK(st.st_mode) || !S_ISDIR(st.st_mode))
        return "The control socket's folder " + dir.string() +
               " is not a plain folder; vellatonectl will not talk through it.";
    if (st.st_uid != ::geteuid() && st.st_uid != 0)
        return "The control socket's folder " + dir.string() + " belongs to another user (uid " +
               std::to_string(st.st_uid) + "); vellatonectl will not talk through it.";
    if ((st.st_mode & (S_IWGRP | S_IWOTH)) != 0)
        return "Other users may write to the control socket's folder " + dir.string() +
               "; vellatonectl will not talk through it.";
    return std::nullopt;
}

}  // namespace vt::app
