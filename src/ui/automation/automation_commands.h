// The automation hook's words: one JSON object per line in, one per line out.
// Parsing and checking are kept apart from the Qt side so that bad input is
// turned into an error reply in one place.
#pragma once

#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>

namespace vt::ui {

struct AutomationCommand {
    std::string cmd;   // find, click, set, type, key, focus, rows, grab, names, drag
    std::string name;  // an objectName
    std::string to;    // for drag: the objectName of the item to drop on
    nlohmann::json value;
    std::string text;  // for type and key
    std::string path;  // for grab
};

// The longest line a client may send.
inline constexpr size_t maxAutomationLine = 64 * 1024;

// The command, or the sentence that goes back as the error.
struct ParsedCommand {
    std::optional<AutomationCommand> command;
    std::string error;
};
ParsedCommand parseAutomationLine(std::string_view line);

nlohmann::json automationError(const std::string& why);

}  // namespace vt::ui
