// The headless program's account of notices: one line on standard error for
// each notice when it appears, and again if it goes and comes back.
#pragma once

#include <set>
#include <string>
#include <vector>

#include "model/notice.h"

namespace vt::app {

class NoticeLog {
  public:
    // The lines for the notices that were not there at the last call:
    // "notice <id>: <title> <line>".
    std::vector<std::string> newLines(const std::vector<model::Notice>& now);

  private:
    std::set<std::string> present_;
};

}  // namespace vt::app
