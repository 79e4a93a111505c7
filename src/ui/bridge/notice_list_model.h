// The notices the window shows as cards, in the model's order. Cards are
// rebuilt only when the set of notices changes, so that a card keeps focus
// while its words are refreshed.
#pragma once

#include <vector>

#include "model/notice.h"
#include "ui/bridge/entry_list_model.h"

namespace vt::ui {

class NoticeListModel : public EntryListModel {
    Q_OBJECT

  public:
    enum Role {
        IdRole = Qt::UserRole + 1,
        TitleRole,
        LineRole,
        WhyRole,
        PrimaryRole,
        SecondaryRole,
        ToneRole,
    };

    explicit NoticeListModel(QObject* parent = nullptr) : EntryListModel(parent) {}

    int rowCount(const QModelIndex& parent = QModelIndex()) const override;
    QVariant data(const QModelIndex& index, int role) const override;
    QHash<int, QByteArray> roleNames() const override;

    const std::vector<model::Notice>& notices() const { return notices_; }
    void sync(std::vector<model::Notice> notices);

  private:
    std::vector<model::Notice> notices_;
};

}  // namespace vt::ui
