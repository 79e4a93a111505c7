// Cover art for a receiver: JPEG or PNG bytes, known by their first bytes.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace vt::airplay_tool {

struct Artwork {
    std::string mimeType;  // "image/jpeg" or "image/png"
    std::string bytes;
};

// Receivers drop bigger pictures; the app hands over thumbnails.
inline constexpr size_t kMaxArtworkBytes = 4 * 1024 * 1024;

// Nothing for bytes that are neither JPEG nor PNG.
std::optional<Artwork> artworkFromBytes(std::string bytes);
std::optional<Artwork> loadArtworkFile(const std::string& path);
std::optional<Artwork> artworkFromBase64(std::string_view text);

}  // namespace vt::airplay_tool
