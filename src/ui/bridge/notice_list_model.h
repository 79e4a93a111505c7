// The notices the window shows as cards, in the model's order. Cards are
// rebuilt only when the set of notices changes, so that a card keeps focus
// while its words are refreshed.
#pragma once

#include <QAbstractListModel>
#include <vector>

#include "model/notice.h"

namespace vt::ui {

class NoticeListModel : public QAbstractListModel {
    Q_OBJECT
    Q_PROPERTY(int count READ count NOTIFY countChanged)

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

    explicit NoticeListModel(QObject* parent = nullptr) : QAbstractListModel(parent) {}

    int rowCount(const QModelIndex& parent = QModelIndex()) const override;
    QVariant data(const QModelIndex& index, int role) const override;
    QHash<int, QByteArray> roleNames() const override;

    int count() const { return int(notices_.size()); }
    const std::vector<model::Notice>& notices() const { return notices_; }
    void sync(std::vector<model::Notice> notices);

  signals:
    void countChanged();

  private:
    std::vector<model::Notice> notices_;
};

}  // namespace vt::ui
