// The command pipe's text: lines of KEY=VALUE, each batch ended by an
// ACTION= line that makes the tool act on what came before it. The parser
// only cuts and bounds; what an action means is the route's business.
#pragma once

#include <cstddef>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace vt::airplay_tool {

struct Command {
    std::string action;                         // upper-cased: START, STOP, SENDMETA, ...
    std::map<std::string, std::string> fields;  // the keys before it, last value wins
    std::string field(const std::string& key) const;
};

// Bounds on one writer's text, so a runaway writer cannot grow us without end.
// An inline ARTWORK= line (base64) is the longest a real caller sends.
inline constexpr size_t kMaxCommandLineBytes = 8 * 1024 * 1024;
inline constexpr size_t kMaxFieldsPerCommand = 64;

class CommandParser {
  public:
    // Returns the commands completed by these bytes. A line over the bound is
    // dropped whole, up to its line feed; so is a batch with too many keys.
    std::vector<Command> feed(std::string_view bytes);

  private:
    void takeLine(std::string_view line, std::vector<Command>& out);

    std::string line_;
    bool discardingLine_ = false;
    Command pending_;
    bool pendingOverflow_ = false;
};

}  // namespace vt::airplay_tool
