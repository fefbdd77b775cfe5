#include "queue_panel.hpp"

#include <QAction>
#include <QHBoxLayout>
#include <QLabel>
#include <QListView>
#include <QPushButton>
#include <QVBoxLayout>

#include "tamsel/desktop/daemon_chat_view_model.hpp"

namespace tamsel::desktopui {

QueueModel::QueueModel(desktop::DaemonChatViewModel& vm, QObject* parent)
    : KeyedListModel(parent), vm_(vm) {
  refresh();
}

void QueueModel::refresh() {
  const auto drafts = vm_.queuedDrafts();
  std::vector<RowKey> next;
  std::vector<std::string> texts, files;
  for (const auto& d : drafts) {
    std::string names;
    for (const auto& a : d.attachments) names += (names.empty() ? "" : ", ") + a.filename;
    next.push_back({d.id, fingerprintOf(names, fingerprintOf(d.text))});
    texts.push_back(d.text);
    files.push_back(std::move(names));
  }
  // The texts change before the rows are told, which is safe: each row reads its own text.
  texts_ = std::move(texts);
  files_ = std::move(files);
  sync(std::move(next));
}

std::string QueueModel::idAt(int row) const {
  return row >= 0 && row < rowCount() ? keys()[static_cast<std::size_t>(row)].id : std::string{};
}

QVariant QueueModel::data(const QModelIndex& index, int role) const {
  const auto row = static_cast<std::size_t>(index.row());
  if (!index.isValid() || row >= texts_.size()) return {};
  if (role == Qt::EditRole) return QString::fromStdString(texts_[row]);
  if (role == Qt::DisplayRole || role == Qt::AccessibleTextRole) {
    auto shown = QString::fromStdString(texts_[row]);
    if (!files_[row].empty())
      shown += (shown.isEmpty() ? QString() : QStringLiteral("\n")) +
               tr("Attached: %1").arg(QString::fromStdString(files_[row]));
    return shown;
  }
  return {};
}

bool QueueModel::setData(const QModelIndex& index, const QVariant& value, int role) {
  if (role != Qt::EditRole || !index.isValid()) return false;
  const auto text = value.toString().trimmed();
  // An edit that empties a queued message retracts it, unless files still go with it.
  if (text.isEmpty() && files_[static_cast<std::size_t>(index.row())].empty())
    vm_.retractQueuedDraft(idAt(index.row()));
  else
    vm_.editQueuedDraft(idAt(index.row()), text.toStdString());
  refresh();
  return true;
}

Qt::ItemFlags QueueModel::flags(const QModelIndex& index) const {
  return KeyedListModel::flags(index) | Qt::ItemIsEditable;
}

QueuePanel::QueuePanel(desktop::DaemonChatViewModel& vm, QWidget* parent)
    : QWidget(parent), vm_(vm) {
  setAccessibleName(tr("Queued messages"));
  model_ = new QueueModel(vm_, this);
  list_ = new QListView(this);
  list_->setModel(model_);
  list_->setAccessibleName(tr("Queued messages"));
  list_->setEditTriggers(QAbstractItemView::DoubleClicked | QAbstractItemView::EditKeyPressed);
  list_->setMaximumHeight(90);
  auto* title = new QLabel(tr("Queued — sent when the reply ends"), this);
  title->setAccessibleName(tr("Queue"));
  auto* edit = new QPushButton(tr("Edit"), this);
  edit->setAccessibleName(tr("Edit the selected queued message"));
  edit->setToolTip(tr("F2"));
  auto* retract = new QPushButton(tr("Retract"), this);
  retract->setAccessibleName(tr("Retract the selected queued message"));
  retract->setToolTip(tr("Delete"));
  sendNow_ = new QPushButton(tr("Send now"), this);
  sendNow_->setAccessibleName(tr("Stop the reply and send the queue now"));
  sendNow_->setToolTip(tr("Ctrl+Shift+Enter"));

  auto* retractKey = new QAction(this);
  retractKey->setShortcut(QKeySequence::Delete);
  retractKey->setShortcutContext(Qt::WidgetShortcut);
  list_->addAction(retractKey);
  connect(retractKey, &QAction::triggered, this, &QueuePanel::retractSelected);

  auto* buttons = new QHBoxLayout;
  buttons->addWidget(title, 1);
  buttons->addWidget(edit);
  buttons->addWidget(retract);
  buttons->addWidget(sendNow_);
  auto* column = new QVBoxLayout(this);
  column->setContentsMargins(0, 0, 0, 0);
  column->addLayout(buttons);
  column->addWidget(list_);

  connect(edit, &QPushButton::clicked, this, &QueuePanel::editSelected);
  connect(retract, &QPushButton::clicked, this, &QueuePanel::retractSelected);
  connect(sendNow_, &QPushButton::clicked, this, &QueuePanel::sendNow);
  queueConnection_ = vm_.queue().changed().connect([this] { refresh(); });
  transcriptConnection_ = vm_.transcript().changed().connect([this] { refresh(); });
  refresh();
}

QueuePanel::~QueuePanel() {
  vm_.queue().changed().disconnect(queueConnection_);
  vm_.transcript().changed().disconnect(transcriptConnection_);
}

void QueuePanel::refresh() {
  model_->refresh();
  setVisible(model_->rowCount() > 0);
}

void QueuePanel::retractSelected() {
  const auto index = list_->currentIndex();
  if (!index.isValid()) return;
  vm_.retractQueuedDraft(model_->idAt(index.row()));
  refresh();
}

void QueuePanel::editSelected() {
  auto index = list_->currentIndex();
  if (!index.isValid() && model_->rowCount() > 0) index = model_->index(0);
  if (!index.isValid()) return;
  list_->setCurrentIndex(index);
  list_->edit(index);
}

}  // namespace tamsel::desktopui
