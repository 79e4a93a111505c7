// The application without a window: the model on an EventLoop until SIGINT
// or SIGTERM.
#pragma once

namespace vt::app {

int runHeadless();

}  // namespace vt::app
