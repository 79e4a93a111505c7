// The shapes of the visualiser's styles as coloured triangles, in item
// pixels with y growing downwards. Vertex matches the scene graph's
// ColoredPoint2D layout, so a frame is copied into the node as it is.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace vt::ui::visualiser {

struct Rgba {
    uint8_t r = 0, g = 0, b = 0, a = 255;
};

struct Vertex {
    float x, y;
    uint8_t r, g, b, a;
};

struct SpectrumColours {
    Rgba top;   // the bar's colour at full height
    Rgba base;  // ... and at its foot
    Rgba cap;
};

// Levels below this draw nothing: what is left of a fall is not worth a pixel.
inline constexpr float quietLevel = 0.002f;

// One bar per band, low frequencies on the left, with a cap at each peak
// mark. Always bands * 12 vertices: a quiet bar or cap is an empty quad, so
// the node's buffer keeps its size.
void buildSpectrum(std::vector<Vertex>& out, std::span<const float> levels,
                   std::span<const float> peaks, float width, float height,
                   const SpectrumColours& colours);

// Where a steady trace starts: the first rising zero crossing in the first
// half of the block, or 0 when there is none, so a periodic sound stands
// still on the screen.
std::size_t scopeTrigger(std::span<const float> samples);

// Half the block from the trigger, drawn as the band each column of
// `columnPixels` sweeps (joined to the column before it), at least
// `thickness` tall.
void buildScope(std::vector<Vertex>& out, std::span<const float> samples, float width, float height,
                float thickness, Rgba colour, float columnPixels = 2.0f);

}  // namespace vt::ui::visualiser
