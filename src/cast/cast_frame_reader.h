// Cuts the channel's byte stream into messages: a 4-byte big-endian length,
// then that many bytes of CastMessage. A frame longer than 1 MiB, or one that
// does not decode, is fatal: the channel ends rather than resynchronising on
// a stream it no longer understands.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "cast/cast_message.h"

namespace vt::cast {

inline constexpr size_t kMaxCastFrameBytes = 0x100000;

class CastFrameReader {
  public:
    // The messages completed by `data`, in order (possibly none); nothing at
    // all when the stream is broken, after which the reader stays broken.
    std::optional<std::vector<CastMessage>> append(std::string_view data);
    size_t buffered() const { return buffer_.size() - consumed_; }

  private:
    std::string buffer_;
    size_t consumed_ = 0;
    bool broken_ = false;
};

}  // namespace vt::cast
