// Protocol versions the phone and the computer exchange in their handshake.
#pragma once

namespace vt::remote {

inline constexpr int remoteProtocolVersion = 3;
inline constexpr int remoteProtocolMinimum = 2;

namespace RemoteVersion {
// The first version with the challenge handshake.
inline constexpr int handshake = 2;
// The first version in which a phone may send setRowEQPreset.
inline constexpr int rowEQPresets = 3;
}  // namespace RemoteVersion

}  // namespace vt::remote
