#pragma once
// The approval and question cards of the chat controller, in place above the composer. Cards
// are kept by request id: a new request adds its card, an answered one goes, and the others stay
// as they are (focus and a half-typed answer are not lost).
#include <QWidget>
#include <map>
#include <string>

#include "tamsel/base/signal.hpp"

class QVBoxLayout;

namespace tamsel::desktop {
class DaemonChatViewModel;
}

namespace tamsel::desktopui {

class RequestCards final : public QWidget {
  Q_OBJECT
 public:
  explicit RequestCards(desktop::DaemonChatViewModel& vm, QWidget* parent = nullptr);
  ~RequestCards() override;

  int cardCount() const { return static_cast<int>(cards_.size()); }
  // The card of the oldest waiting request, for keyboard answers; null when none waits.
  QWidget* firstCard() const;

 private:
  void refresh();
  // Marks the cards of requests waiting in a session other than the visible one.
  void markElsewhere();
  QWidget* approvalCard(const std::string& requestID);
  QWidget* questionCard(const std::string& requestID);

  desktop::DaemonChatViewModel& vm_;
  base::Signal<>::Connection connection_, transcriptConnection_;
  struct Elsewhere {
    std::string sessionKey;
    QWidget* line;
  };
  std::map<std::string, Elsewhere> elsewhere_;  // by request id
  QVBoxLayout* layout_;
  std::map<std::string, QWidget*> cards_;
};

}  // namespace tamsel::desktopui
