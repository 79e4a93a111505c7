// Which equaliser a screen edits: one row's, or the master shared by all rows.
#pragma once

#include <cstddef>
#include <optional>

namespace vt::equaliser {

class EQTarget {
  public:
    static EQTarget row(std::size_t index) { return EQTarget(index); }
    static EQTarget master() { return EQTarget(std::nullopt); }

    bool isMaster() const { return !row_.has_value(); }
    // The row's index, or nothing for the master.
    std::optional<std::size_t> rowIndex() const { return row_; }

    bool operator==(const EQTarget&) const = default;

  private:
    explicit EQTarget(std::optional<std::size_t> row) : row_(row) {}
    std::optional<std::size_t> row_;
};

}  // namespace vt::equaliser
