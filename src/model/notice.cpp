#include "model/notice.h"

#include <algorithm>

namespace vt::model {

std::vector<Notice> NoticeBoard::update(std::vector<Notice> all, double now) {
    std::set<std::string> present;
    for (Notice& n : all) {
        present.insert(n.id);
        auto [it, isNew] = births_.try_emplace(n.id, now);
        n.since = it->second;
    }
    std::erase_if(births_, [&](const auto& kv) { return !present.contains(kv.first); });
    std::erase_if(dismissed_, [&](const std::string& id) { return !present.contains(id); });

    std::vector<Notice> shown;
    for (Notice& n : all)
        if (!dismissed_.contains(n.id)) shown.push_back(std::move(n));
    std::stable_sort(shown.begin(), shown.end(), [](const Notice& a, const Notice& b) {
        if (a.tone != b.tone) return a.tone < b.tone;
        return a.since > b.since;
    });
    return shown;
}

std::optional<double> NoticeBoard::birth(const std::string& id) const {
    auto it = births_.find(id);
    if (it == births_.end()) return std::nullopt;
    return it->second;
}

}  // namespace vt::model
