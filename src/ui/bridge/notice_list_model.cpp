#include "ui/bridge/notice_list_model.h"

#include <QString>
#include <algorithm>

namespace vt::ui {

namespace {

QString text(const std::string& s) {
    return QString::fromStdString(s);
}

const char* toneName(model::Notice::Tone tone) {
    switch (tone) {
        case model::Notice::Tone::fault:
            return "fault";
        case model::Notice::Tone::good:
            return "good";
        case model::Notice::Tone::warn:
            break;
    }
    return "warn";
}

}  // namespace

int NoticeListModel::rowCount(const QModelIndex& parent) const {
    return parent.isValid() ? 0 : int(notices_.size());
}

QVariant NoticeListModel::data(const QModelIndex& index, int role) const {
    if (!index.isValid() || index.row() < 0 || index.row() >= int(notices_.size())) return {};
    const model::Notice& n = notices_[size_t(index.row())];
    switch (role) {
        case IdRole:
            return text(n.id);
        case TitleRole:
            return text(n.title);
        case LineRole:
            return text(n.line);
        case WhyRole:
            return text(n.why.value_or(""));
        case PrimaryRole:
            return text(n.primary);
        case SecondaryRole:
            return text(n.secondary.value_or(""));
        case ToneRole:
            return QString::fromLatin1(toneName(n.tone));
        default:
            return {};
    }
}

QHash<int, QByteArray> NoticeListModel::roleNames() const {
    return {{IdRole, "noticeId"}, {TitleRole, "title"},     {LineRole, "line"},
            {WhyRole, "why"},     {PrimaryRole, "primary"}, {SecondaryRole, "secondary"},
            {ToneRole, "tone"}};
}

void NoticeListModel::sync(std::vector<model::Notice> next) {
    replaceEntries(notices_, std::move(next),
                   [](const model::Notice& a, const model::Notice& b) { return a.id == b.id; });
}

}  // namespace vt::ui
