// The desktop window's transcript under load, on Qt's offscreen platform: a 10,000-message
// session to first paint and its memory, frame and typing latency while a reply streams at 200
// tokens a second, and memory after 10 and after 1,000 streamed replies. The transcript list
// (model, delegate, view) is the window's own; the messages stand in for the controller's.
#include <malloc.h>
#include <sys/resource.h>

#include <QApplication>
#include <QElapsedTimer>
#include <QKeyEvent>
#include <QListView>
#include <QTimer>
#include <algorithm>
#include <cstdio>
#include <fstream>
#include <vector>

#include "composer.hpp"
#include "message_delegate.hpp"
#include "qt_main_executor.hpp"
#include "tamsel/desktop/chat/chat_parts.hpp"
#include "transcript_model.hpp"
#include "transcript_view.hpp"

using namespace tamsel;

namespace {

// Resident memory, after handing freed heap pages back, so the figure is what is in use.
double residentMB() {
  malloc_trim(0);
  std::ifstream status("/proc/self/status");
  std::string line;
  while (std::getline(status, line))
    if (line.rfind("VmRSS:", 0) == 0) return std::stod(line.substr(6)) / 1024;
  return 0;
}

// Small blocks in use and the large ones malloc maps on their own.
double heapMB() {
  const auto info = mallinfo2();
  return static_cast<double>(info.uordblks + info.hblkhd) / 1048576.0;
}

double percentile(std::vector<double> values, double p) {
  if (values.empty()) return 0;
  std::sort(values.begin(), values.end());
  return values[std::min(values.size() - 1, static_cast<std::size_t>(p * values.size()))];
}

kit::Message message(int i) {
  kit::Message m;
  m.id = "m" + std::to_string(i);
  m.author = i % 2 ? "assistant" : "user";
  m.content = i % 2 ? "Here is what I found about item " + std::to_string(i) +
                          ":\n\n- the **first** point, with `code`\n- a second point that runs "
                          "long enough to wrap on a normal window width, as replies do\n\n"
                          "```\nlet x = " +
                          std::to_string(i) + ";\n```\n"
                    : "Question number " + std::to_string(i) + ", about the release plan?";
  if (i % 10 == 1) {
    m.toolBlock = kit::ToolBlockSnapshot{};
    kit::ToolEntrySnapshot tool;
    tool.id = "t" + std::to_string(i);
    tool.name = "bash";
    tool.status = kit::ToolRunStatus::completed;
    tool.args = "grep -rn item" + std::to_string(i) + " docs/";
    tool.preview = "docs/plan.md:12: item " + std::to_string(i);
    m.toolBlock->tools.push_back(tool);
  }
  if (i % 20 == 0) {
    kit::Attachment file;
    file.filename = "plan-" + std::to_string(i) + ".pdf";
    file.filePath = "/tmp/plan-" + std::to_string(i) + ".pdf";
    file.byteSize = 48213;
    m.attachments.push_back(file);
  }
  return m;
}

// The heap a list of messages holds: the records and the text they own.
std::size_t messageBytes(const std::vector<kit::Message>& messages) {
  std::size_t bytes = messages.capacity() * sizeof(kit::Message);
  const auto text = [](const std::string& s) { return s.capacity() > 15 ? s.capacity() + 1 : 0; };
  for (const auto& m : messages) {
    bytes += text(m.id) + text(m.author) + text(m.content);
    bytes += m.attachments.capacity() * sizeof(kit::Attachment);
    if (m.toolBlock) bytes += m.toolBlock->tools.capacity() * sizeof(kit::ToolEntrySnapshot);
  }
  return bytes;
}

class TimedListView final : public desktopui::TranscriptView {
 public:
  std::vector<double> paints;
  bool painted = false;

