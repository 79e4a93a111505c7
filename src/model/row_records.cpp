#include "model/row_records.h"

#include <nlohmann/json.hpp>

#include "guests/guest_party.h"

namespace vt::model {

namespace {

// How many colours the row palette has; past that, colours repeat.
constexpr int kHues = 12;

stage::RowPlace placeFrom(const std::optional<settings::RawPlace>& raw) {
    stage::RowPlace place;
    if (raw && raw->is_object()) place = raw->get<stage::RowPlace>();
    return place;
}

std::optional<settings::RawPlace> rawFrom(const stage::RowPlace& place) {
    if (place == stage::RowPlace{}) return std::nullopt;
    return settings::RawPlace(place);
}

}  // namespace

std::string RowState::originalName() const {
    if (guestID) return guests::guestRowName(guestName);
    if (castID) return castName.value_or(*castID);
    if (airplayID) return airplayName.value_or(*airplayID);
    if (deviceUID) return deviceName.value_or(*deviceUID);
    return "Output";
}

std::string RowState::shownName() const {
    if (customName && !customName->empty()) return *customName;
    return originalName();
}

std::optional<std::string> RowState::memoryKey() const {
    if (guestID) return std::nullopt;
    return settings::memoryKey(deviceUID, airplayID, castID);
}

RowState rowFromStored(const settings::OutputSettings& s, RowId id, int position) {
    RowState row;
    row.id = id;
    row.deviceUID = s.deviceUID;
    row.deviceName = s.deviceName;
    row.airplayID = s.airplayID;
    row.airplayName = s.airplayName;
    row.castID = s.castID;
    row.castName = s.castName;
    row.delayMs = s.delayMs;
    row.volume = s.volume;
    row.muted = s.muted;
    row.collapsed = s.collapsed;
    row.disabled = s.disabled;
    row.order = s.order.value_or(position);
    // A hue outside the palette is damage: the row takes the one it would have had.
    row.hue = s.hue && *s.hue >= 0 && *s.hue < kHues ? *s.hue : position % kHues;
    row.measuredLatencyMs = s.measuredLatencyMs;
    row.latencySource = s.latencySource;
    row.eq = s.eq;
    row.place = placeFrom(s.place);
    return row;
}

settings::OutputSettings storedFromRow(const RowState& row, bool muted) {
    settings::OutputSettings s;
    s.deviceUID = row.deviceUID;
    s.deviceName = row.deviceName;
    s.airplayID = row.airplayID;
    s.airplayName = row.airplayName;
    s.castID = row.castID;
    s.castName = row.castName;
    s.delayMs = row.delayMs;
    s.volume = row.volume;
    s.muted = muted;
    s.collapsed = row.collapsed;
    s.disabled = row.disabled;
    s.order = row.order;
    s.hue = row.hue;
    s.measuredLatencyMs = row.measuredLatencyMs;
    s.latencySource = row.latencySource;
    s.eq = row.eq;
    s.place = rawFrom(row.place);
    return s;
}

settings::RememberedOutput rememberedFromRow(const RowState& row, bool muted) {
    settings::RememberedOutput r;
    r.delayMs = row.delayMs;
    r.volume = row.volume;
    r.muted = muted;
    r.eq = row.eq;
    r.measuredLatencyMs = row.measuredLatencyMs;
    r.latencySource = row.latencySource;
    r.place = rawFrom(row.place);
    return r;
}

void applyRemembered(RowState& row, const settings::RememberedOutput& m) {
    row.delayMs = m.delayMs;
    row.volume = m.volume;
    row.muted = m.muted;
    row.eq = m.eq;
    row.measuredLatencyMs = m.measuredLatencyMs;
    row.latencySource = m.latencySource;
    if (m.place) row.place = placeFrom(m.place);
}

int nextHue(const std::set<int>& taken) {
    for (int h = 0; h < kHues; ++h)
        if (!taken.contains(h)) return h;
    return static_cast<int>(taken.size()) % kHues;
}

}  // namespace vt::model
