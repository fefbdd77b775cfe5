#include "composer.hpp"

#include <QDir>
#include <QDragEnterEvent>
#include <QDropEvent>
#include <QFileDialog>
#include <QFileInfo>
#include <QHBoxLayout>
#include <QKeyEvent>
#include <QLabel>
#include <QLocale>
#include <QMimeData>
#include <QMimeDatabase>
#include <QPushButton>
#include <QToolButton>
#include <QVBoxLayout>

#include "tamsel/base/uuid.hpp"
#include "tamsel/desktop/daemon_chat_view_model.hpp"

namespace tamsel::desktopui {

namespace {

// Dropped or pasted content that names files on this computer: attached, not inserted as text.
// Links alone (from a browser) are still pasted as text.
bool offersFiles(const QMimeData* data) {
  if (!data || !data->hasUrls()) return false;
  for (const auto& url : data->urls())
    if (url.isLocalFile()) return true;
  return false;
}

// The types the engine shows to the model as pictures; other images go as plain files.
bool isEngineImage(const QString& mime) {
  return mime == QLatin1String("image/png") || mime == QLatin1String("image/jpeg") ||
         mime == QLatin1String("image/gif") || mime == QLatin1String("image/webp");
}

}  // namespace

Composer::Composer(QWidget* parent) : QPlainTextEdit(parent) {
  setAccessibleName(tr("Message"));
  setAccessibleDescription(
      tr("Enter sends, Shift+Enter starts a new line, Ctrl+Enter adds it to the running reply; "
         "drop files here to attach them"));
  setPlaceholderText(tr("Message the agent — Enter to send, Shift+Enter for a new line"));
  setTabChangesFocus(true);
  setMaximumHeight(160);
}

void Composer::keyPressEvent(QKeyEvent* event) {
  const bool enter = event->key() == Qt::Key_Return || event->key() == Qt::Key_Enter;
  if (enter && !(event->modifiers() & Qt::ShiftModifier)) {
    if (event->modifiers() & Qt::ControlModifier)
      Q_EMIT injectRequested();
    else
      Q_EMIT sendRequested();
    event->accept();
    return;
  }
  QPlainTextEdit::keyPressEvent(event);
}

void Composer::dragEnterEvent(QDragEnterEvent* event) {
  if (!offersFiles(event->mimeData())) return QPlainTextEdit::dragEnterEvent(event);
  event->setDropAction(Qt::CopyAction);
  event->accept();
}

void Composer::dragMoveEvent(QDragMoveEvent* event) {
  if (!offersFiles(event->mimeData())) return QPlainTextEdit::dragMoveEvent(event);
  event->setDropAction(Qt::CopyAction);
  event->accept();
}

void Composer::dropEvent(QDropEvent* event) {
  if (!offersFiles(event->mimeData())) return QPlainTextEdit::dropEvent(event);
  // Copy, never move: the file manager must not delete what was dropped.
  event->setDropAction(Qt::CopyAction);
  event->accept();
  Q_EMIT filesOffered(event->mimeData()->urls());
}

bool Composer::canInsertFromMimeData(const QMimeData* source) const {
  return offersFiles(source) || QPlainTextEdit::canInsertFromMimeData(source);
}

void Composer::insertFromMimeData(const QMimeData* source) {
  // Files copied in a file manager and pasted here.
  if (offersFiles(source)) {
    Q_EMIT filesOffered(source->urls());
    return;
  }
  QPlainTextEdit::insertFromMimeData(source);
}

// ---------------------------------------------------------------- attachments

std::variant<kit::Attachment, QString> attachmentForFile(const QString& path) {
  const QFileInfo info(path);
  const QString name = info.fileName().isEmpty() ? path : info.fileName();
  if (!info.exists()) return QObject::tr("%1 was not found").arg(name);
  if (info.isDir()) return QObject::tr("%1 is a folder: only files can be attached").arg(name);
  if (!info.isFile()) return QObject::tr("%1 is not a regular file").arg(name);
  if (!info.isReadable()) return QObject::tr("%1 cannot be read").arg(name);
  const auto mime = QMimeDatabase().mimeTypeForFile(info).name();
  kit::Attachment a;
  a.id = base::newUUIDString();
  a.kind = isEngineImage(mime) ? kit::Attachment::Kind::image : kit::Attachment::Kind::fileRef;
  a.filename = name.toStdString();
  a.mimeType = mime.toStdString();
  a.byteSize = info.size();
  a.filePath = info.absoluteFilePath().toStdString();
  return a;
}

QString attachmentSizeText(std::int64_t bytes) {
  return QLocale().formattedDataSize(bytes, 1, QLocale::DataSizeTraditionalFormat);
}

AttachmentTray::AttachmentTray(desktop::DaemonChatViewModel& chat, QWidget* parent)
    : QWidget(parent), chat_(chat), lastFolder_(QDir::homePath()) {
  setAccessibleName(tr("Attached files"));
  attach_ = new QPushButton(tr("Attach…"), this);
  attach_->setAccessibleName(tr("Attach files"));
  attach_->setToolTip(tr("Attach files to the message (Ctrl+O), or drop them on it"));
  chipRow_ = new QHBoxLayout;
  chipRow_->setContentsMargins(0, 0, 0, 0);
  note_ = new QLabel(this);
  note_->setAccessibleName(tr("Attachment note"));
  note_->setWordWrap(true);
  note_->setTextFormat(Qt::PlainText);
  note_->hide();
  auto* row = new QHBoxLayout;
  row->setContentsMargins(0, 0, 0, 0);
  row->addWidget(attach_);
  row->addLayout(chipRow_);
  row->addStretch();
  auto* column = new QVBoxLayout(this);
  column->setContentsMargins(0, 0, 0, 0);
  column->setSpacing(2);
  column->addLayout(row);
  column->addWidget(note_);
  connect(attach_, &QPushButton::clicked, this, &AttachmentTray::pickFiles);
  refresh();
}

QList<QWidget*> AttachmentTray::chips() const {
  QList<QWidget*> out;
  for (int i = 0; i < chipRow_->count(); ++i)
    if (auto* w = chipRow_->itemAt(i)->widget()) out << w;
  return out;
}

void AttachmentTray::refresh() {
  // A note is about the last files offered here, not about another session's.
  showNote({});
  while (auto* item = chipRow_->takeAt(0)) {
    delete item->widget();
    delete item;
  }
  for (const auto& a : chat_.composerAttachments()) {
    const auto name = QString::fromStdString(a.filename);
    const auto size = a.byteSize ? attachmentSizeText(*a.byteSize) : QString();
    auto* chip = new QFrame(this);
    chip->setObjectName(QString::fromStdString(a.id));
    chip->setFrameShape(QFrame::StyledPanel);
    chip->setAccessibleName(size.isEmpty() ? tr("Attached: %1").arg(name)
                                           : tr("Attached: %1, %2").arg(name, size));
    chip->setToolTip(QString::fromStdString(a.filePath.value_or(a.filename)));
    auto* label = new QLabel(size.isEmpty() ? name : tr("%1 (%2)").arg(name, size), chip);
    label->setTextFormat(Qt::PlainText);
    auto* remove = new QToolButton(chip);
    remove->setText(QStringLiteral("×"));
    remove->setAccessibleName(tr("Remove %1").arg(name));
    remove->setToolTip(tr("Remove %1 from the message").arg(name));
    remove->setAutoRaise(true);
    auto* layout = new QHBoxLayout(chip);
    layout->setContentsMargins(6, 1, 1, 1);
    layout->setSpacing(2);
    layout->addWidget(label);
    layout->addWidget(remove);
    const auto id = QString::fromStdString(a.id);
    connect(remove, &QToolButton::clicked, this, [this, id] { this->remove(id); });
    chipRow_->addWidget(chip);
  }
}

void AttachmentTray::addUrls(const QList<QUrl>& urls) {
  QStringList paths, problems;
  for (const auto& url : urls) {
    if (url.isLocalFile())
      paths << url.toLocalFile();
    else
      problems << tr("%1 is not on this computer: only local files can be attached")
                      .arg(url.toDisplayString());
  }
  addFiles(paths);
  if (!problems.isEmpty()) {
    if (!note_->text().isEmpty()) problems.prepend(note_->text());
    showNote(problems);
  }
}

void AttachmentTray::addFiles(const QStringList& paths) {
  auto attachments = chat_.composerAttachments();
  QStringList problems;
  bool added = false;
  for (const auto& path : paths) {
    auto made = attachmentForFile(path);
    if (auto* problem = std::get_if<QString>(&made)) {
      problems << *problem;
      continue;
    }
    auto& attachment = std::get<kit::Attachment>(made);
    const bool already = std::any_of(attachments.begin(), attachments.end(), [&](const auto& a) {
      return a.filePath == attachment.filePath;
    });
    if (already) continue;
    if (static_cast<int>(attachments.size()) >= maxAttachments) {
      problems << tr("At most %1 files can be attached to one message").arg(maxAttachments);
      break;
    }
    lastFolder_ = QFileInfo(path).absolutePath();
    attachments.push_back(std::move(attachment));
    added = true;
  }
  if (added) {
    chat_.setComposerAttachments(std::move(attachments));
    refresh();
    Q_EMIT attachmentsChanged();
  }
  showNote(problems);
}

void AttachmentTray::remove(const QString& id) {
  auto attachments = chat_.composerAttachments();
  const auto before = attachments.size();
  std::erase_if(attachments, [&](const kit::Attachment& a) { return a.id == id.toStdString(); });
  if (attachments.size() == before) return;
  chat_.setComposerAttachments(std::move(attachments));
  refresh();
  Q_EMIT attachmentsChanged();
}

void AttachmentTray::pickFiles() {
  // Opened, not exec'd: the window keeps running (replies keep streaming) while it is up.
  auto* dialog = new QFileDialog(window(), tr("Attach files"), lastFolder_);
  dialog->setAttribute(Qt::WA_DeleteOnClose);
  dialog->setFileMode(QFileDialog::ExistingFiles);
  dialog->setAccessibleName(tr("Attach files"));
  connect(dialog, &QFileDialog::filesSelected, this, &AttachmentTray::addFiles);
  dialog->open();
}

void AttachmentTray::showNote(const QStringList& problems) {
  note_->setText(problems.join(QLatin1Char('\n')));
  note_->setVisible(!problems.isEmpty());
}

}  // namespace tamsel::desktopui
