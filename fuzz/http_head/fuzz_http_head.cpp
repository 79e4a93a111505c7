// Feeds arbitrary bytes to the request-head collector in reads of varying size,
// then to the parser, checking the bounds the server relies on.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "net/http_request.h"

using vt::net::HTTPHeadBuffer;
using vt::net::HTTPRequest;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    // The first byte picks how the bytes are cut into reads.
    const size_t step = 1 + data[0] * 67;
    std::string_view input(reinterpret_cast<const char*>(data) + 1, size - 1);

    HTTPHeadBuffer head;
    size_t at = 0;
    HTTPHeadBuffer::State state = HTTPHeadBuffer::State::needMore;
    while (state == HTTPHeadBuffer::State::needMore && at < input.size()) {
        const size_t room = head.nextReadSize();
        if (room == 0 || room > vt::net::kHeadReadChunk) std::abort();
        const size_t n = std::min({step, room, input.size() - at});
        state = head.append(input.substr(at, n));
        at += n;
    }
    if (state == HTTPHeadBuffer::State::complete) {
        if (head.head().size() > vt::net::kMaxHeadBytes) std::abort();
        if (head.head().find("\r\n\r\n") != std::string_view::npos) std::abort();
        if (auto request = HTTPRequest::parse(head.head())) {
            if (request->path.find('?') != std::string::npos) std::abort();
            (void)request->isWebSocketUpgrade();
        }
    }
    (void)HTTPRequest::parse(input);
    return 0;
}
