#include "settings/private_folder.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace vt::settings {

namespace fs = std::filesystem;

namespace {

constexpr mode_t kPrivateMode = 0700;

bool othersMayWrite(const fs::path& dir) {
    struct stat st {};
    if (::stat(dir.c_str(), &st) != 0) return false;
    // World-writable only: a folder shared with one's own group is common and
    // not a stranger's door.
    return (st.st_mode & S_IWOTH) != 0;
}

// Why `dir` cannot be trusted, or nothing.
std::optional<std::string> notOurs(const fs::path& dir) {
    struct stat st {};
    if (::lstat(dir.c_str(), &st) != 0)
        return "Cannot look at the folder " + dir.string() + ": " + std::strerror(errno) + ".";
    if (S_ISLNK(st.st_mode))
        return "The folder " + dir.string() +
               " is a symbolic link, perhaps made by another user; Vellatone will not use it. "
               "Remove it and start Vellatone again.";
    if (!S_ISDIR(st.st_mode))
        return dir.string() +
               " is not a folder; Vellatone will not use it. Remove it and start "
               "Vellatone again.";
    if (st.st_uid != ::geteuid())
        return "The folder " + dir.string() + " belongs to another user (uid " +
               std::to_string(st.st_uid) +
               "), who could take Vellatone's place in it; Vellatone will not use it. Remove it "
               "and start Vellatone again.";
    if ((st.st_mode & 07777) != kPrivateMode)
        return "The folder " + dir.string() +
               " may be reached by other users; Vellatone will not use it. Remove it, or make "
               "it yours alone (chmod 700), and start Vellatone again.";
    return std::nullopt;
}

}  // namespace

std::optional<std::string> makePrivateFolder(const fs::path& dir) {
    fs::path path;
    for (const fs::path& part : dir.lexically_normal()) {
        if (part.empty()) continue;
        const fs::path parent = path.empty() ? fs::path(".") : path;
        path /= part;
        if (path == path.root_path()) continue;
        const bool made = ::mkdir(path.c_str(), kPrivateMode) == 0;
        if (!made && errno != EEXIST)
            return "Cannot make the folder " + path.string() + ": " + std::strerror(errno) + ".";
        if (othersMayWrite(parent)) {
            if (auto why = notOurs(path)) return why;
            continue;
        }
        struct stat st {};
        if (::stat(path.c_str(), &st) != 0 || !S_ISDIR(st.st_mode))
            return path.string() + " is not a folder.";
    }
    return std::nullopt;
}

}  // namespace vt::settings
