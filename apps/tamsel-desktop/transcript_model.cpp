#include "transcript_model.hpp"

#include <QTextDocument>

#include "tamsel/kit/injected_message_prefix.hpp"

namespace tamsel::desktopui {

TranscriptModel::TranscriptModel(desktop::ChatPartView<desktop::ChatTranscriptState>& part,
                                 QObject* parent)
    : KeyedListModel(parent), part_(part) {
  connection_ = part_.changed().connect([this] { refresh(); });
  refresh();
}

TranscriptModel::~TranscriptModel() { part_.changed().disconnect(connection_); }

std::uint64_t TranscriptModel::fingerprint(const kit::Message& m) {
  auto hash = fingerprintOf(m.author);
  hash = fingerprintOf(m.content, hash);
  if (m.toolBlock)
    for (const auto& tool : m.toolBlock->tools) {
      hash = fingerprintOf(tool.name, hash);
      hash = fingerprintOf(kit::name(tool.status), hash);
      hash = fingerprintOf(tool.args.value_or(""), hash);
      hash = fingerprintOf(tool.preview.value_or(""), hash);
    }
  for (const auto& a : m.attachments) hash = fingerprintOf(a.filename, hash);
  return hash;
}

QStringList TranscriptModel::toolLines(const kit::Message& m) {
  QStringList lines;
  if (!m.toolBlock) return lines;
  for (const auto& tool : m.toolBlock->tools) {
    QString line = QString::fromStdString(tool.name);
    if (tool.args && !tool.args->empty())
      line += QStringLiteral(" ") + QString::fromStdString(*tool.args);
    line += QStringLiteral(" — ") + QString::fromUtf8(kit::name(tool.status));
    if (tool.isError) line += QStringLiteral(" (error)");
    lines << line;
  }
  return lines;
}

void TranscriptModel::refresh() {
  const auto& messages = part_->messages;
  std::vector<RowKey> next;
  next.reserve(messages.size());
  for (const auto& m : messages) next.push_back({m.id, fingerprint(m)});
  sync(std::move(next));
}

const kit::Message* TranscriptModel::messageAt(int row) const {
  const auto& messages = part_->messages;
  if (row < 0 || row >= rowCount() || static_cast<std::size_t>(row) >= messages.size())
    return nullptr;
  const auto& m = messages[static_cast<std::size_t>(row)];
  // Between a removal and an insertion the rows do not line up yet: show nothing for a moment.
  return m.id == keys()[static_cast<std::size_t>(row)].id ? &m : nullptr;
}

QVariant TranscriptModel::data(const QModelIndex& index, int role) const {
  const auto* m = messageAt(index.row());
  if (!m) return {};
  switch (role) {
    case IdRole:
      return QString::fromStdString(m->id);
    case AuthorRole:
      return QString::fromStdString(m->author);
    case MarkdownRole:
      return QString::fromStdString(kit::InjectedMessagePrefix::strip(m->content));
    case ToolLinesRole:
      return toolLines(*m);
    case FingerprintRole:
      return QVariant::fromValue<qulonglong>(
          keys()[static_cast<std::size_t>(index.row())].fingerprint);
    case Qt::DisplayRole:
    case Qt::AccessibleTextRole: {
      // Read out as text, without the Markdown's marks.
      QTextDocument document;
      document.setMarkdown(QString::fromStdString(kit::InjectedMessagePrefix::strip(m->content)));
      const QString who = m->author == "user" ? tr("You") : tr("Agent");
      QString text = who + QStringLiteral(": ") + document.toPlainText().trimmed();
      for (const auto& line : toolLines(*m)) text += QStringLiteral("\n") + tr("Tool: ") + line;
      return text;
    }
    default:
      return {};
  }
}

QHash<int, QByteArray> TranscriptModel::roleNames() const {
  auto names = KeyedListModel::roleNames();
  names[IdRole] = "id";
  names[AuthorRole] = "author";
  names[MarkdownRole] = "markdown";
  names[ToolLinesRole] = "toolLines";
  return names;
}

}  // namespace tamsel::desktopui
