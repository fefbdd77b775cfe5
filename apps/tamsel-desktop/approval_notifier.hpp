#pragma once
// Desktop notifications (org.freedesktop.Notifications over D-Bus) for approvals that arrive while
// the window is not in front, with the approval's choices as action buttons: a choice answers the
// approval as the card would; the notification closes when the approval is answered anywhere.
// Without a notification server nothing is shown and nothing fails (the card is still there).
#include <QDBusConnection>
#include <QObject>
#include <functional>
#include <map>
#include <string>

#include "tamsel/base/signal.hpp"

namespace tamsel::desktop {
class DaemonChatViewModel;
}

namespace tamsel::desktopui {

class ApprovalNotifier final : public QObject {
  Q_OBJECT
 public:
  // `shouldNotify` says whether the user would miss a card now (the window is not active).
  ApprovalNotifier(desktop::DaemonChatViewModel& vm, QDBusConnection bus,
                   std::function<bool()> shouldNotify, QObject* parent = nullptr);
  ~ApprovalNotifier() override;

  // Notifications shown and not yet closed, by request id.
  std::size_t openCount() const { return byRequest_.size(); }

 private Q_SLOTS:
  void onActionInvoked(uint id, const QString& action);
  void onClosed(uint id, uint reason);

 private:
  void refresh();
  void show(const std::string& requestID);
  void close(const std::string& requestID);

  desktop::DaemonChatViewModel& vm_;
  QDBusConnection bus_;
  std::function<bool()> shouldNotify_;
  base::Signal<>::Connection connection_;
  std::map<std::string, uint> byRequest_;
  std::map<std::string, bool> seen_;  // requests already considered, shown or not
};

}  // namespace tamsel::desktopui
