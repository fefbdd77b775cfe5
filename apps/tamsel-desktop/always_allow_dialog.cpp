#include "always_allow_dialog.hpp"

#include <QDialogButtonBox>
#include <QHBoxLayout>
#include <QLabel>
#include <QMessageBox>
#include <QPushButton>
#include <QScrollArea>
#include <QVBoxLayout>

#include "tamsel/desktop/always_allow_list.hpp"

namespace tamsel::desktopui {

AlwaysAllowDialog::AlwaysAllowDialog(desktop::AlwaysAllowList& list, QWidget* parent)
    : QDialog(parent), list_(list) {
  setWindowTitle(tr("Always allowed tools"));
  setAccessibleName(tr("Always allowed tools"));
  confirmRevokeAll = [](QWidget* parent) {
    return QMessageBox::question(parent, tr("Revoke all"),
                                 tr("Revoke every always-allowed tool? The agents will ask "
                                    "again before using any of them."),
                                 QMessageBox::Yes | QMessageBox::Cancel,
                                 QMessageBox::Cancel) == QMessageBox::Yes;
  };

  auto* intro = new QLabel(
      tr("The agents use these tools without asking. Revoke one to be asked again."), this);
  intro->setWordWrap(true);
  auto* rows = new QWidget(this);
  rowsLayout_ = new QVBoxLayout(rows);
  rowsLayout_->setContentsMargins(0, 0, 0, 0);
  empty_ = new QLabel(tr("No tool is always allowed."), rows);
  empty_->setAccessibleName(tr("No tool is always allowed."));
  rowsLayout_->addWidget(empty_);
  rowsLayout_->addStretch();
  auto* scroll = new QScrollArea(this);
  scroll->setWidget(rows);
  scroll->setWidgetResizable(true);
  scroll->setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
  scroll->setAccessibleName(tr("Always allowed tools"));
  scroll->setMinimumHeight(160);

  error_ = new QLabel(this);
  error_->setAccessibleName(tr("Error"));
  error_->setWordWrap(true);
  error_->setTextFormat(Qt::PlainText);
  error_->hide();

  revokeAll_ = new QPushButton(tr("Revoke &all"), this);
  revokeAll_->setAccessibleName(tr("Revoke all always-allowed tools"));
  // Enter never revokes: only a deliberate press does.
  revokeAll_->setAutoDefault(false);
  reload_ = new QPushButton(tr("&Reload"), this);
  reload_->setAutoDefault(false);
  reload_->setAccessibleName(tr("Read the list again"));
  auto* buttons = new QDialogButtonBox(QDialogButtonBox::Close, this);
  buttons->button(QDialogButtonBox::Close)->setAccessibleName(tr("Close the always-allowed tools"));
  buttons->addButton(revokeAll_, QDialogButtonBox::ActionRole);
  buttons->addButton(reload_, QDialogButtonBox::ActionRole);
  connect(buttons, &QDialogButtonBox::rejected, this, &QDialog::reject);
  connect(revokeAll_, &QPushButton::clicked, this, &AlwaysAllowDialog::askRevokeAll);
  connect(reload_, &QPushButton::clicked, this, [this] { list_.refresh(); });

  auto* column = new QVBoxLayout(this);
  column->addWidget(intro);
  column->addWidget(scroll, 1);
  column->addWidget(error_);
  column->addWidget(buttons);
  resize(420, 320);

  connection_ = list_.changed().connect([this] { refresh(); });
  refresh();
  list_.refresh();
}

AlwaysAllowDialog::~AlwaysAllowDialog() { list_.changed().disconnect(connection_); }

QPushButton* AlwaysAllowDialog::revokeButton(const QString& tool) const {
  for (const auto& [name, row] : rows_)
    if (name == tool) return row->findChild<QPushButton*>();
  return nullptr;
}

QStringList AlwaysAllowDialog::shownTools() const {
  QStringList tools;
  for (const auto& [name, row] : rows_) tools << name;
  return tools;
}

void AlwaysAllowDialog::refresh() {
  const auto& state = list_.state();
  QStringList tools;
  for (const auto& t : state.tools) tools << QString::fromStdString(t);
  if (tools != shownTools()) {
    // Where the keyboard was, so it lands on the next row rather than nowhere after a revoke.
    int focusedRow = -1;
    for (std::size_t i = 0; i < rows_.size(); ++i)
      if (rows_[i].second->isAncestorOf(focusWidget())) focusedRow = static_cast<int>(i);
    for (auto& [name, row] : rows_) delete row;
    rows_.clear();
    for (const auto& tool : tools) {
      auto* row = new QWidget(rowsLayout_->parentWidget());
      auto* line = new QHBoxLayout(row);
      line->setContentsMargins(4, 2, 4, 2);
      auto* name = new QLabel(tool, row);
      name->setTextFormat(Qt::PlainText);
      auto* revoke = new QPushButton(tr("Revoke"), row);
      revoke->setAccessibleName(tr("Revoke %1").arg(tool));
      revoke->setToolTip(tr("Ask again before %1 runs").arg(tool));
      line->addWidget(name, 1);
      line->addWidget(revoke);
      connect(revoke, &QPushButton::clicked, this,
              [this, tool] { list_.revoke(tool.toStdString()); });
      rowsLayout_->insertWidget(rowsLayout_->count() - 1, row);
      rows_.emplace_back(tool, row);
    }
    if (focusedRow >= 0) {
      if (!rows_.empty())
        rows_[std::min<std::size_t>(focusedRow, rows_.size() - 1)]
            .second->findChild<QPushButton*>()
            ->setFocus();
      else
        reload_->setFocus();
    }
  }
  empty_->setVisible(state.loaded && tools.isEmpty());
  revokeAll_->setEnabled(!tools.isEmpty());
  error_->setText(state.error ? QString::fromStdString(*state.error) : QString());
  error_->setVisible(state.error.has_value());
}

void AlwaysAllowDialog::askRevokeAll() {
  if (list_.state().tools.empty()) return;
  if (confirmRevokeAll && confirmRevokeAll(this)) list_.revokeAll();
}

}  // namespace tamsel::desktopui
