#pragma once
// The visible session's messages as a list model over the chat controller's transcript part.
// Rows are keyed by message id; the model keeps only keys and fingerprints and reads the text
// from the controller when a row is shown, so a long session costs no second copy.
#include <optional>
#include <unordered_map>

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
    ToolSummaryRole,    // the tool block's one-line header; empty without tools
    ToolsExpandedRole,  // bool: the tool block shows its lines
    ToolPreviewsRole,   // QStringList beside ToolLinesRole: each tool's output preview (may be
                        // empty)
    AttachmentsRole,    // QVariantList of QVariantMap {name, size (-1 unknown), path, image}
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
  // "bash ls -la — completed", or "3 tools: bash, grep, read — 1 running".
  static QString toolSummary(const kit::Message& message);
  static QString formatSize(std::int64_t bytes);

  // What the row's layout depends on, read without copying any text (the view asks for every
  // row when it lays the list out).
  struct RowFacts {
    std::uint64_t idHash = 0;  // fingerprintOf(id)
    std::uint64_t fingerprint = 0;
    bool tools = false;
    bool toolsExpanded = false;
    int toolLines = 0;  // lines shown under the header when open: tools and their previews
    int attachments = 0;
  };
  std::optional<RowFacts> rowFacts(int row) const;
  // Lines the row's text takes at `charactersPerLine`, counted on the text as stored (Markdown
  // marks included): an estimate for rows not laid out yet.
  int estimatedTextLines(int row, int charactersPerLine) const;

  // A tool block is open while a tool runs and closed once all finished, unless the user chose
  // otherwise; that choice is kept by message id, so a streaming update does not undo it.
  bool toolsExpanded(int row) const;
  void setToolsExpanded(int row, bool expanded);
  void toggleTools(int row);

 private:
  const kit::Message* messageAt(int row) const;
  bool toolsExpanded(const kit::Message& message) const;
  desktop::ChatPartView<desktop::ChatTranscriptState>& part_;
  base::Signal<>::Connection connection_;
  std::unordered_map<std::string, bool> toolChoices_;
};

}  // namespace tamsel::desktopui
