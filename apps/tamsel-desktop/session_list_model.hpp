#pragma once
// The sidebar's sessions: sessions not yet created by the engine first, then the engine's
// sessions newest first, each marked when a reply runs in it or it finished unread. A search
// filters them by title at once and, once the engine answers, adds the sessions found by the
// text of their messages (with the matching text). Follows the controller's sidebar and reply
// parts and the search by change.
#include <QString>

#include "keyed_list_model.hpp"
#include "tamsel/base/signal.hpp"

namespace tamsel::desktop {
class DaemonChatViewModel;
class SessionSearch;
}  // namespace tamsel::desktop

namespace tamsel::desktopui {

class SessionListModel final : public KeyedListModel {
  Q_OBJECT
 public:
  enum Role { IdRole = Qt::UserRole + 1, RunningRole, UnreadRole, SnippetRole };

  // `search` (optional) must outlive the model.
  explicit SessionListModel(desktop::DaemonChatViewModel& vm,
                            desktop::SessionSearch* search = nullptr, QObject* parent = nullptr);
  ~SessionListModel() override;

  QVariant data(const QModelIndex& index, int role) const override;
  void setFilter(const QString& text);
  void refresh();
  int rowOf(const std::string& id) const;

 Q_SIGNALS:
  // Around every refresh: before its first row insertion or removal, and once all are done.
  void rowsAboutToSync();
  void rowsSynced();

 private:
  struct Row {
    std::string id;
    QString title;
    QString snippet;  // the matching text of a session found by its messages
    bool running = false, unread = false, pending = false;
  };
  desktop::DaemonChatViewModel& vm_;
  desktop::SessionSearch* search_;
  QString filter_;
  std::vector<Row> rows_;
  base::Signal<>::Connection sidebarConnection_, repliesConnection_, searchConnection_{};
};

}  // namespace tamsel::desktopui
