#include "ui/visualiser/visualiser_geometry.h"

#include <algorithm>
#include <cmath>

namespace vt::ui::visualiser {

namespace {

Rgba mix(Rgba a, Rgba b, float t) {
    auto lerp = [t](uint8_t x, uint8_t y) {
        return static_cast<uint8_t>(std::lround(x + (static_cast<float>(y) - x) * t));
    };
    return {lerp(a.r, b.r), lerp(a.g, b.g), lerp(a.b, b.b), lerp(a.a, b.a)};
}

// Two triangles; the top edge takes one colour and the bottom another.
void quad(std::vector<Vertex>& out, float x0, float y0, float x1, float y1, Rgba top, Rgba bottom) {
    const Vertex tl{x0, y0, top.r, top.g, top.b, top.a};
    const Vertex tr{x1, y0, top.r, top.g, top.b, top.a};
    const Vertex bl{x0, y1, bottom.r, bottom.g, bottom.b, bottom.a};
    const Vertex br{x1, y1, bottom.r, bottom.g, bottom.b, bottom.a};
    out.insert(out.end(), {tl, bl, tr, tr, bl, br});
}

void emptyQuad(std::vector<Vertex>& out) {
    out.insert(out.end(), 6, Vertex{0, 0, 0, 0, 0, 0});
}

float clamp01(float v) {
    return std::isfinite(v) ? std::clamp(v, 0.0f, 1.0f) : 0.0f;
}

}  // namespace

void buildSpectrum(std::vector<Vertex>& out, std::span<const float> levels,
                   std::span<const float> peaks, float width, float height,
                   const SpectrumColours& colours) {
    out.clear();
    const std::size_t bands = levels.size();
    if (bands == 0) return;
    const float slot = width / static_cast<float>(bands);
    const float gap = std::min(slot * 0.25f, 4.0f);
    const float capHeight = std::clamp(height * 0.012f, 2.0f, 4.0f);
    for (std::size_t i = 0; i < bands; ++i) {
        const float x0 = slot * static_cast<float>(i) + gap * 0.5f;
        const float x1 = x0 + std::max(slot - gap, 1.0f);
        const float level = clamp01(levels[i]);
        if (level > quietLevel) {
            const float top = height * (1.0f - level);
            quad(out, x0, top, x1, height, mix(colours.base, colours.top, level), colours.base);
        } else {
            emptyQuad(out);
        }
        const float peak = i < peaks.size() ? clamp01(peaks[i]) : 0.0f;
        if (peak > quietLevel) {
            const float y = std::max(height * (1.0f - peak) - capHeight, 0.0f);
            quad(out, x0, y, x1, y + capHeight, colours.cap, colours.cap);
        } else {
            emptyQuad(out);
        }
    }
}

std::size_t scopeTrigger(std::span<const float> samples) {
    const std::size_t half = samples.size() / 2;
    for (std::size_t n = 1; n < half; ++n)
        if (samples[n - 1] < 0.0f && samples[n] >= 0.0f) return n;
    return 0;
}

void buildScope(std::vector<Vertex>& out, std::span<const float> samples, float width, float height,
                float thickness, Rgba colour, float columnPixels) {
    out.clear();
    const std::size_t shown = samples.size() / 2;
    if (shown == 0 || width < 1.0f) return;
    const std::span<const float> trace = samples.subspan(scopeTrigger(samples), shown);
    // Two pixels a column is finer than the eye follows a moving trace.
    const std::size_t columns = std::clamp<std::size_t>(
        static_cast<std::size_t>(width / std::max(columnPixels, 1.0f)), 1, shown);
    const float columnWidth = width / static_cast<float>(columns);
    const float middle = height * 0.5f;
    const float scale = height * 0.45f;
    auto yOf = [&](float v) { return middle - clamp01(v * 0.5f + 0.5f) * 2.0f * scale + scale; };

    float previous = yOf(trace[0]);
    for (std::size_t c = 0; c < columns; ++c) {
        const std::size_t from = c * shown / columns;
        const std::size_t to = std::max((c + 1) * shown / columns, from + 1);
        float lo = previous;
        float hi = previous;
        for (std::size_t n = from; n < to; ++n) {
            const float y = yOf(trace[n]);
            lo = std::min(lo, y);
            hi = std::max(hi, y);
        }
        previous = yOf(trace[to - 1]);
        const float grow = std::max(thickness - (hi - lo), 0.0f) * 0.5f;
        const float x0 = columnWidth * static_cast<float>(c);
        quad(out, x0, lo - grow, x0 + columnWidth, hi + grow, colour, colour);
    }
}

}  // namespace vt::ui::visualiser
