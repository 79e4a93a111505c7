#include "remote/line_codec.h"

namespace vt::remote {

LineCodec::Error::Error(Failure f) : std::runtime_error("The line is too long."), failure_(f) {}

std::vector<std::string> LineCodec::feed(std::string_view bytes) {
    pending_.append(bytes);
    std::vector<std::string> lines;
    std::size_t start = 0;
    std::size_t from = scanned_;
    for (;;) {
        const std::size_t nl = pending_.find('\n', from);
        if (nl == std::string::npos) break;
        // A complete line is held to the same limit as a partial one: whether
        // a peer's line is accepted must not depend on how the reads split it.
        if (nl - start > limit_) {
            pending_.clear();
            scanned_ = 0;
            throw Error(Failure::lineTooLong);
        }
        lines.emplace_back(pending_, start, nl - start);
        start = nl + 1;
        from = start;
    }
    pending_.erase(0, start);
    if (pending_.size() > limit_) {
        pending_.clear();
        scanned_ = 0;
        throw Error(Failure::lineTooLong);
    }
    scanned_ = pending_.size();
    return lines;
}

}  // namespace vt::remote
