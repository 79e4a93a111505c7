#include "ui/automation/automation_commands.h"

#include <array>

namespace vt::ui {

namespace {

constexpr std::array<std::string_view, 10> kCommands = {"find",  "click", "set",  "type",  "key",
                                                        "focus", "rows",  "grab", "names", "drag"};

bool needsName(std::string_view cmd) {
    return cmd == "find" || cmd == "click" || cmd == "set" || cmd == "focus" || cmd == "drag";
}

std::optional<std::string> stringField(const nlohmann::json& j, const char* key) {
    auto it = j.find(key);
    if (it == j.end() || !it->is_string()) return std::nullopt;
    return it->get<std::string>();
}

}  // namespace

nlohmann::json automationError(const std::string& why) {
    return nlohmann::json{{"ok", false}, {"error", why}};
}

ParsedCommand parseAutomationLine(std::string_view line) {
    if (line.size() > maxAutomationLine) return {std::nullopt, "the line is too long"};
    nlohmann::json j = nlohmann::json::parse(line, nullptr, false);
    if (j.is_discarded() || !j.is_object()) return {std::nullopt, "not a JSON object"};
    AutomationCommand c;
    auto cmd = stringField(j, "cmd");
    if (!cmd) return {std::nullopt, "no \"cmd\""};
    bool known = false;
    for (std::string_view k : kCommands) known = known || k == *cmd;
    if (!known) return {std::nullopt, "unknown command " + *cmd};
    c.cmd = *cmd;
    c.name = stringField(j, "name").value_or("");
    if (needsName(c.cmd) && c.name.empty()) return {std::nullopt, c.cmd + " needs a \"name\""};
    c.text = stringField(j, "text").value_or("");
    if ((c.cmd == "type" || c.cmd == "key") && c.text.empty())
        return {std::nullopt, c.cmd + " needs a \"text\""};
    c.path = stringField(j, "path").value_or("");
    if (c.cmd == "grab" && c.path.empty()) return {std::nullopt, "grab needs a \"path\""};
    c.to = stringField(j, "to").value_or("");
    if (c.cmd == "drag" && c.to.empty()) return {std::nullopt, "drag needs a \"to\""};
    if (auto it = j.find("value"); it != j.end()) c.value = *it;
    if (c.cmd == "set" && !(c.value.is_number() || c.value.is_boolean() || c.value.is_string()))
        return {std::nullopt, "set needs a number, boolean or string \"value\""};
    return {std::move(c), {}};
}

}  // namespace vt::ui
