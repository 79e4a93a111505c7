#include "airplay_tool/stream_flush.h"

#include <string>
#include <utility>

namespace vt::airplay_tool {

Outcome sendFlush(RtpStreamer& streamer, RtspClient& rtsp, RtspRequest request, int timeoutMs,
                  StatusWriter& status, bool pause) {
    const RtpStreamer::FlushPoint point = streamer.flush(pause);
    request.add("RTP-Info",
                "seq=" + std::to_string(point.seq) + ";rtptime=" + std::to_string(point.rtptime));
    RtspResult result = rtsp.request(std::move(request), timeoutMs);
    if (!result.response) {
        status.error(error_code::disconnected, 0, "FLUSH: " + result.error);
        return Outcome::failed;
    }
    if (pause)
        status.playing(false, streamer.elapsedMs());
    else
        status.flushed();
    return Outcome::running;
}

}  // namespace vt::airplay_tool
