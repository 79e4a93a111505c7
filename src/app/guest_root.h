// Where the guest web page's files are: next to an installed program, in the
// source tree a built one came from, or $VELLATONE_GUEST_ROOT when set.
#pragma once

#include <filesystem>

namespace vt::app {

std::filesystem::path guestPageRoot();

}  // namespace vt::app
