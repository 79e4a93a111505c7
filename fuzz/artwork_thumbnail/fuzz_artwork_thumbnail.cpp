// An image file as a media player or a web server may hand it over: decoding
// must never crash or run away, and whatever comes out fits the thumbnail.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "sendspin/artwork_thumbnail.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string bytes(reinterpret_cast<const char*>(data), size);
    auto jpeg = vt::sendspin::jpegThumbnail(bytes);
    if (jpeg && (jpeg->size() < 4 || static_cast<uint8_t>((*jpeg)[0]) != 0xFF)) std::abort();
    return 0;
}
