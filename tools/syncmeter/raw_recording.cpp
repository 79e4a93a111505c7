#include "raw_recording.h"

#include <cmath>
#include <cstring>
#include <fstream>
#include <stdexcept>

namespace vt::syncmeter {

std::vector<Recording> parseRawRecording(const unsigned char* data, size_t size, double rate,
                                         size_t channels, const std::vector<RecordRequest>& names,
                                         double skipSec) {
    if (channels == 0 || channels > kMaxRawChannels) {
        throw std::runtime_error("a raw recording needs 1 to 16 channels");
    }
    if (names.empty() || names.size() > channels) {
        throw std::runtime_error("a raw recording needs a name for each channel measured");
    }
    if (!(rate >= 8000 && rate <= 384000)) throw std::runtime_error("bad rate for a raw recording");
    if (size > kMaxRawBytes) throw std::runtime_error("raw recording too large");
    const size_t frameBytes = channels * sizeof(float);
    const size_t frames = size / frameBytes;
    const double skipFrames = std::isfinite(skipSec) && skipSec > 0 ? skipSec * rate : 0.0;
    const size_t first =
        skipFrames >= static_cast<double>(frames) ? frames : static_cast<size_t>(skipFrames);

    std::vector<Recording> out(names.size());
    for (size_t c = 0; c < out.size(); ++c) {
        out[c].name = names[c].name;
        out[c].source = names[c].source;
        out[c].rate = rate;
        out[c].firstFramePlayedSec = 0;
        out[c].secondsPerFrame = 1.0 / rate;
        out[c].left.reserve(frames - first);
    }
    for (size_t f = first; f < frames; ++f) {
        for (size_t c = 0; c < out.size(); ++c) {
            float v;
            std::memcpy(&v, data + f * frameBytes + c * sizeof(float), sizeof v);
            if (!std::isfinite(v)) {
                v = 0.0f;
                ++out[c].holeFrames;
            }
            out[c].left.push_back(v);
        }
    }
    // One port of each monitor was recorded: it stands for both channels.
    for (auto& r : out) r.right = r.left;
    return out;
}

std::vector<Recording> readRawRecording(const std::string& path, double rate, size_t channels,
                                        const std::vector<RecordRequest>& names, double skipSec) {
    std::ifstream in(path, std::ios::binary | std::ios::ate);
    if (!in) throw std::runtime_error("cannot read " + path);
    const std::streamoff size = in.tellg();
    if (size < 0 || static_cast<uint64_t>(size) > kMaxRawBytes) {
        throw std::runtime_error("raw recording too large: " + path);
    }
    std::vector<unsigned char> bytes(static_cast<size_t>(size));
    in.seekg(0);
    if (size > 0 && !in.read(reinterpret_cast<char*>(bytes.data()), size)) {
        throw std::runtime_error("cannot read " + path);
    }
    return parseRawRecording(bytes.data(), bytes.size(), rate, channels, names, skipSec);
}

}  // namespace vt::syncmeter
