#include "settings/atomic_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <fstream>
#include <sstream>

namespace vt::settings {

namespace fs = std::filesystem;

namespace {

std::string errnoText(const char* what, const fs::path& path) {
    return std::string(what) + " " + path.string() + ": " + std::strerror(errno);
}

bool writeAll(int fd, std::string_view bytes) {
    const char* p = bytes.data();
    size_t left = bytes.size();
    while (left > 0) {
        ssize_t n = ::write(fd, p, left);
        if (n < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        p += n;
        left -= static_cast<size_t>(n);
    }
    return true;
}

bool makeFolder(const fs::path& dir, std::string* error) {
    std::error_code ec;
    if (fs::is_directory(dir, ec)) return true;
    fs::create_directories(dir, ec);
    if (ec) {
        if (error) *error = "cannot create " + dir.string() + ": " + ec.message();
        return false;
    }
    // Settings and logs are nobody else's business.
    ::chmod(dir.c_str(), 0700);
    return true;
}

std::string utcStamp() {
    std::time_t now = std::time(nullptr);
    std::tm tm{};
    gmtime_r(&now, &tm);
    char buf[32];
    std::strftime(buf, sizeof buf, "%Y%m%dT%H%M%SZ", &tm);
    return buf;
}

}  // namespace

bool writeFileAtomically(const fs::path& file, std::string_view bytes, std::string* error) {
    const fs::path dir = file.has_parent_path() ? file.parent_path() : fs::path(".");
    if (!makeFolder(dir, error)) return false;

    std::string tmpl = (dir / ("." + file.filename().string() + ".XXXXXX")).string();
    int fd = ::mkstemp(tmpl.data());
    if (fd < 0) {
        if (error) *error = errnoText("cannot create a temporary file in", dir);
        return false;
    }
    const fs::path tmp = tmpl;
    auto fail = [&](const char* what, const fs::path& path) {
        if (error) *error = errnoText(what, path);
        if (fd >= 0) ::close(fd);
        ::unlink(tmp.c_str());
        return false;
    };
    ::fchmod(fd, 0600);
    if (!writeAll(fd, bytes)) return fail("cannot write", tmp);
    if (::fsync(fd) != 0) return fail("cannot flush", tmp);
    if (::close(fd) != 0) {
        fd = -1;
        return fail("cannot close", tmp);
    }
    fd = -1;
    if (::rename(tmp.c_str(), file.c_str()) != 0) return fail("cannot replace", file);

    // Without this the rename itself may not survive a crash.
    int dfd = ::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (dfd >= 0) {
        ::fsync(dfd);
        ::close(dfd);
    }
    return true;
}

JsonObjectLoad loadJsonObject(const fs::path& file) {
    JsonObjectLoad result;
    std::error_code ec;
    if (!fs::exists(file, ec)) return result;

    std::ifstream in(file, std::ios::binary);
    if (!in) {
        result.error = errnoText("cannot read", file);
        return result;
    }
    std::stringstream text;
    text << in.rdbuf();
    nlohmann::json parsed = nlohmann::json::parse(text.str(), nullptr, false);
    if (!parsed.is_discarded() && parsed.is_object()) {
        result.object = std::move(parsed);
        return result;
    }

    result.error = file.string() + " does not hold a JSON object";
    const std::string base = file.string() + ".broken-" + utcStamp();
    fs::path aside = base;
    for (int n = 1; fs::exists(aside, ec) && n < 1000; ++n) aside = base + "-" + std::to_string(n);
    if (::rename(file.c_str(), aside.c_str()) == 0) {
        result.setAsideAs = aside;
    } else {
        result.error += "; " + errnoText("cannot move aside", file);
    }
    return result;
}

}  // namespace vt::settings
