// The guests' artwork: the staged image made a JPEG of at most 300 pixels a
// side at quality 0.8, as a "data:" URL the page shows as it is. Decoding
// goes through libjpeg and libpng; an image that is not one of those, is
// damaged or is absurdly large gives no artwork.
#pragma once

#include <cstddef>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>

namespace vt::sendspin {

inline constexpr int thumbnailMaxSide = 300;
inline constexpr int thumbnailQuality = 80;  // libjpeg's scale: 0.8

// JPEG bytes of the image in `bytes`, scaled down to fit `maxSide`.
std::optional<std::string> jpegThumbnail(const std::string& bytes, int maxSide = thumbnailMaxSide,
                                         int quality = thumbnailQuality);

// The data URL of the image file's thumbnail, one image cached: the model
// makes it on a work queue before the track is sent, so the senders' lookups
// on the main thread find it ready.
class ArtworkThumbnails {
  public:
    std::optional<std::string> dataURL(const std::string& path);
    // The thumbnail's JPEG bytes, made and cached as dataURL does.
    std::optional<std::string> jpeg(const std::string& path);
    // Only what is cached, never decoding: for the main thread.
    std::optional<std::string> cachedJpeg(const std::string& path);

  private:
    std::mutex lock_;
    std::optional<std::pair<std::string, std::optional<std::string>>> cached_;
};

}  // namespace vt::sendspin
