#include "session_list_model.hpp"

#include <algorithm>

#include "tamsel/desktop/daemon_chat_view_model.hpp"

namespace tamsel::desktopui {

SessionListModel::SessionListModel(desktop::DaemonChatViewModel& vm, QObject* parent)
    : KeyedListModel(parent), vm_(vm) {
  sidebarConnection_ = vm_.sidebar().changed().connect([this] { refresh(); });
  repliesConnection_ = vm_.replies().changed().connect([this] { refresh(); });
  refresh();
}

SessionListModel::~SessionListModel() {
  vm_.sidebar().changed().disconnect(sidebarConnection_);
  vm_.replies().changed().disconnect(repliesConnection_);
}

void SessionListModel::setFilter(const QString& text) {
  filter_ = text.trimmed();
  refresh();
}

void SessionListModel::refresh() {
  const auto& sidebar = vm_.sidebar().state();
  const auto& replies = vm_.replies().state();
  std::vector<Row> rows;
  const auto matches = [this](const QString& title) {
    return filter_.isEmpty() || title.contains(filter_, Qt::CaseInsensitive);
  };
  for (const auto& p : sidebar.pendingSessions) {
    const QString title = p.title ? QString::fromStdString(*p.title) : tr("New session");
    if (matches(title))
      rows.push_back({p.id, title, replies.runningPendingSessionIDs.count(p.id) > 0, false, true});
  }
  std::vector<const bridge::DaemonSession*> sessions;
  for (const auto& s : sidebar.sessions) sessions.push_back(&s);
  const auto when = [](const bridge::DaemonSession* s) {
    return s->updatedAt ? *s->updatedAt : s->createdAt.value_or(kit::Timestamp{});
  };
  std::stable_sort(sessions.begin(), sessions.end(),
                   [&](auto* a, auto* b) { return when(a) > when(b); });
  for (const auto* s : sessions) {
    const QString title =
        s->title && !s->title->empty() ? QString::fromStdString(*s->title) : tr("Untitled session");
    if (!matches(title)) continue;
    rows.push_back({s->id, title,
                    replies.runningSessionIDs.count(s->id) > 0 || s->inProgress.value_or(false),
                    sidebar.completedUnreadSessions.count(s->id) > 0, false});
  }
  std::vector<RowKey> keys;
  for (const auto& r : rows) {
    auto hash = fingerprintOf(r.title.toStdString());
    hash = fingerprintOf(r.running ? "r" : "-", hash);
    hash = fingerprintOf(r.unread ? "u" : "-", hash);
    keys.push_back({r.id, hash});
  }
  rows_ = std::move(rows);
  sync(std::move(keys));
  Q_EMIT rowsSynced();
}

int SessionListModel::rowOf(const std::string& id) const {
  for (std::size_t i = 0; i < rows_.size(); ++i)
    if (rows_[i].id == id) return static_cast<int>(i);
  return -1;
}

QVariant SessionListModel::data(const QModelIndex& index, int role) const {
  const auto row = static_cast<std::size_t>(index.row());
  if (!index.isValid() || row >= rows_.size()) return {};
  const auto& r = rows_[row];
  switch (role) {
    case Qt::DisplayRole: {
      QString mark = r.running ? QStringLiteral("● ") : r.unread ? QStringLiteral("◆ ") : QString();
      return mark + r.title;
    }
    case Qt::AccessibleTextRole:
      return r.title + (r.running ? tr(", reply running") : QString()) +
             (r.unread ? tr(", unread") : QString());
    case Qt::ToolTipRole:
      return QString::fromStdString(r.id);
    case IdRole:
      return QString::fromStdString(r.id);
    case RunningRole:
      return r.running;
    case UnreadRole:
      return r.unread;
    default:
      return {};
  }
}

}  // namespace tamsel::desktopui
