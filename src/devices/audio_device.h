// A sound device as the rest of the program sees it (on Linux: a sink), and
// the rules for how it is shown: transport label, rate label, kind.
#pragma once

#include <optional>
#include <string>

#include "platform/audio_backend.h"

namespace vt::devices {

enum class DeviceKind { builtin, speaker, display, earbuds, headphones, interface };

std::string rawValue(DeviceKind kind);
std::optional<DeviceKind> deviceKindFromRaw(const std::string& raw);

// The capture device is a null sink the program loads itself; its UID is the
// sink name. Private mixer devices carry the mixer prefix in their UID.
inline constexpr const char* captureDeviceUID = "vellatone";
inline constexpr const char* captureDeviceName = "Vellatone";
inline constexpr const char* mixerDevicePrefix = "com.kessor.vellatone.mixer.";

// Transport codes: four characters, as the original platform spells them.
namespace transport {
inline constexpr const char* builtIn = "bltn";
inline constexpr const char* bluetooth = "blue";
inline constexpr const char* bluetoothLE = "blea";
inline constexpr const char* usb = "usb ";
inline constexpr const char* fireWire = "1394";
inline constexpr const char* pci = "pci ";
inline constexpr const char* thunderbolt = "thun";
inline constexpr const char* hdmi = "hdmi";
inline constexpr const char* displayPort = "dprt";
inline constexpr const char* airPlay = "airp";
inline constexpr const char* aggregate = "grup";
inline constexpr const char* virtualDevice = "virt";
inline constexpr const char* unknown = "";
}  // namespace transport

struct AudioDevice {
    platform::DeviceId id = platform::kNoDevice;
    std::string uid;
    std::string name;
    int outputChannels = 0;
    std::string transportType;  // one of the transport codes
    double sampleRate = 0;

    std::string transportLabel() const;
    std::string shownTransport() const;
    std::string rateLabel() const;
    std::string meta() const;
    DeviceKind kind() const;

    bool operator==(const AudioDevice&) const = default;
};

// "Built-in", "Bluetooth", ... "Audio" for a code not in the table.
std::string transportLabel(const std::string& code);
// The label as the user reads it.
std::string shownTransport(const std::string& label);
// "48 kHz", "44.1 kHz".
std::string rateLabel(double sampleRate);
DeviceKind kind(const std::string& transport, const std::string& name);

}  // namespace vt::devices
