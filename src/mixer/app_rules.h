// Who is who among the programs that play sound on Linux: the browsers (whose
// streams can be anything, so they belong to no automatic rule), the
// programs each automatic group holds by rule, and helper binaries that are
// one program's, so that they fold onto it. Ids are what the catalog makes
// of a stream: its application.id when set, else its process binary.
#pragma once

#include <optional>
#include <set>
#include <string>

namespace vt::mixer {

namespace Browsers {
const std::set<std::string>& ids();
// In the table, or one of its ids followed by "." (a browser's helper ids).
bool contains(const std::string& id);
}  // namespace Browsers

// The program a helper binary belongs to ("firefox-esr" -> "firefox"); none
// for a binary that is its own program.
std::optional<std::string> programOfHelper(const std::string& binary);

namespace rules {
const std::set<std::string>& notifications();
const std::set<std::string>& music();
const std::set<std::string>& calls();
}  // namespace rules

}  // namespace vt::mixer
