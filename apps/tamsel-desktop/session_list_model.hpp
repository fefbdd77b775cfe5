#pragma once
// The sidebar's sessions: sessions not yet created by the engine first, then the engine's
// sessions newest first, each marked when a reply runs in it or it finished unread; filtered by
// a search over titles. Follows the controller's sidebar and reply parts by change.
#include <QString>

#include "keyed_list_model.hpp"
#include "tamsel/base/signal.hpp"

namespace tamsel::desktop {
class DaemonChatViewModel;
}

namespace tamsel::desktopui {

class SessionListModel final : public KeyedListModel {
  Q_OBJECT
 public:
  enum Role { IdRole = Qt::UserRole + 1, RunningRole, UnreadRole };

  explicit SessionListModel(desktop::DaemonChatViewModel& vm, QObject* parent = nullptr);
  ~SessionListModel() override;

  QVariant data(const QModelIndex& index, int role) const override;
  void setFilter(const QString& text);
  void refresh();
  int rowOf(const std::string& id) const;

 Q_SIGNALS:
  // After every refresh, once all its row insertions and removals are done.
  void rowsSynced();

 private:
  struct Row {
    std::string id;
    QString title;
    bool running = false, unread = false, pending = false;
  };
  desktop::DaemonChatViewModel& vm_;
  QString filter_;
  std::vector<Row> rows_;
  base::Signal<>::Connection sidebarConnection_, repliesConnection_;
};

}  // namespace tamsel::desktopui
