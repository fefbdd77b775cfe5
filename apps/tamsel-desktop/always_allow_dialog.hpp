#pragma once
// The tools the agents may use without asking ("Always allow"), each with Revoke, and Revoke
// all after a confirmation. A view over the core's AlwaysAllowList: it reads the list again when
// it opens and shows the controller's errors in place.
#include <QDialog>
#include <functional>
#include <vector>

#include "tamsel/base/signal.hpp"

class QLabel;
class QPushButton;
class QVBoxLayout;

namespace tamsel::desktop {
class AlwaysAllowList;
}

namespace tamsel::desktopui {

class AlwaysAllowDialog final : public QDialog {
  Q_OBJECT
 public:
  // The list must outlive the dialog.
  explicit AlwaysAllowDialog(desktop::AlwaysAllowList& list, QWidget* parent = nullptr);
  ~AlwaysAllowDialog() override;

  // Asked before everything is revoked; a message box unless replaced (tests).
  std::function<bool(QWidget* parent)> confirmRevokeAll;

  // The Revoke button of a tool's row, or null.
  QPushButton* revokeButton(const QString& tool) const;
  QPushButton& revokeAllButton() { return *revokeAll_; }
  QLabel& errorLabel() { return *error_; }
  QLabel& emptyLabel() { return *empty_; }
  QStringList shownTools() const;

 private:
  void refresh();
  void askRevokeAll();

  desktop::AlwaysAllowList& list_;
  base::Signal<>::Connection connection_;
  QVBoxLayout* rowsLayout_;
  std::vector<std::pair<QString, QWidget*>> rows_;
  QLabel* empty_;
  QLabel* error_;
  QPushButton* revokeAll_;
  QPushButton* reload_;
};

}  // namespace tamsel::desktopui
