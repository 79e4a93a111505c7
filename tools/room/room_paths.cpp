#include "room_paths.h"

#include <algorithm>
#include <cstdlib>
#include <sstream>

namespace vt::room {

namespace {

constexpr double kMaxDelayMs = 2000;
constexpr double kMaxGain = 10;

bool number(const std::string& text, double& out) {
    if (text.empty()) return false;
    char* end = nullptr;
    out = std::strtod(text.c_str(), &end);
    return end == text.c_str() + text.size();
}

}  // namespace

std::optional<std::vector<Path>> parsePaths(const std::string& words,
                                            const std::vector<std::string>& speakers,
                                            std::string& error) {
    std::vector<Path> paths;
    std::istringstream in(words);
    std::string word;
    while (in >> word) {
        const size_t eq = word.find('=');
        const std::string name = word.substr(0, eq);
        const auto it = std::find(speakers.begin(), speakers.end(), name);
        if (eq == std::string::npos || it == speakers.end()) {
            error = "not a speaker of this room: " + word;
            return std::nullopt;
        }
        std::istringstream list(word.substr(eq + 1));
        std::string item;
        while (std::getline(list, item, ',')) {
            const size_t at = item.find('@');
            double ms = 0, gain = 1;
            if (!number(item.substr(0, at), ms) || ms < 0 || ms > kMaxDelayMs ||
                (at != std::string::npos &&
                 (!number(item.substr(at + 1), gain) || gain < 0 || gain > kMaxGain))) {
                error = "not a path (MS[@GAIN]): " + item;
                return std::nullopt;
            }
            paths.push_back({static_cast<size_t>(it - speakers.begin()), ms / 1000.0,
                             static_cast<float>(gain)});
        }
    }
    return paths;
}

}  // namespace vt::room
