#pragma once
// The message editor: Enter sends, Shift+Enter starts a new line, Ctrl+Enter adds the text to the
// running reply (inject). Multi-line plain text; the window keeps its text as the session's draft.
// Files dropped or pasted onto it are offered as attachments rather than inserted as text.
//
// The attachment tray beside it shows the files attached to the message being written, as
// removable chips, with an Attach button; it is a view over the chat controller's composer
// attachments (kept per session with the draft).
#include <QList>
#include <QPlainTextEdit>
#include <QString>
#include <QUrl>
#include <variant>

#include "tamsel/kit/transcript.hpp"

class QHBoxLayout;
class QLabel;
class QPushButton;

namespace tamsel::desktop {
class DaemonChatViewModel;
}

namespace tamsel::desktopui {

class Composer final : public QPlainTextEdit {
  Q_OBJECT
 public:
  explicit Composer(QWidget* parent = nullptr);

 Q_SIGNALS:
  void sendRequested();
  void injectRequested();
  // Files dropped or pasted here (at least one of the URLs is a local file).
  void filesOffered(const QList<QUrl>& urls);

 protected:
  void keyPressEvent(QKeyEvent* event) override;
  void dragEnterEvent(QDragEnterEvent* event) override;
  void dragMoveEvent(QDragMoveEvent* event) override;
  void dropEvent(QDropEvent* event) override;
  bool canInsertFromMimeData(const QMimeData* source) const override;
  void insertFromMimeData(const QMimeData* source) override;
};

// A local file as an attachment: its name, size and type (by name and content); images the
// engine can show travel as images, anything else as a file reference. A folder, a missing or
// unreadable file gives the reason instead, for the user.
std::variant<kit::Attachment, QString> attachmentForFile(const QString& path);
// "12 KB", "3.4 MB": a size as a chip shows it.
QString attachmentSizeText(std::int64_t bytes);

class AttachmentTray final : public QWidget {
  Q_OBJECT
 public:
  // At most this many files per message (the engine takes no more).
  static constexpr int maxAttachments = 20;

  // The controller must outlive the tray.
  explicit AttachmentTray(desktop::DaemonChatViewModel& chat, QWidget* parent = nullptr);

  // Shows the visible session's attachments again (after a switch of session or a send).
  void refresh();
  // Attaches what was dropped or pasted: local files; folders, other URLs and files that cannot
  // be read are refused with a note that says why.
  void addUrls(const QList<QUrl>& urls);
  void addFiles(const QStringList& paths);
  void remove(const QString& id);
  // Opens the file dialog (several files at once); the files chosen are attached.
  void pickFiles();

  QPushButton& attachButton() { return *attach_; }
  // The last note about files that were not attached (empty when there is none).
  QLabel& note() { return *note_; }
  // The chips shown, by attachment id.
  QList<QWidget*> chips() const;

 Q_SIGNALS:
  // The attachments changed here (added or removed).
  void attachmentsChanged();

 private:
  void showNote(const QStringList& problems);

  desktop::DaemonChatViewModel& chat_;
  QPushButton* attach_;
  QHBoxLayout* chipRow_;
  QLabel* note_;
  QString lastFolder_;
};

}  // namespace tamsel::desktopui
