#include "airplay/receiver_traits.h"

#include <charconv>
#include <optional>

namespace vt::airplay {

namespace {

// Releases after these first follow a sender's clock rather than lead their
// own; the comparison is strict.
constexpr int lastLeadingOsVersion = 26;
constexpr int lastLeadingSourceVersion = 979;
constexpr unsigned long pinFlagsMask = 0x208;

std::string txt(const discovery::AirPlayReceiver& r, const char* key) {
    auto it = r.txt.find(key);
    return it == r.txt.end() ? std::string() : it->second;
}

std::string model(const discovery::AirPlayReceiver& r) {
    std::string m = txt(r, "model");
    return m.empty() ? txt(r, "am") : m;
}

bool startsWith(const std::string& s, const char* p) {
    return s.rfind(p, 0) == 0;
}

// The whole number before the first ".", if there is one.
std::optional<int> major(const std::string& version) {
    const std::string head = version.substr(0, version.find('.'));
    int value = 0;
    auto [end, error] = std::from_chars(head.data(), head.data() + head.size(), value);
    if (head.empty() || error != std::errc() || end != head.data() + head.size())
        return std::nullopt;
    return value;
}

}  // namespace

bool isAppleModel(const discovery::AirPlayReceiver& r) {
    const std::string m = model(r);
    for (const char* p : {"Mac", "AppleTV", "AudioAccessory", "iPhone", "iPad"})
        if (startsWith(m, p)) return true;
    return false;
}

bool leadsOwnGroup(const discovery::AirPlayReceiver& r) {
    if (!isAppleModel(r)) return false;
    return txt(r, "igl") == "1" || txt(r, "gcgl") == "1" ||
           txt(r, "gid").find('+') != std::string::npos;
}

bool followsReceiverClock(const discovery::AirPlayReceiver& r) {
    const auto os = major(txt(r, "osvers"));
    const auto src = major(txt(r, "srcvers"));
    const bool recent =
        (os && *os > lastLeadingOsVersion) || (src && *src > lastLeadingSourceVersion);
    if (!recent) return false;
    const std::string m = model(r);
    if (startsWith(m, "Mac") || startsWith(m, "iMac")) return true;
    if (startsWith(m, "AudioAccessory"))
        return txt(r, "igl") == "1" && !r.txt.count("pgid") && !r.txt.count("tsid");
    return false;
}

bool wantsPIN(const discovery::AirPlayReceiver& r) {
    const std::string pw = txt(r, "pw");
    if (pw == "true" || pw == "1") return true;
    std::string flags = txt(r, "flags");
    if (startsWith(flags, "0x") || startsWith(flags, "0X")) flags = flags.substr(2);
    unsigned long bits = 0;
    auto [end, error] = std::from_chars(flags.data(), flags.data() + flags.size(), bits, 16);
    if (!flags.empty() && error == std::errc() && end == flags.data() + flags.size() &&
        (bits & pinFlagsMask))
        return true;
    return startsWith(model(r), "AppleTV");
}

}  // namespace vt::airplay
