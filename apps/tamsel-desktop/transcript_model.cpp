#include "transcript_model.hpp"

#include <QLocale>
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
  for (const auto& a : m.attachments) {
    hash = fingerprintOf(a.filename, hash);
    hash = fingerprintOf(a.filePath.value_or(""), hash);
    hash = fingerprintOf(std::to_string(a.byteSize.value_or(-1)), hash);
  }
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

QString TranscriptModel::toolSummary(const kit::Message& m) {
  if (!m.toolBlock || m.toolBlock->tools.empty()) return {};
  const auto& tools = m.toolBlock->tools;
  if (tools.size() == 1) return toolLines(m).front();
  QStringList names;
  int running = 0, denied = 0, errors = 0;
  for (const auto& tool : tools) {
    const auto name = QString::fromStdString(tool.name);
    if (!names.contains(name)) names << name;
    running += tool.status == kit::ToolRunStatus::running;
    denied += tool.status == kit::ToolRunStatus::denied;
    errors += tool.isError;
  }
  QStringList state;
  if (running) state << tr("%1 running").arg(running);
  if (denied) state << tr("%1 denied").arg(denied);
  if (errors) state << tr("%1 failed").arg(errors);
  if (state.isEmpty()) state << QStringLiteral("completed");
  return tr("%1 tools: %2 — %3")
      .arg(tools.size())
      .arg(names.join(QStringLiteral(", ")), state.join(QStringLiteral(", ")));
}

QString TranscriptModel::formatSize(std::int64_t bytes) {
  if (bytes < 0) return {};
  return QLocale().formattedDataSize(bytes, 1, QLocale::DataSizeTraditionalFormat);
}

bool TranscriptModel::toolsExpanded(const kit::Message& m) const {
  if (!m.toolBlock || m.toolBlock->tools.empty()) return false;
  if (!toolChoices_.empty())
    if (auto it = toolChoices_.find(m.id); it != toolChoices_.end()) return it->second;
  for (const auto& tool : m.toolBlock->tools)
    if (tool.status == kit::ToolRunStatus::running) return true;
  return false;
}

bool TranscriptModel::toolsExpanded(int row) const {
  const auto* m = messageAt(row);
  return m && toolsExpanded(*m);
}

void TranscriptModel::setToolsExpanded(int row, bool expanded) {
  const auto* m = messageAt(row);
  if (!m || !m->toolBlock || toolsExpanded(*m) == expanded) return;
  toolChoices_[m->id] = expanded;
  refresh();  // the row's fingerprint moves: one dataChanged, its height is measured again
}

void TranscriptModel::toggleTools(int row) { setToolsExpanded(row, !toolsExpanded(row)); }

std::optional<TranscriptModel::RowFacts> TranscriptModel::rowFacts(int row) const {
  const auto* m = messageAt(row);
  if (!m) return std::nullopt;
  RowFacts facts;
  facts.idHash = fingerprintOf(m->id);
  facts.fingerprint = keys()[static_cast<std::size_t>(row)].fingerprint;
  facts.tools = m->toolBlock && !m->toolBlock->tools.empty();
  facts.toolsExpanded = facts.tools && toolsExpanded(*m);
  if (facts.toolsExpanded)
    for (const auto& tool : m->toolBlock->tools)
      facts.toolLines += tool.preview && !tool.preview->empty() ? 2 : 1;
  facts.attachments = static_cast<int>(m->attachments.size());
  return facts;
}

int TranscriptModel::estimatedTextLines(int row, int charactersPerLine) const {
  const auto* m = messageAt(row);
  if (!m) return 1;
  const std::size_t perLine = static_cast<std::size_t>(std::max(1, charactersPerLine));
  std::string_view text = m->content;
  if (text.starts_with(kit::InjectedMessagePrefix::text))
    text.remove_prefix(kit::InjectedMessagePrefix::text.size());
  int lines = 0;
  std::size_t characters = 0;  // in the current paragraph; UTF-8 continuation bytes not counted
  for (char c : text) {
    if (c == '\n') {
      lines += 1 + static_cast<int>(characters / perLine);
      characters = 0;
    } else if ((static_cast<unsigned char>(c) & 0xC0) != 0x80) {
      ++characters;
    }
  }
  return lines + 1 + static_cast<int>(characters / perLine);
}

void TranscriptModel::refresh() {
  const auto& messages = part_->messages;
  std::vector<RowKey> next;
  next.reserve(messages.size());
  std::size_t chosen = 0;
  for (const auto& m : messages) {
    auto hash = fingerprint(m);
    if (m.toolBlock) {
      hash = fingerprintOf(toolsExpanded(m) ? "+" : "-", hash);
      chosen += !toolChoices_.empty() && toolChoices_.contains(m.id);
    }
    next.push_back({m.id, hash});
  }
  // Choices for messages no longer shown (another session, a streamed row replaced) go.
  if (chosen < toolChoices_.size())
    std::erase_if(toolChoices_, [&](const auto& choice) {
      return std::none_of(messages.begin(), messages.end(),
                          [&](const kit::Message& m) { return m.id == choice.first; });
    });
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
    case ToolSummaryRole:
      return toolSummary(*m);
    case ToolsExpandedRole:
      return toolsExpanded(*m);
    case ToolPreviewsRole: {
      QStringList previews;
      if (m->toolBlock)
        for (const auto& tool : m->toolBlock->tools)
          previews << QString::fromStdString(tool.preview.value_or(""));
      return previews;
    }
    case AttachmentsRole: {
      QVariantList out;
      for (const auto& a : m->attachments) {
        QVariantMap chip;
        QString name = QString::fromStdString(a.filename);
        if (name.isEmpty() && a.filePath)
          name = QString::fromStdString(*a.filePath).section(u'/', -1);
        chip[QStringLiteral("name")] = name;
        chip[QStringLiteral("size")] = QVariant::fromValue<qlonglong>(a.byteSize.value_or(-1));
        chip[QStringLiteral("path")] = QString::fromStdString(a.filePath.value_or(""));
        chip[QStringLiteral("image")] = a.kind == kit::Attachment::Kind::image;
        out << chip;
      }
      return out;
    }
    case Qt::DisplayRole:
    case Qt::AccessibleTextRole: {
      // Read out as text, without the Markdown's marks.
      QTextDocument document;
      document.setMarkdown(QString::fromStdString(kit::InjectedMessagePrefix::strip(m->content)));
      const QString who = m->author == "user" ? tr("You") : tr("Agent");
      QString text = who + QStringLiteral(": ") + document.toPlainText().trimmed();
      if (m->toolBlock && !m->toolBlock->tools.empty()) {
        if (toolsExpanded(*m)) {
          text += QStringLiteral("\n") + tr("Tools, expanded:");
          for (const auto& line : toolLines(*m)) text += QStringLiteral("\n") + tr("Tool: ") + line;
        } else {
          text += QStringLiteral("\n") + tr("Tools, collapsed: ") + toolSummary(*m);
        }
      }
      for (const auto& a : m->attachments) {
        text += QStringLiteral("\n") + tr("Attachment: ") + QString::fromStdString(a.filename);
        if (a.byteSize) text += QStringLiteral(", ") + formatSize(*a.byteSize);
      }
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
  names[ToolSummaryRole] = "toolSummary";
  names[ToolsExpandedRole] = "toolsExpanded";
  names[AttachmentsRole] = "attachments";
  return names;
}

}  // namespace tamsel::desktopui