 protected:
  void paintEvent(QPaintEvent* event) override {
    QElapsedTimer timer;
    timer.start();
    desktopui::TranscriptView::paintEvent(event);
    paints.push_back(timer.nsecsElapsed() / 1e6);
    painted = true;
  }
};

struct Transcript {
  explicit Transcript(base::MainExecutor& main) : whole(main), part(main, whole) {}
  base::ChangePublisher whole;
  desktop::ChatPart<desktop::ChatTranscriptState> part;
};

struct View {
  explicit View(Transcript& t) : model(t.part) {
    list.setModel(&model);
    delegate = &list.messageDelegate();
    list.setVerticalScrollMode(QAbstractItemView::ScrollPerPixel);
    list.setLayoutMode(QListView::Batched);
    list.setBatchSize(200);
    list.setResizeMode(QListView::Adjust);
    list.resize(760, 600);
  }
  desktopui::TranscriptModel model;
  TimedListView list;
  desktopui::MessageDelegate* delegate;
};

void waitForPaint(TimedListView& list) {
  list.painted = false;
  while (!list.painted) QCoreApplication::processEvents(QEventLoop::AllEvents, 5);
}

void longSession(base::MainExecutor& main) {
  const double before = residentMB();
  Transcript t(main);
  QElapsedTimer timer;
  timer.start();
  {
    auto& state = t.part.edit();
    state.messages.reserve(10000);
    for (int i = 0; i < 10000; ++i) state.messages.push_back(message(i));
  }
  const double built = timer.nsecsElapsed() / 1e6;
  const double withMessages = residentMB();
  timer.restart();
  View view(t);
  view.list.show();
  view.list.scrollToBottom();
  waitForPaint(view.list);
  const double firstPaint = timer.nsecsElapsed() / 1e6;
  // Let the batched layout finish, then read memory as the user scrolls to the end.
  QElapsedTimer settle;
  settle.start();
  while (settle.elapsed() < 1500) QCoreApplication::processEvents(QEventLoop::AllEvents, 20);
  view.list.scrollToBottom();
  waitForPaint(view.list);
  std::printf(
      "10,000-message session: first paint %.1f ms after the view opens "
      "(messages built in %.1f ms, not counted)\n",
      firstPaint, built);
  std::printf(
      "  resident: %.1f MB before, %.1f MB with the messages, %.1f MB with the view "
      "settled (%d laid-out rows kept)\n",
      before, withMessages, residentMB(), view.delegate->cachedDocuments());
  // A row whose height changes (a reply growing by a line) makes the list ask every row's size.
  QElapsedTimer pass;
  pass.start();
  const QStyleOptionViewItem option;
  long long height = 0;
  for (int row = 0; row < view.model.rowCount(); ++row)
    height += view.delegate->sizeHint(option, view.model.index(row)).height();
  std::printf("  a layout pass over the 10,000 rows (each row's size asked once): %.1f ms%s\n",
              pass.nsecsElapsed() / 1e6, height > 0 ? "" : " (no height?)");
}

void streaming(base::MainExecutor& main) {
  Transcript t(main);
  for (int i = 0; i < 200; ++i) t.part.edit().messages.push_back(message(i));
  auto reply = message(201);
  reply.id = "stream-1";
  reply.content.clear();
  reply.toolBlock->tools.front().status = kit::ToolRunStatus::running;  // open while it runs
  t.part.edit().messages.push_back(reply);
  View view(t);
  view.list.show();
  view.list.scrollToBottom();
  waitForPaint(view.list);
  view.list.paints.clear();

  desktopui::Composer composer;
  composer.show();
  std::vector<double> keyLatency;
  struct KeyProbe : QObject {
    std::vector<double>* out;
    QElapsedTimer clock;
    qint64 sentAt = -1;
    bool eventFilter(QObject*, QEvent* e) override {
      if (e->type() == QEvent::KeyPress && sentAt >= 0) {
        out->push_back((clock.nsecsElapsed() - sentAt) / 1e6);
        sentAt = -1;
      }
      return false;
    }
  } probe;
  probe.out = &keyLatency;
  probe.clock.start();
  composer.installEventFilter(&probe);

  // 200 tokens a second for 5 s, each its own change; a key typed every 40 ms.
  int tokens = 0;
  QTimer tokenTimer, keyTimer;
  QObject::connect(&tokenTimer, &QTimer::timeout, [&] {
    t.part.edit().messages.back().content += (tokens % 12 == 11 ? "\n\n" : "word ");
    ++tokens;
  });
  QObject::connect(&keyTimer, &QTimer::timeout, [&] {
    probe.sentAt = probe.clock.nsecsElapsed();
    QCoreApplication::postEvent(
        &composer, new QKeyEvent(QEvent::KeyPress, Qt::Key_A, {}, QStringLiteral("a")));
    QCoreApplication::postEvent(
        &composer, new QKeyEvent(QEvent::KeyRelease, Qt::Key_A, {}, QStringLiteral("a")));
  });
  tokenTimer.setTimerType(Qt::PreciseTimer);
  tokenTimer.start(5);
  keyTimer.start(40);
  QElapsedTimer run;
  run.start();
  while (run.elapsed() < 5000) QCoreApplication::processEvents(QEventLoop::AllEvents, 5);
  tokenTimer.stop();
  keyTimer.stop();
  std::printf("streaming %d tokens in 5 s (one change each) into a 200-message session:\n", tokens);
  std::printf("  transcript frames painted %zu, paint time p50 %.2f ms, p99 %.2f ms, max %.2f ms\n",
              view.list.paints.size(), percentile(view.list.paints, 0.5),
              percentile(view.list.paints, 0.99), percentile(view.list.paints, 1.0));
  std::printf(
      "  a key typed in the composer meanwhile waited p50 %.2f ms, p99 %.2f ms (%zu keys)\n",
      percentile(keyLatency, 0.5), percentile(keyLatency, 0.99), keyLatency.size());
}

void manyReplies(base::MainExecutor& main) {
  Transcript t(main);
  View view(t);
  view.list.show();
  double after10 = 0;
  std::size_t messagesAt10 = 0;
  double heapAt10 = 0;
  for (int r = 1; r <= 1000; ++r) {
    auto user = message(2 * r);
    t.part.edit().messages.push_back(user);
    kit::Message reply;
    reply.id = "stream-" + std::to_string(r);
    reply.author = "assistant";
    t.part.edit().messages.push_back(reply);
    for (int k = 0; k < 10; ++k) {
      t.part.edit().messages.back().content += "streamed **word** ";
      QCoreApplication::processEvents();
    }
    // The finished reply is replaced by the one read back from the session file.
    t.part.edit().messages.back().id = "file-" + std::to_string(r);
    view.list.scrollToBottom();
    QCoreApplication::processEvents();
    if (r == 10) {
      after10 = residentMB();
      heapAt10 = heapMB();
      messagesAt10 = messageBytes(t.part->messages);
    }
  }
  waitForPaint(view.list);
  const double messages = (messageBytes(t.part->messages) - messagesAt10) / 1048576.0;
  const double after1000 = residentMB();
  std::printf(
      "memory after 10 streamed replies %.1f MB, after 1,000 %.1f MB: %.1f MB more, of which "
      "%.1f MB the 1,980 added messages themselves, %.1f MB the rest\n",
      after10, after1000, after1000 - after10, messages, after1000 - after10 - messages);
  std::printf(
      "  heap in use %.2f MB more: %.2f MB beyond the messages themselves, %.0f bytes a row "
      "(the list model's key takes %zu)\n",
      heapMB() - heapAt10, heapMB() - heapAt10 - messages,
      (heapMB() - heapAt10 - messages) * 1048576.0 / 1980, sizeof(desktopui::RowKey));
  std::printf(
      "  transcript then %d rows; laid-out rows kept %d (bound %d), measured heights kept %d "
      "(bound %d)\n",
      view.model.rowCount(), view.delegate->cachedDocuments(), view.delegate->documentBound(),
      view.delegate->cachedHeights(), desktopui::MessageDelegate::maxCachedHeights);
}

}  // namespace

int main(int argc, char** argv) {
  if (!qEnvironmentVariableIsSet("QT_QPA_PLATFORM")) qputenv("QT_QPA_PLATFORM", "offscreen");
  QApplication app(argc, argv);
  desktopui::QtMainExecutor main;
  longSession(main);
  streaming(main);
  manyReplies(main);
  return 0;
}
