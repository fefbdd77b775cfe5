#pragma once
// The visible session's messages as a list model over the chat controller's transcript part.
// Rows are keyed by message id; the model keeps only keys and fingerprints and reads the text
// from the controller when a row is shown, so a long session costs no second copy.
#include "keyed_list_model.hpp"
#include "tamsel/desktop/chat/chat_parts.hpp"

namespace tamsel::desktopui {

class TranscriptModel final : public KeyedListModel {
  Q_OBJECT
 public:
  enum Role {
    IdRole = Qt::UserRole + 1,
    AuthorRole,     // "user" or "assistant"
    MarkdownRole,   // the message's text as Markdown (an injected prefix removed)
    ToolLinesRole,  // QStringList: one line per tool of the reply, with its status
    FingerprintRole,
  };

  // The part must outlive the model.
  explicit TranscriptModel(desktop::ChatPartView<desktop::ChatTranscriptState>& part,
                           QObject* parent = nullptr);
  ~TranscriptModel() override;

  QVariant data(const QModelIndex& index, int role) const override;
  QHash<int, QByteArray> roleNames() const override;

  // Follows the part; called on its change, and by tests.
  void refresh();
  // The fingerprint of what a row shows.
  static std::uint64_t fingerprint(const kit::Message& message);
  static QStringList toolLines(const kit::Message& message);

 private:
  const kit::Message* messageAt(int row) const;
  desktop::ChatPartView<desktop::ChatTranscriptState>& part_;
  base::Signal<>::Connection connection_;
};

}  // namespace tamsel::desktopui
