#include "sendspin/artwork_thumbnail.h"

#include <fcntl.h>
#include <openssl/evp.h>
#include <png.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <csetjmp>
#include <cstdint>
#include <cstdio>
#include <vector>

// jpeglib.h needs FILE and size_t declared first.
#include <jpeglib.h>

namespace vt::sendspin {

namespace {

constexpr size_t kMaxFileBytes = 8u << 20;
// A decompression bomb is refused before any pixel is allocated.
constexpr uint64_t kMaxPixels = 40'000'000;

struct Rgb {
    int width = 0, height = 0;
    std::vector<uint8_t> pixels;  // 3 bytes a pixel
};

struct JpegError {
    jpeg_error_mgr manager;
    std::jmp_buf escape;
};

void jpegFail(j_common_ptr info) {
    auto* error = reinterpret_cast<JpegError*>(info->err);
    std::longjmp(error->escape, 1);
}

void jpegQuiet(j_common_ptr, int) {}

std::optional<Rgb> decodeJpeg(const std::string& bytes, int maxSide) {
    jpeg_decompress_struct info{};
    JpegError error{};
    info.err = jpeg_std_error(&error.manager);
    error.manager.error_exit = jpegFail;
    error.manager.emit_message = jpegQuiet;
    Rgb out;
    if (setjmp(error.escape)) {
        jpeg_destroy_decompress(&info);
        return std::nullopt;
    }
    jpeg_create_decompress(&info);
    jpeg_mem_src(&info, reinterpret_cast<const unsigned char*>(bytes.data()),
                 static_cast<unsigned long>(bytes.size()));
    if (jpeg_read_header(&info, TRUE) != JPEG_HEADER_OK ||
        uint64_t(info.image_width) * info.image_height > kMaxPixels) {
        jpeg_destroy_decompress(&info);
        return std::nullopt;
    }
    info.out_color_space = JCS_RGB;
    // libjpeg scales by 1/2, 1/4 or 1/8 while decoding: no need for more
    // pixels than twice the thumbnail's.
    info.scale_num = 1;
    info.scale_denom = 1;
    const unsigned side = std::max(info.image_width, info.image_height);
    while (info.scale_denom < 8 && side / (info.scale_denom * 2) >= unsigned(maxSide) * 2)
        info.scale_denom *= 2;
    jpeg_start_decompress(&info);
    out.width = int(info.output_width);
    out.height = int(info.output_height);
    out.pixels.resize(size_t(out.width) * out.height * 3);
    while (info.output_scanline < info.output_height) {
        JSAMPROW row = out.pixels.data() + size_t(info.output_scanline) * out.width * 3;
        jpeg_read_scanlines(&info, &row, 1);
    }
    jpeg_finish_decompress(&info);
    jpeg_destroy_decompress(&info);
    return out;
}

std::optional<Rgb> decodePng(const std::string& bytes) {
    png_image image{};
    image.version = PNG_IMAGE_VERSION;
    if (!png_image_begin_read_from_memory(&image, bytes.data(), bytes.size())) return std::nullopt;
    if (uint64_t(image.width) * image.height > kMaxPixels) {
        png_image_free(&image);
        return std::nullopt;
    }
    image.format = PNG_FORMAT_RGB;
    Rgb out;
    out.width = int(image.width);
    out.height = int(image.height);
    out.pixels.resize(PNG_IMAGE_SIZE(image));
    // Transparency over white, as the page's light card shows it.
    png_color white{255, 255, 255};
    if (!png_image_finish_read(&image, &white, out.pixels.data(), 0, nullptr)) {
        png_image_free(&image);
        return std::nullopt;
    }
    return out;
}

// Each output pixel is the mean of the source pixels it covers.
Rgb shrink(const Rgb& in, int maxSide) {
    const int side = std::max(in.width, in.height);
    if (side <= maxSide) return in;
    Rgb out;
    out.width = std::max(1, int(int64_t(in.width) * maxSide / side));
    out.height = std::max(1, int(int64_t(in.height) * maxSide / side));
    out.pixels.resize(size_t(out.width) * out.height * 3);
    for (int y = 0; y < out.height; ++y) {
        const int y0 = int(int64_t(y) * in.height / out.height);
        const int y1 = std::max(y0 + 1, int(int64_t(y + 1) * in.height / out.height));
        for (int x = 0; x < out.width; ++x) {
            const int x0 = int(int64_t(x) * in.width / out.width);
            const int x1 = std::max(x0 + 1, int(int64_t(x + 1) * in.width / out.width));
            uint64_t sum[3] = {0, 0, 0};
            for (int sy = y0; sy < y1; ++sy)
                for (int sx = x0; sx < x1; ++sx)
                    for (int c = 0; c < 3; ++c)
                        sum[c] += in.pixels[(size_t(sy) * in.width + sx) * 3 + c];
            const uint64_t n = uint64_t(y1 - y0) * (x1 - x0);
            for (int c = 0; c < 3; ++c)
                out.pixels[(size_t(y) * out.width + x) * 3 + c] = uint8_t(sum[c] / n);
        }
    }
    return out;
}

std::optional<std::string> encodeJpeg(const Rgb& image, int quality) {
    jpeg_compress_struct info{};
    JpegError error{};
    info.err = jpeg_std_error(&error.manager);
    error.manager.error_exit = jpegFail;
    error.manager.emit_message = jpegQuiet;
    unsigned char* buffer = nullptr;
    unsigned long size = 0;
    if (setjmp(error.escape)) {
        jpeg_destroy_compress(&info);
        std::free(buffer);
        return std::nullopt;
    }
    jpeg_create_compress(&info);
    jpeg_mem_dest(&info, &buffer, &size);
    info.image_width = JDIMENSION(image.width);
    info.image_height = JDIMENSION(image.height);
    info.input_components = 3;
    info.in_color_space = JCS_RGB;
    jpeg_set_defaults(&info);
    jpeg_set_quality(&info, quality, TRUE);
    jpeg_start_compress(&info, TRUE);
    while (info.next_scanline < info.image_height) {
        JSAMPROW row = const_cast<uint8_t*>(image.pixels.data()) +
                       size_t(info.next_scanline) * image.width * 3;
        jpeg_write_scanlines(&info, &row, 1);
    }
    jpeg_finish_compress(&info);
    jpeg_destroy_compress(&info);
    std::string out(reinterpret_cast<const char*>(buffer), size);
    std::free(buffer);
    return out;
}

std::optional<std::string> readImageFile(const std::string& path) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0) return std::nullopt;
    struct stat st {};
    std::optional<std::string> out;
    if (::fstat(fd, &st) == 0 && S_ISREG(st.st_mode) && size_t(st.st_size) <= kMaxFileBytes) {
        std::string bytes(size_t(st.st_size), '\0');
        size_t got = 0;
        ssize_t n = 0;
        while (got < bytes.size() && (n = ::read(fd, bytes.data() + got, bytes.size() - got)) > 0)
            got += size_t(n);
        if (got == bytes.size()) out = std::move(bytes);
    }
    ::close(fd);
    return out;
}

