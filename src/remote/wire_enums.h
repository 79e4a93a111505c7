// The string enumerations of the remote messages.
#pragma once

#include <optional>
#include <string_view>

namespace vt::remote {

enum class MediaCommand { play, pause, togglePlayPause, next, previous, back15, forward15 };
enum class MeasureRole { reference, target };

std::string_view rawValue(MediaCommand c);
std::optional<MediaCommand> mediaCommandFromRaw(std::string_view raw);

std::string_view rawValue(MeasureRole r);
std::optional<MeasureRole> measureRoleFromRaw(std::string_view raw);

}  // namespace vt::remote
