#include "airplay_tool/artwork.h"

#include <fstream>
#include <iterator>

#include "airplay_tool/base64.h"

namespace vt::airplay_tool {

std::optional<Artwork> artworkFromBytes(std::string bytes) {
    if (bytes.empty() || bytes.size() > kMaxArtworkBytes) return std::nullopt;
    if (bytes.size() >= 3 && bytes.compare(0, 3, "\xFF\xD8\xFF") == 0)
        return Artwork{"image/jpeg", std::move(bytes)};
    if (bytes.size() >= 8 && bytes.compare(0, 8, "\x89PNG\r\n\x1a\n") == 0)
        return Artwork{"image/png", std::move(bytes)};
    return std::nullopt;
}

std::optional<Artwork> loadArtworkFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) return std::nullopt;
    std::string bytes;
    bytes.resize(kMaxArtworkBytes + 1);
    in.read(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    bytes.resize(static_cast<size_t>(in.gcount()));
    return artworkFromBytes(std::move(bytes));
}

std::optional<Artwork> artworkFromBase64(std::string_view text) {
    auto decoded = base64Decode(text);
    if (!decoded) return std::nullopt;
    return artworkFromBytes(std::string(decoded->begin(), decoded->end()));
}

}  // namespace vt::airplay_tool
