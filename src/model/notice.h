// Something the user must know or do: a short card with a title, a line, an
// optional explanation and one or two buttons. The model derives the whole set
// afresh from its state; NoticeBoard only remembers when each one first
// appeared and which ones the user has put away.
#pragma once

#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace vt::model {

struct Notice {
    enum class Tone { fault = 0, warn = 1, good = 2 };

    std::string id;  // stable while the notice is called for
    std::string title;
    std::string line;
    std::optional<std::string> why;
    std::string primary;
    std::optional<std::string> secondary;
    Tone tone = Tone::warn;
    double since = 0;  // when it first appeared, on the main queue's clock

    bool operator==(const Notice&) const = default;
};

enum class NoticeButton { primary, secondary };

class NoticeBoard {
  public:
    // Stamps each notice with the time its id first appeared (now, for a new
    // one), forgets ids that are no longer called for (so a notice that
    // returns counts as new and shows again even if it was dismissed), and
    // returns the notices in the order they are shown: faults, then
    // warnings, then good news; the newer first within a tone; the order of
    // `all` after that. Dismissed ones are left out of the result.
    std::vector<Notice> update(std::vector<Notice> all, double now);

    void dismiss(const std::string& id) { dismissed_.insert(id); }
    bool isDismissed(const std::string& id) const { return dismissed_.contains(id); }
    std::optional<double> birth(const std::string& id) const;

  private:
    std::map<std::string, double> births_;
    std::set<std::string> dismissed_;
};

}  // namespace vt::model
