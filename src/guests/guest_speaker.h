// The phone's side of being a guest speaker: when to retry a lost link and
// when to give up, what to tell its user, and which guest rows to offer for
// timing. No platform calls; the phone app and the web page follow the same
// rules.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "guests/guest_link.h"
#include "remote/row_info.h"

namespace vt::guests {

namespace GuestSpeaker {
// How long after the first loss the phone keeps trying to come back.
inline constexpr double patience = 15.0;
// With no stream this long after joining, the host is taken to be paused.
inline constexpr double idleAfter = 2.0;
// No frame for this long while playing counts as a lost link.
inline constexpr double silenceLimit = 4.0;

bool plays(int sampleRate, int channels, int bitDepth);
}  // namespace GuestSpeaker

class GuestSpeakerState {
  public:
    enum class Phase { join, joining, playing, paused, reconnecting, removed, full, unsupported };

    Phase phase() const { return phase_; }
    std::optional<double> lostSince() const { return lostSince_; }
    bool isIn() const;

    bool join();
    void leave();
    void hello();
    bool streamStarted(int sampleRate, int channels, int bitDepth);
    void streamEnded();
    void idle();
    // True: try again.
    bool lost(std::optional<int> closeCode, std::optional<std::string_view> status, double at);

  private:
    Phase phase_ = Phase::join;
    std::optional<double> lostSince_;
};

namespace HostSpeaker {

enum class RemoteEnd { left, lost };

std::optional<GuestLink> link(const std::optional<std::string>& guestLink, bool isDemo,
                              bool alreadyPlaying, bool listening);
std::optional<remote::RowInfo> row(const std::vector<remote::RowInfo>& rows,
                                   std::string_view clientID);
std::string name(std::string_view deviceName, std::string_view model);
bool endsWith(RemoteEnd end, bool speakerIn);
std::optional<std::string> endedReason(GuestSpeakerState::Phase phase);

}  // namespace HostSpeaker

enum class MeasureRole { reference, target };

namespace GuestTiming {

struct Key {
    std::string name;
    remote::RowInfo::Kind kind = remote::RowInfo::Kind::guest;
    auto operator<=>(const Key&) const = default;
};
using Dismissed = std::map<Key, int>;

struct SyncPass {
    int slot = -1;
    MeasureRole role = MeasureRole::target;
    bool operator==(const SyncPass&) const = default;
};

std::vector<remote::RowInfo> untimed(const std::vector<remote::RowInfo>& rows);
std::vector<remote::RowInfo> offered(const std::vector<remote::RowInfo>& rows,
                                     const Dismissed& dismissed);
Dismissed dismissing(const std::vector<remote::RowInfo>& rows, Dismissed dismissed);
Dismissed pruned(const Dismissed& dismissed, const std::vector<remote::RowInfo>& rows);
std::string banner(int count, bool thisPhone);
std::vector<SyncPass> passes(const std::vector<int>& slots, std::optional<int> reference,
                             bool phoneKnown);
bool movesOn(MeasureRole role, bool hasNextPass);

}  // namespace GuestTiming

}  // namespace vt::guests
