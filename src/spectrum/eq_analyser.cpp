#include "spectrum/eq_analyser.h"

#include <array>
#include <cmath>

namespace vt::spectrum {

namespace {
const std::array<float, EQAnalyser::bandCount> silence{};
}  // namespace

EQAnalyser::EQAnalyser() : scratch_(SpectrumAnalyser::size, 0.0f) {}

EQAnalyser::~EQAnalyser() = default;

void EQAnalyser::run(double now) {
    if (!analyser_) analyser_ = std::make_unique<SpectrumAnalyser>(bandCount);
    const double dt = last_ ? now - *last_ : 0.0;
    last_ = now;
    analyser_->analyse(scratch_, dt);
}

std::span<const float> EQAnalyser::levels() const {
    return analyser_ ? analyser_->levels() : std::span<const float>(silence);
}

std::span<const float> EQAnalyser::peaks() const {
    return analyser_ ? analyser_->peaks() : std::span<const float>(silence);
}

double EQAnalyser::bandLowHz(int band) {
    return lowHz * std::pow(highHz / lowHz, static_cast<double>(band) / bandCount);
}

double EQAnalyser::bandCentreHz(int band) {
    return lowHz * std::pow(highHz / lowHz, (band + 0.5) / bandCount);
}

}  // namespace vt::spectrum
