#include "remote/eq_wire.h"

namespace vt::remote {
namespace {

std::vector<Band> bandsOf(const equaliser::EQSettings& settings) {
    std::vector<Band> out;
    out.reserve(settings.bands.size());
    for (const equaliser::EQBand& b : settings.bands) out.push_back(Band::from(b));
    return out;
}

}  // namespace

Band Band::from(const equaliser::EQBand& band) {
    return Band{band.kind, band.frequency, band.gainDb, equaliser::usesGain(band.kind)};
}

RemoteEQ RemoteEQ::from(const equaliser::EQSettings& settings, std::vector<double> curve,
                        std::optional<std::string> presetID) {
    return RemoteEQ{settings.enabled, settings.preampDb, bandsOf(settings), std::move(curve),
                    std::move(presetID)};
}

RowEQ RowEQ::from(const equaliser::EQSettings& settings, std::optional<std::string> presetID) {
    return RowEQ{settings.enabled, bandsOf(settings), std::move(presetID)};
}

}  // namespace vt::remote
