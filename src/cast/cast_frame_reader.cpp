#include "cast/cast_frame_reader.h"

#include <cstdint>

namespace vt::cast {

std::optional<std::vector<CastMessage>> CastFrameReader::append(std::string_view data) {
    if (broken_) return std::nullopt;
    buffer_.append(data);
    std::vector<CastMessage> messages;
    while (buffer_.size() - consumed_ >= 4) {
        const auto* p = reinterpret_cast<const uint8_t*>(buffer_.data() + consumed_);
        const size_t n = (size_t{p[0]} << 24) | (size_t{p[1]} << 16) | (size_t{p[2]} << 8) | p[3];
        if (n > kMaxCastFrameBytes) {
            broken_ = true;
            return std::nullopt;
        }
        if (buffer_.size() - consumed_ < n + 4) break;
        auto message = CastMessage::decode(std::string_view(buffer_).substr(consumed_ + 4, n));
        if (!message) {
            broken_ = true;
            return std::nullopt;
        }
        messages.push_back(std::move(*message));
        consumed_ += n + 4;
    }
    // Drop what was read once it is most of the buffer, so a long-lived
    // channel neither grows nor copies on every small read.
    if (consumed_ > 0 && consumed_ * 2 >= buffer_.size()) {
        buffer_.erase(0, consumed_);
        consumed_ = 0;
    }
    return messages;
}

}  // namespace vt::cast
