// The system output was given back: to which device, and whether because the
// last run ended without giving it back itself.
#pragma once

#include <string>

namespace vt::guard {

struct RestoredOutput {
    std::string name;  // the shown name of the sink given back
    bool afterCrash = false;

    bool operator==(const RestoredOutput&) const = default;
};

}  // namespace vt::guard
