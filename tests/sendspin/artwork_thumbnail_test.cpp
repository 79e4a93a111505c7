#include "sendspin/artwork_thumbnail.h"

#include <gtest/gtest.h>
#include <png.h>

#include <cstdint>
#include <vector>

namespace vt::sendspin {
namespace {

std::string png(int width, int height) {
    std::vector<uint8_t> rgb(size_t(width) * height * 3);
    for (size_t i = 0; i < rgb.size(); ++i) rgb[i] = uint8_t(i * 7);
    png_image image{};
    image.version = PNG_IMAGE_VERSION;
    image.width = uint32_t(width);
    image.height = uint32_t(height);
    image.format = PNG_FORMAT_RGB;
    png_alloc_size_t size = 0;
    png_image_write_to_memory(&image, nullptr, &size, 0, rgb.data(), 0, nullptr);
    std::string out(size, '\0');
    png_image_write_to_memory(&image, out.data(), &size, 0, rgb.data(), 0, nullptr);
    out.resize(size);
    return out;
}

// Width and height from the JPEG's baseline frame header.
std::pair<int, int> jpegSize(const std::string& jpeg) {
    for (size_t i = 2; i + 8 < jpeg.size(); ++i)
        if (uint8_t(jpeg[i]) == 0xFF && uint8_t(jpeg[i + 1]) == 0xC0)
            return {uint8_t(jpeg[i + 7]) << 8 | uint8_t(jpeg[i + 8]),
                    uint8_t(jpeg[i + 5]) << 8 | uint8_t(jpeg[i + 6])};
    return {0, 0};
}

TEST(ArtworkThumbnail, ShrinksToThreeHundredAndKeepsTheShape) {
    auto fromPng = jpegThumbnail(png(640, 480));
    ASSERT_TRUE(fromPng);
    EXPECT_EQ(jpegSize(*fromPng), std::pair(300, 225));
    // A JPEG goes through libjpeg's own scaling on the way.
    auto fromJpeg = jpegThumbnail(*jpegThumbnail(png(1200, 400), 1200));
    ASSERT_TRUE(fromJpeg);
    EXPECT_EQ(jpegSize(*fromJpeg), std::pair(300, 100));
    // A small image stays as it is.
    EXPECT_EQ(jpegSize(*jpegThumbnail(png(40, 30))), std::pair(40, 30));
}

TEST(ArtworkThumbnail, DamagedOrForeignBytesGiveNothing) {
    const std::string whole = png(64, 64);
    EXPECT_FALSE(jpegThumbnail(whole.substr(0, whole.size() / 2)));
    const std::string jpeg = *jpegThumbnail(whole);
    EXPECT_FALSE(jpegThumbnail(jpeg.substr(0, 20)));
    EXPECT_FALSE(jpegThumbnail("GIF89a...."));
    EXPECT_FALSE(jpegThumbnail(""));
}

}  // namespace
}  // namespace vt::sendspin
