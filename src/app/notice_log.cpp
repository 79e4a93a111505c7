#include "app/notice_log.h"

namespace vt::app {

std::vector<std::string> NoticeLog::newLines(const std::vector<model::Notice>& now) {
    std::vector<std::string> lines;
    std::set<std::string> ids;
    for (const model::Notice& n : now) {
        ids.insert(n.id);
        if (!present_.contains(n.id))
            lines.push_back("notice " + n.id + ": " + n.title + " " + n.line);
    }
    present_ = std::move(ids);
    return lines;
}

}  // namespace vt::app
