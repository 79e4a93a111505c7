// What the window's list models share: a `count` for QML, and replacing the
// entries so that delegates stand still. When the same items stay in the same
// order (a row, a notice, a strip, told apart by the caller's `sameItem`),
// only the entries whose values changed are announced, so a strip under the
// pointer or the keyboard keeps its place and focus while its values move;
// any other change resets the list.
#pragma once

#include <QAbstractListModel>
#include <algorithm>
#include <utility>
#include <vector>

namespace vt::ui {

class EntryListModel : public QAbstractListModel {
    Q_OBJECT
    Q_PROPERTY(int count READ count NOTIFY countChanged)

  public:
    using QAbstractListModel::QAbstractListModel;

    int count() const { return rowCount(); }

  signals:
    void countChanged();

  protected:
    template <typename Entry, typename SameItem>
    void replaceEntries(std::vector<Entry>& entries, std::vector<Entry> next, SameItem sameItem) {
        const bool sameItems = next.size() == entries.size() &&
                               std::equal(next.begin(), next.end(), entries.begin(), sameItem);
        if (!sameItems) {
            const bool countMoved = next.size() != entries.size();
            beginResetModel();
            entries = std::move(next);
            endResetModel();
            if (countMoved) emit countChanged();
            return;
        }
        for (size_t i = 0; i < next.size(); ++i) {
            if (next[i] == entries[i]) continue;
            entries[i] = std::move(next[i]);
            emit dataChanged(index(int(i)), index(int(i)));
        }
    }
};

}  // namespace vt::ui
