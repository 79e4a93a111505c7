// Tolerant field readers: a field that is missing or of the wrong type reads as
// nothing, so that the caller keeps its default.
#pragma once

#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>

namespace vt::equaliser::json_read {

inline const nlohmann::json* field(const nlohmann::json& j, std::string_view key) {
    if (!j.is_object()) return nullptr;
    auto it = j.find(key);
    return it == j.end() ? nullptr : &*it;
}

inline std::optional<double> readNumber(const nlohmann::json& j, std::string_view key) {
    const nlohmann::json* f = field(j, key);
    if (!f || !f->is_number()) return std::nullopt;
    return f->get<double>();
}

inline std::optional<bool> readBool(const nlohmann::json& j, std::string_view key) {
    const nlohmann::json* f = field(j, key);
    if (!f || !f->is_boolean()) return std::nullopt;
    return f->get<bool>();
}

inline std::optional<std::string> readString(const nlohmann::json& j, std::string_view key) {
    const nlohmann::json* f = field(j, key);
    if (!f || !f->is_string()) return std::nullopt;
    return f->get<std::string>();
}

}  // namespace vt::equaliser::json_read
