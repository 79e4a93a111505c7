// Framing of the remote link: one JSON text per line, each ended by 0x0A.
#pragma once

#include <cstddef>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace vt::remote {

// What a phone accepts from the computer: artwork travels that way.
inline constexpr std::size_t maxLineBytes = 4'194'304;
// What the computer accepts from a phone.
inline constexpr std::size_t phoneLineBytes = 65'536;

class LineCodec {
  public:
    enum class Failure { lineTooLong };

    class Error : public std::runtime_error {
      public:
        explicit Error(Failure f);
        Failure failure() const { return failure_; }

      private:
        Failure failure_;
    };

    explicit LineCodec(std::size_t limit = maxLineBytes) : limit_(limit) {}

    // Appends the bytes and returns every line they complete, without its
    // newline; empty lines come back as empty strings. Throws lineTooLong,
    // after dropping everything buffered, once a line runs past the limit:
    // the peer is either broken or hostile and the link should end.
    std::vector<std::string> feed(std::string_view bytes);

    const std::string& pending() const { return pending_; }
    std::size_t limit() const { return limit_; }

  private:
    std::string pending_;
    // Bytes of pending_ already known to hold no newline, so that a long line
    // arriving in small pieces is scanned once and not once per piece.
    std::size_t scanned_ = 0;
    std::size_t limit_;
};

}  // namespace vt::remote