std::string base64(const std::string& bytes) {
    std::string out(4 * ((bytes.size() + 2) / 3) + 1, '\0');
    const int n =
        EVP_EncodeBlock(reinterpret_cast<unsigned char*>(out.data()),
                        reinterpret_cast<const unsigned char*>(bytes.data()), int(bytes.size()));
    out.resize(size_t(std::max(n, 0)));
    return out;
}

}  // namespace

std::optional<std::string> jpegThumbnail(const std::string& bytes, int maxSide, int quality) {
    std::optional<Rgb> image;
    if (bytes.size() > 3 && bytes.compare(0, 3, "\xFF\xD8\xFF") == 0) {
        image = decodeJpeg(bytes, maxSide);
    } else if (bytes.size() > 8 && bytes.compare(0, 8, "\x89PNG\r\n\x1A\n") == 0) {
        image = decodePng(bytes);
    }
    if (!image || image->width <= 0 || image->height <= 0) return std::nullopt;
    return encodeJpeg(shrink(*image, maxSide), quality);
}

namespace {

// The same path may hold another image later (the player's icon is copied
// to one name): its size and time of change tell them apart.
std::string fileIdentity(const std::string& path) {
    struct stat st {};
    if (::stat(path.c_str(), &st) != 0) return path;
    return path + '\n' + std::to_string(st.st_size) + '\n' + std::to_string(st.st_mtim.tv_sec) +
           '.' + std::to_string(st.st_mtim.tv_nsec) + '\n' + std::to_string(st.st_ino);
}

}  // namespace

std::optional<std::string> ArtworkThumbnails::dataURL(const std::string& path) {
    const std::optional<std::string> bytes = jpeg(path);
    if (!bytes) return std::nullopt;
    return "data:image/jpeg;base64," + base64(*bytes);
}

std::optional<std::string> ArtworkThumbnails::jpeg(const std::string& path) {
    const std::string identity = fileIdentity(path);
    {
        std::lock_guard guard(lock_);
        if (cached_ && cached_->first == identity) return cached_->second;
    }
    std::optional<std::string> out;
    if (auto bytes = readImageFile(path)) out = jpegThumbnail(*bytes);
    std::lock_guard guard(lock_);
    cached_ = std::pair{identity, out};
    return out;
}

std::optional<std::string> ArtworkThumbnails::cachedJpeg(const std::string& path) {
    const std::string identity = fileIdentity(path);
    std::lock_guard guard(lock_);
    if (cached_ && cached_->first == identity) return cached_->second;
    return std::nullopt;
}

}  // namespace vt::sendspin
