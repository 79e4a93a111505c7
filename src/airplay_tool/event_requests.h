// What a receiver sends on the event connection it asked us to open: RTSP
// requests of its own (POST /command with the commands it offers now, and
// the like). We act on none of them, but a receiver that hears no answer may
// take the sender for gone, so each is answered 200 with its CSeq. Requests
// are read within the same bounds as an answer on the control connection.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace vt::airplay_tool {

class EventRequestReader {
  public:
    // Adds bytes and appends to `answers` the answer to each request they
    // complete. False, and from then on nothing more is read, once the bytes
    // are not RTSP requests.
    bool append(std::string_view bytes, std::string& answers);
    size_t answered() const { return answered_; }

  private:
    std::string buffer_;
    bool broken_ = false;
    size_t answered_ = 0;
};

}  // namespace vt::airplay_tool
