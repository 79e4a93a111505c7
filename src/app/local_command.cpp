#include "app/local_command.h"

#include <nlohmann/json.hpp>

namespace vt::app {

namespace {
constexpr const char* kPasswordKey = "airplayPassword";
// Longer than any receiver takes; a line over it is not a password.
constexpr size_t kMaxPasswordBytes = 256;
}  // namespace

std::string encodeLocalCommand(const PasswordCommand& command) {
    nlohmann::json j;
    j[kPasswordKey] = {{"slot", command.slot}, {"password", command.password}};
    return j.dump();
}

std::optional<PasswordCommand> decodeLocalCommand(std::string_view line) {
    const nlohmann::json j = nlohmann::json::parse(line, nullptr, false);
    if (!j.is_object() || j.size() != 1 || !j.contains(kPasswordKey)) return std::nullopt;
    const nlohmann::json& body = j[kPasswordKey];
    if (!body.is_object() || body.size() != 2) return std::nullopt;
    auto slot = body.find("slot");
    auto password = body.find("password");
    if (slot == body.end() || !slot->is_number_integer() || password == body.end() ||
        !password->is_string())
        return std::nullopt;
    const int64_t s = slot->get<int64_t>();
    std::string text = password->get<std::string>();
    if (s < 0 || s > INT32_MAX || text.size() > kMaxPasswordBytes) return std::nullopt;
    return PasswordCommand{static_cast<int>(s), std::move(text)};
}

}  // namespace vt::app
