#include "airplay/pairing_lines.h"

#include <algorithm>
#include <cctype>

namespace vt::airplay {

namespace {

constexpr std::string_view credentialsMarker = "CREDENTIALS:";
constexpr std::string_view errorMarker = "[ERROR] ";

std::string lower(std::string_view text) {
    std::string out(text);
    std::transform(out.begin(), out.end(), out.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return out;
}

std::string trimmed(std::string_view text) {
    const size_t first = text.find_first_not_of(" \t\r\n");
    if (first == std::string_view::npos) return {};
    return std::string(text.substr(first, text.find_last_not_of(" \t\r\n") - first + 1));
}

bool contains(std::string_view text, std::string_view part) {
    return text.find(part) != std::string_view::npos;
}

}  // namespace

PairingOutLine readPairingOutLine(std::string_view line) {
    if (const size_t at = line.find(credentialsMarker); at != std::string_view::npos)
        return {PairingOutLine::Kind::credentials,
                trimmed(line.substr(at + credentialsMarker.size()))};
    const std::string folded = lower(line);
    if (contains(folded, "enter the pin") || contains(folded, "enter pin code"))
        return {PairingOutLine::Kind::prompt, {}};
    return {};
}

std::optional<std::string> readPairingErrLine(std::string_view line,
                                              const std::string& receiverName) {
    if (!contains(line, "[ERROR]") && !contains(line, "needs a literal")) return std::nullopt;
    std::string text(line);
    if (const size_t at = text.find(errorMarker); at != std::string::npos)
        text.erase(at, errorMarker.size());
    if (contains(text, "waiting for the PIN entry")) return std::nullopt;
    if (contains(text, "wrong PIN")) return "Wrong code — try again";
    if (contains(text, "403") || contains(text, "rejected"))
        return "\u2068" + receiverName +
               "\u2069 does not allow this computer. On it, open System Settings → General → "
               "AirDrop & Handoff → AirPlay Receiver and set “Allow AirPlay for” to “Anyone on "
               "the same network”.";
    return text;
}

std::string pinDigits(std::string_view typed) {
    std::string digits;
    for (char c : typed)
        if (c >= '0' && c <= '9') digits += c;
    return digits;
}

}  // namespace vt::airplay
