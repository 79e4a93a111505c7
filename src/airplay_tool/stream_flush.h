#pragma once

#include "airplay_tool/route.h"
#include "airplay_tool/rtp_streamer.h"
#include "airplay_tool/rtsp_client.h"
#include "airplay_tool/status_writer.h"

namespace vt::airplay_tool {

// Breaks the stream off at the streamer's next packet and tells the receiver
// where, as a FLUSH request's RTP-Info: both AirPlay routes do it the same way.
// `request` is the route's own FLUSH request with its session headers; a pause
// also reports the stream as stopped.
Outcome sendFlush(RtpStreamer& streamer, RtspClient& rtsp, RtspRequest request, int timeoutMs,
                  StatusWriter& status, bool pause);

}  // namespace vt::airplay_tool
