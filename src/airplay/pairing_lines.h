// How the pairing tool's output is read: its prompt and its credentials on
// standard output, its complaints on standard error, turned into the words
// the pairing sheet shows. Pure, so every rule is tested on its own.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace vt::airplay {

struct PairingOutLine {
    enum class Kind { other, prompt, credentials };
    Kind kind = Kind::other;
    std::string credentials;  // trimmed, for Kind::credentials
};

PairingOutLine readPairingOutLine(std::string_view line);

// The words to show for a line of standard error, or nothing for a line
// that says nothing to the user. `receiverName` goes into the refusal.
std::optional<std::string> readPairingErrLine(std::string_view line,
                                              const std::string& receiverName);

// Only the digits of what was typed: "12 34" and "PIN: 1234" are "1234".
std::string pinDigits(std::string_view typed);

}  // namespace vt::airplay
