// Reading the control tool's arguments: whole numbers, numbers in a range,
// on and off. Nothing is accepted that is not exactly that.
#pragma once

#include <optional>
#include <string>

namespace vt::ctl {

std::optional<int> parseSlot(const std::string& text);
// A finite number within [lower, upper].
std::optional<double> parseNumber(const std::string& text, double lower, double upper);
// "on"/"off" (also "true"/"false", "1"/"0", "yes"/"no").
std::optional<bool> parseSwitch(const std::string& text);

}  // namespace vt::ctl
