// A player's artwork as one image file on disk, for the senders to read:
// file:// images are copied, http(s):// images fetched, anything else is no
// artwork. One file exists at a time, named by a hash of its bytes, so the
// same image staged again is not written again and a new one replaces it.
// Only JPEG and PNG are kept: the bytes come from players and the network.
// Calls come one at a time (a serial queue); none is on the main thread, since
// a fetch may take its whole time-out.
#pragma once

#include <cstddef>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>

namespace vt::nowplaying {

class ArtworkStager {
  public:
    static constexpr size_t maxImageBytes = 8u << 20;
    // The bytes at an http(s) URL, at most `maxBytes` of them, or nothing.
    using Fetch =
        std::function<std::optional<std::string>(const std::string& url, size_t maxBytes)>;

    // `dir` is made (private) when the first image is staged.
    explicit ArtworkStager(std::filesystem::path dir, Fetch fetch);

    std::optional<std::string> stage(const std::string& url);
    std::optional<std::string> stageBytes(const std::string& bytes);
    // No artwork: the file goes.
    void clear();
    // A track without artwork shows the player's icon (a PNG): copied to
    // "artwork-fallback/vellatone-icon-artwork.png" beside the staged
    // images, rewritten only when the icon differs. The path, or nothing
    // for a file that is not a PNG.
    std::optional<std::string> stageFallback(const std::string& iconFile);
    static constexpr const char* fallbackFolder = "artwork-fallback";
    static constexpr const char* fallbackName = "vellatone-icon-artwork.png";
    const std::optional<std::string>& current() const { return current_; }

  private:
    std::filesystem::path dir_;
    Fetch fetch_;
    std::optional<std::string> current_;
};

// The local path a file:// URL names, percent-decoded; nothing for any other
// URL or a host other than this one.
std::optional<std::string> fileURLPath(const std::string& url);
// At most `maxBytes` of a regular file, or nothing when it is larger.
std::optional<std::string> readSmallFile(const std::string& path, size_t maxBytes);
// "jpg" or "png" from the bytes' signature, else nothing.
std::optional<std::string> imageKind(const std::string& bytes);

}  // namespace vt::nowplaying
