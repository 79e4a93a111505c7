#include "airplay_tool/command_parser.h"

#include <algorithm>
#include <cctype>

namespace vt::airplay_tool {

std::string Command::field(const std::string& key) const {
    auto it = fields.find(key);
    return it == fields.end() ? std::string() : it->second;
}

std::vector<Command> CommandParser::feed(std::string_view bytes) {
    std::vector<Command> out;
    while (!bytes.empty()) {
        const size_t nl = bytes.find('\n');
        const std::string_view piece = bytes.substr(0, nl);
        if (!discardingLine_) {
            if (line_.size() + piece.size() > kMaxCommandLineBytes) {
                discardingLine_ = true;
                line_.clear();
            } else {
                line_.append(piece);
            }
        }
        if (nl == std::string_view::npos) break;
        if (!discardingLine_) takeLine(line_, out);
        line_.clear();
        discardingLine_ = false;
        bytes.remove_prefix(nl + 1);
    }
    return out;
}

void CommandParser::takeLine(std::string_view line, std::vector<Command>& out) {
    if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
    const size_t eq = line.find('=');
    if (eq == std::string_view::npos || eq == 0) return;
    std::string key(line.substr(0, eq));
    std::transform(key.begin(), key.end(), key.begin(),
                   [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
    std::string value(line.substr(eq + 1));
    if (key == "ACTION") {
        std::transform(value.begin(), value.end(), value.begin(),
                       [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
        if (!pendingOverflow_) {
            pending_.action = std::move(value);
            out.push_back(std::move(pending_));
        }
        pending_ = Command{};
        pendingOverflow_ = false;
        return;
    }
    if (pending_.fields.size() >= kMaxFieldsPerCommand && !pending_.fields.count(key)) {
        pendingOverflow_ = true;
        return;
    }
    pending_.fields[std::move(key)] = std::move(value);
}

}  // namespace vt::airplay_tool
