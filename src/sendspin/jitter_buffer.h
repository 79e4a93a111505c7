// Stamped audio in, samples out at the time the phone asks for. Small clock
// corrections are taken one frame per read, inaudibly; only a real
// discontinuity (more than 10 ms) makes the read jump.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

namespace vt::sendspin {

class SendspinJitterBuffer {
  public:
    static constexpr int sampleRate = 48'000;
    static constexpr int jumpFrames = 480;
    static constexpr double frameUs = 1e6 / sampleRate;

    struct Chunk {
        int64_t startUs = 0;
        std::vector<int16_t> samples;  // interleaved stereo
        size_t frames = 0;
        double endUs = 0;
    };

    SendspinJitterBuffer();

    // Little-endian 16-bit stereo bytes, as they come in an audio frame.
    void push(int64_t playAtUs, std::string_view pcm);
    void push(int64_t playAtUs, std::vector<int16_t> samples);
    // Fills `frames` stereo float pairs for output starting at `startUs`.
    void read(float* into, size_t frames, int64_t startUs);
    void clear();
    static std::vector<int16_t> samples(std::string_view pcm);

    const std::vector<Chunk>& chunks() const { return chunks_; }
    std::optional<double> cursorUs() const { return cursorUs_; }

  private:
    std::vector<Chunk> chunks_;
    std::optional<double> cursorUs_;
};

}  // namespace vt::sendspin
