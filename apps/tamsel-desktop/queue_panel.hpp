#pragma once
// The messages typed while a reply runs, shown under the transcript: edit one in place (F2 or a
// double click), retract it (Delete), or send everything now (cancels the running reply).
#include <QWidget>

#include "keyed_list_model.hpp"
#include "tamsel/base/signal.hpp"

class QListView;
class QPushButton;

namespace tamsel::desktop {
class DaemonChatViewModel;
}

namespace tamsel::desktopui {

class QueueModel final : public KeyedListModel {
  Q_OBJECT
 public:
  explicit QueueModel(desktop::DaemonChatViewModel& vm, QObject* parent = nullptr);
  QVariant data(const QModelIndex& index, int role) const override;
  bool setData(const QModelIndex& index, const QVariant& value, int role) override;
  Qt::ItemFlags flags(const QModelIndex& index) const override;
  void refresh();
  std::string idAt(int row) const;

 private:
  desktop::DaemonChatViewModel& vm_;
  std::vector<std::string> texts_;
  // The names of each queued message's attached files, shown under its text.
  std::vector<std::string> files_;
};

class QueuePanel final : public QWidget {
  Q_OBJECT
 public:
  explicit QueuePanel(desktop::DaemonChatViewModel& vm, QWidget* parent = nullptr);
  ~QueuePanel() override;
  QueueModel& model() { return *model_; }
  QListView* list() const { return list_; }

 public Q_SLOTS:
  void retractSelected();
  void editSelected();
  // Asks the window to stop the reply and send the queue with what is typed.
  void sendNow() { Q_EMIT sendNowRequested(); }

 Q_SIGNALS:
  void sendNowRequested();

 private:
  void refresh();
  desktop::DaemonChatViewModel& vm_;
  QueueModel* model_;
  QListView* list_;
  QPushButton* sendNow_;
  base::Signal<>::Connection queueConnection_, transcriptConnection_;
};

}  // namespace tamsel::desktopui
