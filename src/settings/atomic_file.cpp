#include "settings/atomic_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <fstream>
#include <sstream>

#include "settings/private_folder.h"

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
    // Settings and logs are nobody else's business.
    if (auto why = makePrivateFolder(dir)) {
        if (error) *error = *why;
        return false;
    }
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

size_t jsonNestingDepth(std::string_view text, size_t limit) {
    size_t depth = 0, deepest = 0;
    bool inString = false, escaped = false;
    for (const char c : text) {
        if (inString) {
            if (escaped)
                escaped = false;
            else if (c == '\\')
                escaped = true;
            else if (c == '"')
                inString = false;
            continue;
        }
        if (c == '"') {
            inString = true;
        } else if (c == '[' || c == '{') {
            deepest = std::max(deepest, ++depth);
            if (deepest > limit) return deepest;
        } else if ((c == ']' || c == '}') && depth > 0) {
            --depth;
        }
    }
    return deepest;
}

JsonObjectParse parseJsonObject(std::string_view text) {
    JsonObjectParse result;
    if (text.size() > kMaxJsonFileBytes) {
        result.whyNot = "is larger than " + std::to_string(kMaxJsonFileBytes) + " bytes";
        return result;
    }
    if (jsonNestingDepth(text) > kMaxJsonDepth) {
        result.whyNot = "is nested more than " + std::to_string(kMaxJsonDepth) + " levels deep";
        return result;
    }
    nlohmann::json parsed = nlohmann::json::parse(text, nullptr, false);
    if (parsed.is_discarded() || !parsed.is_object()) {
        result.whyNot = "does not hold a JSON object";
        return result;
    }
    result.object = std::move(parsed);
    return result;
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
    // One byte past the bound is enough to know the file is beyond it.
    std::string text(kMaxJsonFileBytes + 1, '\0');
    in.read(text.data(), std::streamsize(text.size()));
    text.resize(size_t(in.gcount()));
    JsonObjectParse parsed = parseJsonObject(text);
    if (parsed.object) {
        result.object = std::move(*parsed.object);
        return result;
    }

    result.error = file.string() + " " + parsed.whyNot;
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
