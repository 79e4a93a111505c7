#include "guests/guest_speaker.h"

#include <algorithm>

#include "guests/guest_roster.h"

namespace vt::guests {

namespace {
using Kind = remote::RowInfo::Kind;
constexpr const char* kThisPhone = "This iPhone";
}  // namespace

bool GuestSpeaker::plays(int sampleRate, int channels, int bitDepth) {
    return sampleRate == 48'000 && channels == 2 && bitDepth == 16;
}

bool GuestSpeakerState::isIn() const {
    return phase_ == Phase::joining || phase_ == Phase::playing || phase_ == Phase::paused ||
           phase_ == Phase::reconnecting;
}

bool GuestSpeakerState::join() {
    if (isIn()) return false;
    phase_ = Phase::joining;
    lostSince_.reset();
    return true;
}

void GuestSpeakerState::leave() {
    phase_ = Phase::join;
    lostSince_.reset();
}

void GuestSpeakerState::hello() {
    if (!isIn()) return;
    lostSince_.reset();
    if (phase_ == Phase::reconnecting) phase_ = Phase::joining;
}

bool GuestSpeakerState::streamStarted(int sampleRate, int channels, int bitDepth) {
    if (!isIn()) return false;
    if (GuestSpeaker::plays(sampleRate, channels, bitDepth)) {
        phase_ = Phase::playing;
        lostSince_.reset();
        return true;
    }
    phase_ = Phase::unsupported;
    return false;
}

void GuestSpeakerState::streamEnded() {
    if (phase_ == Phase::joining || phase_ == Phase::playing) phase_ = Phase::paused;
}

void GuestSpeakerState::idle() {
    if (phase_ == Phase::joining) phase_ = Phase::paused;
}

bool GuestSpeakerState::lost(std::optional<int> closeCode, std::optional<std::string_view> status,
                             double at) {
    if (!isIn()) return false;
    if (closeCode == GuestLink::closeRemoved || status == "removed") {
        phase_ = Phase::removed;
        return false;
    }
    if (closeCode == GuestLink::closeFull || status == "full") {
        phase_ = Phase::full;
        return false;
    }
    if (!lostSince_) lostSince_ = at;
    if (at - *lostSince_ < GuestSpeaker::patience) {
        phase_ = Phase::reconnecting;
        return true;
    }
    phase_ = Phase::join;
    return false;
}

std::optional<GuestLink> HostSpeaker::link(const std::optional<std::string>& guestLink, bool isDemo,
                                           bool alreadyPlaying, bool listening) {
    if (!guestLink || isDemo || alreadyPlaying || listening) return std::nullopt;
    return GuestLink::fromJoinURL(*guestLink);
}

std::optional<remote::RowInfo> HostSpeaker::row(const std::vector<remote::RowInfo>& rows,
                                                std::string_view clientID) {
    for (const auto& r : rows) {
        if (r.kind == Kind::guest && r.guestID == clientID) return r;
    }
    return std::nullopt;
}

std::string HostSpeaker::name(std::string_view deviceName, std::string_view model) {
    const std::string trimmed = guestDisplayName(deviceName);
    // guestDisplayName falls back to "Guest"; here an empty name is the phone itself.
    const std::string_view bare =
        deviceName.find_first_not_of(" \t\r\n\v\f") == std::string_view::npos
            ? std::string_view{}
            : std::string_view(trimmed);
    if (bare.empty() || bare == model) return kThisPhone;
    return std::string(bare);
}

bool HostSpeaker::endsWith(RemoteEnd end, bool speakerIn) {
    return !(end == RemoteEnd::lost && speakerIn);
}

std::optional<std::string> HostSpeaker::endedReason(GuestSpeakerState::Phase phase) {
    using Phase = GuestSpeakerState::Phase;
    switch (phase) {
        case Phase::join:
            return "Lost the computer, so this iPhone stopped playing.";
        case Phase::removed:
            return "The computer removed this iPhone as a speaker.";
        case Phase::full:
            return "The computer has 12 phones playing already.";
        case Phase::unsupported:
            return "The computer sent audio this iPhone can\u2019t play.";
        default:
            return std::nullopt;
    }
}

std::vector<remote::RowInfo> GuestTiming::untimed(const std::vector<remote::RowInfo>& rows) {
    std::vector<remote::RowInfo> out;
    for (const auto& r : rows) {
        if (r.kind == Kind::guest && r.notTimed && r.audible && !r.disabled) out.push_back(r);
    }
    return out;
}

std::vector<remote::RowInfo> GuestTiming::offered(const std::vector<remote::RowInfo>& rows,
                                                  const Dismissed& dismissed) {
    std::vector<remote::RowInfo> out;
    for (const auto& r : untimed(rows)) {
        auto it = dismissed.find(Key{r.name, r.kind});
        if (it == dismissed.end() || it->second <= 0) out.push_back(r);
    }
    return out;
}

GuestTiming::Dismissed GuestTiming::dismissing(const std::vector<remote::RowInfo>& rows,
                                               Dismissed dismissed) {
    for (const auto& r : offered(rows, dismissed)) ++dismissed[Key{r.name, r.kind}];
    return dismissed;
}

GuestTiming::Dismissed GuestTiming::pruned(const Dismissed& dismissed,
                                           const std::vector<remote::RowInfo>& rows) {
    Dismissed out;
    for (const auto& entry : dismissed) {
        const Key& key = entry.first;
        const bool present = std::any_of(rows.begin(), rows.end(), [&](const auto& r) {
            return r.name == key.name && r.kind == key.kind;
        });
        if (present) out[key] = entry.second;
    }
    return out;
}

std::string GuestTiming::banner(int count, bool thisPhone) {
    if (thisPhone && count <= 0) return "Time this iPhone?";
    if (!thisPhone) {
        if (count == 1) return "1 new guest. Time it?";
        return std::to_string(count) + " new guests. Time them?";
    }
    if (count == 1) return "This iPhone and 1 new guest. Time them?";
    return "This iPhone and " + std::to_string(count) + " new guests. Time them?";
}

std::vector<GuestTiming::SyncPass> GuestTiming::passes(const std::vector<int>& slots,
                                                       std::optional<int> reference,
                                                       bool phoneKnown) {
    std::vector<SyncPass> out;
    if (!phoneKnown && reference) out.push_back(SyncPass{*reference, MeasureRole::reference});
    for (int slot : slots) {
        if (reference && slot == *reference) continue;
        out.push_back(SyncPass{slot, MeasureRole::target});
    }
    return out;
}

bool GuestTiming::movesOn(MeasureRole role, bool hasNextPass) {
    return role == MeasureRole::target && hasNextPass;
}

}  // namespace vt::guests
