#include "nowplaying/artwork_stager.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cinttypes>
#include <cstdio>
#include <system_error>
#include <utility>

#include "settings/atomic_file.h"
#include "settings/private_folder.h"

namespace vt::nowplaying {

namespace {

uint64_t fnv1a64(const std::string& bytes) {
    uint64_t h = 0xcbf29ce484222325ull;
    for (unsigned char c : bytes) {
        h ^= c;
        h *= 0x100000001b3ull;
    }
    return h;
}

int hexValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

}  // namespace

std::optional<std::string> fileURLPath(const std::string& url) {
    const std::string scheme = "file://";
    if (url.rfind(scheme, 0) != 0) return std::nullopt;
    std::string rest = url.substr(scheme.size());
    const std::string localhost = "localhost";
    if (rest.rfind(localhost, 0) == 0) rest.erase(0, localhost.size());
    if (rest.empty() || rest[0] != '/') return std::nullopt;
    std::string path;
    for (size_t i = 0; i < rest.size(); ++i) {
        if (rest[i] == '%') {
            if (i + 2 >= rest.size()) return std::nullopt;
            const int hi = hexValue(rest[i + 1]), lo = hexValue(rest[i + 2]);
            if (hi < 0 || lo < 0) return std::nullopt;
            const char c = static_cast<char>(hi * 16 + lo);
            if (c == '\0') return std::nullopt;
            path += c;
            i += 2;
        } else if (rest[i] == '?' || rest[i] == '#') {
            break;
        } else {
            path += rest[i];
        }
    }
    return path;
}

std::optional<std::string> readSmallFile(const std::string& path, size_t maxBytes) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0) return std::nullopt;
    struct stat st {};
    std::optional<std::string> out;
    if (::fstat(fd, &st) == 0 && S_ISREG(st.st_mode) && size_t(st.st_size) <= maxBytes) {
        std::string bytes(size_t(st.st_size), '\0');
        size_t got = 0;
        while (got < bytes.size()) {
            const ssize_t n = ::read(fd, bytes.data() + got, bytes.size() - got);
            if (n <= 0) break;
            got += size_t(n);
        }
        if (got == bytes.size()) out = std::move(bytes);
    }
    ::close(fd);
    return out;
}

std::optional<std::string> imageKind(const std::string& bytes) {
    if (bytes.size() > 3 && bytes.compare(0, 3, "\xFF\xD8\xFF") == 0) return "jpg";
    if (bytes.size() > 8 && bytes.compare(0, 8, "\x89PNG\r\n\x1A\n") == 0) return "png";
    return std::nullopt;
}

ArtworkStager::ArtworkStager(std::filesystem::path dir, Fetch fetch)
    : dir_(std::move(dir)), fetch_(std::move(fetch)) {}

std::optional<std::string> ArtworkStager::stage(const std::string& url) {
    std::optional<std::string> bytes;
    if (auto path = fileURLPath(url)) {
        bytes = readSmallFile(*path, maxImageBytes);
    } else if ((url.rfind("http://", 0) == 0 || url.rfind("https://", 0) == 0) && fetch_) {
        bytes = fetch_(url, maxImageBytes);
    }
    if (!bytes) {
        clear();
        return std::nullopt;
    }
    return stageBytes(*bytes);
}

std::optional<std::string> ArtworkStager::stageBytes(const std::string& bytes) {
    const std::optional<std::string> kind = imageKind(bytes);
    if (!kind || bytes.size() > maxImageBytes) {
        clear();
        return std::nullopt;
    }
    char name[40];
    std::snprintf(name, sizeof name, "%016" PRIx64 ".%s", fnv1a64(bytes), kind->c_str());
    const std::string path = (dir_ / name).string();
    if (current_ == path) return current_;
    if (settings::makePrivateFolder(dir_) || !settings::writeFileAtomically(path, bytes)) {
        clear();
        return std::nullopt;
    }
    clear();
    current_ = path;
    return current_;
}

std::optional<std::string> ArtworkStager::stageFallback(const std::string& iconFile) {
    const std::optional<std::string> bytes = readSmallFile(iconFile, maxImageBytes);
    if (!bytes || imageKind(*bytes) != "png") return std::nullopt;
    const std::filesystem::path folder = dir_ / fallbackFolder;
    const std::string path = (folder / fallbackName).string();
    if (readSmallFile(path, maxImageBytes) == bytes) return path;
    if (settings::makePrivateFolder(dir_) || settings::makePrivateFolder(folder) ||
        !settings::writeFileAtomically(path, *bytes))
        return std::nullopt;
    return path;
}

void ArtworkStager::clear() {
    if (!current_) return;
    std::error_code ignored;
    std::filesystem::remove(*current_, ignored);
    current_.reset();
}

}  // namespace vt::nowplaying
