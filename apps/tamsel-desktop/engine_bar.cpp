#include "engine_bar.hpp"

#include <QHBoxLayout>
#include <QLabel>
#include <QPlainTextEdit>
#include <QPushButton>
#include <QVBoxLayout>
#include <fstream>

#include "tamsel/desktop/daemon_manager.hpp"

namespace tamsel::desktopui {

using desktop::DaemonManager;

EngineBar::EngineBar(DaemonManager& manager, std::filesystem::path engineLog, QWidget* parent)
    : QWidget(parent), manager_(manager), engineLog_(std::move(engineLog)) {
  setAccessibleName(tr("Engine status"));
  state_ = new QLabel(this);
  state_->setAccessibleName(tr("Engine state"));
  state_->setTextInteractionFlags(Qt::TextSelectableByMouse | Qt::TextSelectableByKeyboard);
  retry_ = new QPushButton(tr("&Retry"), this);
  retry_->setAccessibleName(tr("Retry starting the engine"));
  retry_->setToolTip(tr("Start the engine again (Ctrl+R)"));
  why_ = new QPushButton(tr("&Why?"), this);
  why_->setAccessibleName(tr("Why the engine failed"));
  why_->setCheckable(true);
  auto* diagnostics = new QPushButton(tr("Diagnostics…"), this);
  diagnostics->setAccessibleName(tr("Export diagnostics to a file"));
  diagnostics->setToolTip(tr("Versions, paths and the engine's output in one file (Ctrl+Shift+D)"));
  connect(diagnostics, &QPushButton::clicked, this, &EngineBar::diagnosticsRequested);
  details_ = new QPlainTextEdit(this);
  details_->setReadOnly(true);
  details_->setAccessibleName(tr("Engine failure details"));
  details_->setMaximumHeight(140);
  details_->hide();

  auto* row = new QHBoxLayout;
  row->setContentsMargins(0, 0, 0, 0);
  row->addWidget(state_, 1);
  row->addWidget(diagnostics);
  row->addWidget(why_);
  row->addWidget(retry_);
  auto* column = new QVBoxLayout(this);
  column->setContentsMargins(8, 4, 8, 4);
  column->addLayout(row);
  column->addWidget(details_);

  connect(retry_, &QPushButton::clicked, this, &EngineBar::retry);
  connect(why_, &QPushButton::toggled, this, [this](bool on) {
    details_->setPlainText(failureDetails());
    details_->setVisible(on);
  });
  connection_ = manager_.changed().connect([this] { refresh(); });
  refresh();
}

EngineBar::~EngineBar() { manager_.changed().disconnect(connection_); }

QString EngineBar::stateText() const { return state_->text(); }

void EngineBar::retry() {
  if (manager_.isBootstrapping()) return;
  if (manager_.state().kind == DaemonManager::State::Kind::running)
    manager_.restart();
  else
    manager_.start();
}

QString EngineBar::tailOf(const std::string& path, int lines) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return {};
  in.seekg(0, std::ios::end);
  const std::streamoff size = in.tellg();
  const std::streamoff from = std::max<std::streamoff>(0, size - 16 * 1024);
  in.seekg(from);
  std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  auto all = QString::fromUtf8(text).split(QLatin1Char('\n'));
  while (!all.isEmpty() && all.back().trimmed().isEmpty()) all.removeLast();
  // A cut first line is not shown.
  if (from > 0 && !all.isEmpty()) all.removeFirst();
  return all.mid(std::max<qsizetype>(0, all.size() - lines)).join(QLatin1Char('\n'));
}

QString EngineBar::failureDetails() const {
  const auto& state = manager_.state();
  using Kind = DaemonManager::State::Kind;
  if (state.kind == Kind::running || state.kind == Kind::starting) return {};
  QStringList out;
  if (const auto& exit = manager_.lastExit())
    out << tr("The engine %1.").arg(QString::fromStdString(exit->describe()));
  if (const auto& path = manager_.enginePath()) {
    QString command = QString::fromStdString(path->string());
    for (const auto& argument : manager_.lastLaunchArguments())
      command += QLatin1Char(' ') + QString::fromStdString(argument);
    out << tr("Command: %1").arg(command);
  } else if (state.kind == Kind::notInstalled) {
    out << tr("No engine executable was found (set VERD_BINARY, or install the engine).");
  }
  if (const auto tail = tailOf(engineLog_.string(), 12); !tail.isEmpty())
    out << tr("Last output (%1):").arg(QString::fromStdString(engineLog_.string())) << tail;
  return out.join(QLatin1Char('\n'));
}

void EngineBar::refresh() {
  const auto& state = manager_.state();
  using Kind = DaemonManager::State::Kind;
  state_->setText(QString::fromStdString(state.displayText()));
  const bool trouble = state.kind == Kind::failed || state.kind == Kind::notInstalled ||
                       (state.kind == Kind::unknown && manager_.hasGivenUp());
  retry_->setVisible(trouble);
  why_->setVisible(trouble);
  if (!trouble) {
    why_->setChecked(false);
    details_->hide();
  } else if (details_->isVisible()) {
    details_->setPlainText(failureDetails());
  }
  QPalette palette = this->palette();
  palette.setColor(QPalette::Window, trouble                       ? QColor(0xfd, 0xe8, 0xe8)
                                     : state.kind == Kind::running ? QColor(0xe8, 0xf5, 0xe9)
                                                                   : QColor(0xff, 0xf8, 0xe1));
  setAutoFillBackground(true);
  setPalette(palette);
}

}  // namespace tamsel::desktopui
