#include "mixer/app_volumes.h"

#include <algorithm>
#include <cmath>

namespace vt::mixer {

namespace {

std::map<uint32_t, AppStream> byIndex(const std::vector<AppStream>& streams) {
    std::map<uint32_t, AppStream> out;
    for (const AppStream& s : streams) out[s.index] = s;
    return out;
}

bool silent(const std::vector<RawVolume>& v) {
    return std::all_of(v.begin(), v.end(), [](RawVolume x) { return x == 0; });
}

std::vector<RawVolume> volumeOf(const nlohmann::json& j) {
    std::vector<RawVolume> out;
    if (!j.is_array() || j.size() > 32) return {};
    for (const auto& v : j) {
        if (!v.is_number_unsigned() || v.get<uint64_t>() > 4 * kFullVolume) return {};
        out.push_back(RawVolume(v.get<uint64_t>()));
    }
    return out;
}

}  // namespace

AppVolumes::AppVolumes(AppStreams& streams, dispatch::MainQueue& main, settings::Settings& settings)
    : streams_(streams), main_(main), settings_(settings) {}

AppVolumes::~AppVolumes() = default;

void AppVolumes::restorePending() {
    AppStreams& streams = streams_;
    settings::Settings& settings = settings_;
    if (const nlohmann::json keeps = settings.value(keepsKey); keeps.is_object())
        for (const auto& [key, volume] : keeps.items())
            if (std::vector<RawVolume> v = volumeOf(volume); !v.empty()) rememberOrKeep(key, v);
    persistKeeps();
    const nlohmann::json note = settings.value(settingsKey);
    if (note.is_null()) return;
    const auto present = byIndex(streams.streams());
    if (note.is_object()) {
        for (const auto& [indexText, entry] : note.items()) {
            if (!entry.is_object()) continue;
            uint32_t index = 0;
            try {
                index = uint32_t(std::stoul(indexText));
            } catch (...) {
                continue;
            }
            auto it = present.find(index);
            const std::vector<RawVolume> original =
                volumeOf(entry.value("volume", nlohmann::json()));
            if (original.empty()) continue;
            const nlohmann::json key = entry.value("key", nlohmann::json());
            if (key.is_string()) rememberOrKeep(key.get<std::string>(), original);
            // The same stream, still there: the index is the server's, and
            // is not reused while the server runs.
            if (it != present.end() && original.size() == it->second.volume.size()) {
                givenBack_[index] = {original, it->second.volume};
                streams.setVolume(index, original);
            }
        }
    }
    settings.removeValue(settingsKey);
    persistKeeps();
}

const std::vector<RawVolume>* AppVolumes::originalOf(uint32_t stream) const {
    auto it = held_.find(stream);
    return it == held_.end() ? nullptr : &it->second.original;
}

std::vector<RawVolume> AppVolumes::scaled(const std::vector<RawVolume>& original,
                                          double gain) const {
    if (gain == 1.0) return original;
    std::vector<RawVolume> out;
    for (RawVolume v : original) out.push_back(streams_.fromLinear(streams_.toLinear(v) * gain));
    return out;
}

bool AppVolumes::same(const std::vector<RawVolume>& a, const std::vector<RawVolume>& b) const {
    if (a.size() != b.size()) return false;
    for (size_t i = 0; i < a.size(); ++i)
        if (std::fabs(streams_.toLinear(a[i]) - streams_.toLinear(b[i])) > kSameWithin)
            return false;
    return true;
}

void AppVolumes::apply(const GainTable& gains) {
    wanted_ = gains;
    streamsChanged();
}

void AppVolumes::streamsChanged() {
    sendUnsentKeeps();
    const auto present = byIndex(streams_.streams());
    const double now = main_.now();
    bool changedNote = false;

    // Gone streams, and volumes set by someone else.
    for (auto it = held_.begin(); it != held_.end();) {
        auto p = present.find(it->first);
        if (p == present.end()) {
            if (it->second.gain != 1.0) {
                release(it->second);
                if (!it->second.restoreKey.empty())
                    ended_[it->second.restoreKey] = {it->second.sent, it->second.original};
            }
            it = held_.erase(it);
            changedNote = true;
            continue;
        }
        Held& h = it->second;
        const std::vector<RawVolume>& seen = p->second.volume;
        const bool echo = std::any_of(h.echoes.begin(), h.echoes.end(),
                                      [&](const auto& v) { return same(seen, v); });
        if (!h.ramping && !echo && !same(seen, h.sent)) {
            if (now - h.firstSeen < kSettleSeconds) {
                // The server's kept volume, arriving late: the app's own.
                h.original = ownVolume(h.restoreKey, seen);
                send(it->first, h, h.gain);
            } else {
                // The user's, and it stays as it is.
                h.original = h.gain > 1e-3 ? scaled(seen, 1.0 / h.gain) : seen;
                h.sent = seen;
            }
            changedNote = true;
        }
        ++it;
    }

    // What each stream should play at now.
    std::map<uint32_t, std::pair<std::string, double>> target;
    for (const auto& [app, wish] : wanted_)
        for (uint32_t index : wish.streams) target[index] = {app, wish.gain};

    for (const auto& [index, want] : target) {
        auto p = present.find(index);
        if (p == present.end() || p->second.volume.empty()) continue;
        auto it = held_.find(index);
        if (it == held_.end()) {
            if (want.second == 1.0) continue;
            // pipewire-pulse reports a stream it has not yet heard the volume
            // of as silent; taken as the original, that 0 would be written
            // over the volume the server gives it a moment later, and given
            // back at quit. A stream that is really at 0 plays the same
            // without us. Only the silence we left on the app's last stream
            // is ours to take back.
            if (silent(p->second.volume) && !leftSilent(p->second)) continue;
            Held h;
            h.app = want.first;
            h.original = p->second.volume;
            h.sent = h.original;
            h.firstSeen = seenAt_.contains(index) ? seenAt_[index] : now;
            if (auto k = p->second.properties.find(kRestoreKeyProperty);
                k != p->second.properties.end())
                h.restoreKey = k->second;
            h.original = ownVolume(h.restoreKey, h.original);
            if (auto g = givenBack_.find(index); g != givenBack_.end()) {
                // Until the server has dealt with the give-back, it may still
                // report what the dead run left: neither that nor the
                // original coming back is a kept volume arriving.
                h.echoes = {g->second.left, g->second.original};
                h.original = g->second.original;
            }
            it = held_.emplace(index, std::move(h)).first;
            // The original is on disk before the stream is turned down.
            persist();
            changedNote = false;
        }
        Held& h = it->second;
        const double to = want.second;
        if (!seenAt_.contains(index))
            send(index, h, to);
        else if ((h.ramping ? h.rampTo : h.gain) != to)
            startRamp(index, h, to);
    }
    std::erase_if(seenAt_, [&](const auto& e) { return !present.contains(e.first); });
    std::erase_if(givenBack_, [&](const auto& e) { return !present.contains(e.first); });
    // A stream counts as seen once it has a volume, so that it then takes
    // its gain at once rather than by a ramp from full.
    for (const auto& [index, s] : present)
        if (!silent(s.volume) || held_.contains(index)) seenAt_.try_emplace(index, now);
    // Streams no longer wished for go back to their originals.
    for (auto& [index, h] : held_)
        if (!target.contains(index) && (h.ramping ? h.rampTo : h.gain) != 1.0)
            startRamp(index, h, 1.0);

    if (changedNote) persist();
    if (!rampTimer_ &&
        std::any_of(held_.begin(), held_.end(), [](const auto& e) { return e.second.ramping; }))
        rampTimer_ = main_.repeat(kRampSeconds / kRampSteps, [this] { step(); });
}

void AppVolumes::startRamp(uint32_t, Held& h, double to) {
    h.rampFrom = h.gain;
    h.rampTo = to;
    h.rampStart = main_.now();
    h.ramping = true;
}

void AppVolumes::send(uint32_t index, Held& h, double gain) {
    h.gain = gain;
    h.sent = scaled(h.original, gain);
    h.echoes.push_back(h.sent);
    if (h.echoes.size() > kEchoes) h.echoes.erase(h.echoes.begin());
    streams_.setVolume(index, h.sent);
}

void AppVolumes::step() {
    const double now = main_.now();
    bool released = false;
    for (auto it = held_.begin(); it != held_.end();) {
        Held& h = it->second;
        if (!h.ramping) {
            ++it;
            continue;
        }
        const double t = std::clamp((now - h.rampStart) / kRampSeconds, 0.0, 1.0);
        // Equal steps in amplitude; the last one lands exactly.
        const double gain = t >= 1.0 ? h.rampTo : h.rampFrom + (h.rampTo - h.rampFrom) * t;
        send(it->first, h, gain);
        if (t >= 1.0) {
            h.ramping = false;
            if (gain == 1.0) {
                // Back at its own level: nothing of ours remains on it.
                release(h);
                it = held_.erase(it);
                released = true;
                continue;
            }
        }
        ++it;
    }
    if (released) persist();
    if (std::none_of(held_.begin(), held_.end(), [](const auto& e) { return e.second.ramping; }))
        rampTimer_.reset();
}

void AppVolumes::restoreAll() {
    rampTimer_.reset();
    for (auto& [index, h] : held_) {
        streams_.setVolume(index, h.original);
        release(h);
    }
    held_.clear();
    wanted_.clear();
    streams_.settle();
    settings_.removeValue(settingsKey);
    persistKeeps();
}

std::vector<RawVolume> AppVolumes::ownVolume(const std::string& restoreKey,
                                             const std::vector<RawVolume>& seen) const {
    auto it = ended_.find(restoreKey);
    if (it != ended_.end() && same(seen, it->second.sent)) return it->second.original;
    return seen;
}

bool AppVolumes::leftSilent(const AppStream& stream) const {
    auto k = stream.properties.find(kRestoreKeyProperty);
    if (k == stream.properties.end()) return false;
    auto it = ended_.find(k->second);
    return it != ended_.end() && same(stream.volume, it->second.sent);
}

void AppVolumes::release(const Held& h) {
    if (h.restoreKey.empty()) return;
    rememberOrKeep(h.restoreKey, h.original);
    persistKeeps();
}

void AppVolumes::rememberOrKeep(const std::string& restoreKey,
                                const std::vector<RawVolume>& volume) {
    if (streams_.rememberVolume(restoreKey, volume))
        unsentKeeps_.erase(restoreKey);
    else
        unsentKeeps_[restoreKey] = volume;
}

void AppVolumes::sendUnsentKeeps() {
    if (unsentKeeps_.empty()) return;
    std::erase_if(unsentKeeps_,
                  [&](const auto& e) { return streams_.rememberVolume(e.first, e.second); });
    persistKeeps();
}

void AppVolumes::persistKeeps() {
    // Written only when it changes: the poll calls this every second.
    const nlohmann::json stored = settings_.value(keepsKey);
    if (unsentKeeps_.empty()) {
        if (!stored.is_null()) settings_.removeValue(keepsKey);
        return;
    }
    nlohmann::json keeps = nlohmann::json::object();
    for (const auto& [key, volume] : unsentKeeps_) keeps[key] = volume;
    if (stored != keeps) settings_.setValue(keepsKey, keeps);
}

void AppVolumes::persist() {
    if (held_.empty()) {
        if (!settings_.value(settingsKey).is_null()) settings_.removeValue(settingsKey);
        return;
    }
    nlohmann::json note = nlohmann::json::object();
    for (const auto& [index, h] : held_)
        note[std::to_string(index)] = {
            {"app", h.app}, {"key", h.restoreKey}, {"volume", h.original}};
    if (settings_.value(settingsKey) != note) settings_.setValue(settingsKey, note);
}

}  // namespace vt::mixer
