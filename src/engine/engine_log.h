// The engine's log lines, on standard error under one prefix. Main thread
// only: never from a stream callback.
#pragma once

#include <string>

namespace vt::engine {

void engineLog(const std::string& text);

}  // namespace vt::engine
