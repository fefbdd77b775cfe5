#include "session_list_model.hpp"

#include <algorithm>

#include "tamsel/desktop/daemon_chat_view_model.hpp"
#include "tamsel/desktop/session_search.hpp"

namespace tamsel::desktopui {

SessionListModel::SessionListModel(desktop::DaemonChatViewModel& vm, desktop::SessionSearch* search,
                                   QObject* parent)
    : KeyedListModel(parent), vm_(vm), search_(search) {
  sidebarConnection_ = vm_.sidebar().changed().connect([this] { refresh(); });
  repliesConnection_ = vm_.replies().changed().connect([this] { refresh(); });
  if (search_) searchConnection_ = search_->changed().connect([this] { refresh(); });
  refresh();
}

SessionListModel::~SessionListModel() {
  vm_.sidebar().changed().disconnect(sidebarConnection_);
  vm_.replies().changed().disconnect(repliesConnection_);
  if (search_) search_->changed().disconnect(searchConnection_);
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
      rows.push_back(
          {p.id, title, {}, replies.runningPendingSessionIDs.count(p.id) > 0, false, true});
  }
  const auto titleOf = [this](const bridge::DaemonSession& s) {
    return s.title && !s.title->empty() ? QString::fromStdString(*s.title) : tr("Untitled session");
  };
  std::vector<const bridge::DaemonSession*> sessions;
  // The engine's answer joins the title matches only while it answers what the field holds.
  std::vector<bridge::DaemonSession> joined;
  if (search_ && !filter_.isEmpty() && search_->state().query == filter_.toStdString()) {
    std::vector<bridge::DaemonSession> titleMatches;
    for (const auto& s : sidebar.sessions)
      if (matches(titleOf(s))) titleMatches.push_back(s);
    joined = desktop::SessionSearch::joinWithListed(std::move(titleMatches), search_->state().found,
                                                    sidebar.selectedAgent);
    for (const auto& s : joined) sessions.push_back(&s);
  } else {
    for (const auto& s : sidebar.sessions)
      if (matches(titleOf(s))) sessions.push_back(&s);
    const auto when = [](const bridge::DaemonSession* s) {
      return s->updatedAt ? *s->updatedAt : s->createdAt.value_or(kit::Timestamp{});
    };
    std::stable_sort(sessions.begin(), sessions.end(),
                     [&](auto* a, auto* b) { return when(a) > when(b); });
  }
  for (const auto* s : sessions) {
    rows.push_back({s->id, titleOf(*s),
                    s->snippet ? QString::fromStdString(*s->snippet) : QString(),
                    replies.runningSessionIDs.count(s->id) > 0 || s->inProgress.value_or(false),
                    sidebar.completedUnreadSessions.count(s->id) > 0, false});
  }
  std::vector<RowKey> keys;
  for (const auto& r : rows) {
    auto hash = fingerprintOf(r.title.toStdString());
    hash = fingerprintOf(r.snippet.toStdString(), hash);
    hash = fingerprintOf(r.running ? "r" : "-", hash);
    hash = fingerprintOf(r.unread ? "u" : "-", hash);
    keys.push_back({r.id, hash});
  }
  Q_EMIT rowsAboutToSync();
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
      // The matching text on a line of its own, so a narrow sidebar still shows the match.
      return mark + r.title + (r.snippet.isEmpty() ? QString() : QStringLiteral("\n") + r.snippet);
    }
    case Qt::AccessibleTextRole:
      return r.title + (r.running ? tr(", reply running") : QString()) +
             (r.unread ? tr(", unread") : QString()) +
             (r.snippet.isEmpty() ? QString() : tr(", found in its messages: %1").arg(r.snippet));
    case Qt::ToolTipRole:
      return r.snippet.isEmpty() ? QString::fromStdString(r.id)
                                 : QString::fromStdString(r.id) + QStringLiteral("\n") + r.snippet;
    case SnippetRole:
      return r.snippet;
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
