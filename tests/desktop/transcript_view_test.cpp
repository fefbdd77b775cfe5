// The transcript's rows as a user meets them, without an engine: tool blocks that open and close
// (by mouse and keys) and stay as chosen while the reply streams, code blocks copied one by one,
// file chips that open (or say why not), and memory that stays bounded as rows pile up.
#include "transcript_view.hpp"

#include <QAccessible>
#include <QClipboard>
#include <QMenu>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QtTest>
#include <boost/json/serialize.hpp>
#include <fstream>

#include "../unit/message_support.hpp"
#include "code_blocks.hpp"
#include "message_delegate.hpp"
#include "qt_main_executor.hpp"
#include "tamsel/bridge/session_history.hpp"
#include "tamsel/desktop/chat/chat_parts.hpp"
#include "transcript_model.hpp"

using namespace tamsel;
using desktopui::FencedCodeBlock;
using desktopui::MessageDelegate;
using desktopui::TranscriptModel;
using desktopui::TranscriptView;

namespace {

using test::message;

kit::ToolEntrySnapshot tool(std::string id, std::string name, kit::ToolRunStatus status,
                            std::string args, std::string preview = {}) {
  kit::ToolEntrySnapshot t;
  t.id = std::move(id);
  t.name = std::move(name);
  t.status = status;
  t.args = std::move(args);
  if (!preview.empty()) t.preview = std::move(preview);
  return t;
}

// A transcript part the test edits as the controller does, and the window's list over it.
struct Transcript {
  explicit Transcript(std::vector<kit::Message> messages, QSize size = {640, 480})
      : whole(main), part(main, whole) {
    part.edit().messages = std::move(messages);
    model = std::make_unique<TranscriptModel>(part);
    view.setModel(model.get());
    view.setVerticalScrollMode(QAbstractItemView::ScrollPerPixel);
    view.setResizeMode(QListView::Adjust);
    view.resize(size);
    view.show();
  }
  ~Transcript() { view.setModel(nullptr); }
  MessageDelegate& delegate() { return view.messageDelegate(); }
  QModelIndex at(int row) { return model->index(row); }
  QRect rect(int row) { return view.visualRect(at(row)); }
  // Lets queued height corrections and relayouts finish.
  void settle() {
    for (int i = 0; i < 5; ++i) {
      QCoreApplication::processEvents();
      QTest::qWait(20);
    }
  }
  void click(QPoint point, Qt::MouseButton button = Qt::LeftButton) {
    QTest::mouseClick(view.viewport(), button, {}, point);
  }

  desktopui::QtMainExecutor main;
  base::ChangePublisher whole;
  desktop::ChatPart<desktop::ChatTranscriptState> part;
  std::unique_ptr<TranscriptModel> model;
  TranscriptView view;
};

QAction* menuAction(TranscriptView& view, const QString& text) {
  for (auto* menu : view.findChildren<QMenu*>())
    for (auto* action : menu->actions())
      if (action->text() == text) return action;
  return nullptr;
}

void closeMenus(TranscriptView& view) {
  for (auto* menu : view.findChildren<QMenu*>()) delete menu;
}

void rightClick(TranscriptView& view, QPoint point) {
  QContextMenuEvent event(QContextMenuEvent::Mouse, point, view.viewport()->mapToGlobal(point));
  QCoreApplication::sendEvent(view.viewport(), &event);
}

}  // namespace

class TranscriptViewTest : public QObject {
  Q_OBJECT
 private Q_SLOTS:
  void findsEachFencedCodeBlockExactly() {
    using Blocks = std::vector<FencedCodeBlock>;
    // Language tags, blank lines inside, tilde fences, a fence in a list; indented code and
    // inline code are not fenced blocks.
    const auto blocks = desktopui::fencedCodeBlocks(
        "Intro `inline`\n\n```python title=\"x\"\nprint(1)\n\nx = 2\n```\n\n    indented\n\n"
        "~~~\nwith ``` inside\n~~~\n- item\n\n  ```sh\n  ls -la\n  ```\n");
    QCOMPARE(blocks, (Blocks{{"print(1)\n\nx = 2", 3}, {"with ``` inside", 1}, {"ls -la", 1}}));
    // Two blocks back to back stay two; an unclosed fence runs to the end of the text.
    QCOMPARE(desktopui::fencedCodeBlocks("```\na\n```\n```\nb\nc\n```\n```js\nopen"),
             (Blocks{{"a", 1}, {"b\nc", 2}, {"open", 1}}));
    // White space inside the code is kept as typed (tabs too); a fence's own indentation is
    // not code, and a tab only partly inside it leaves the columns that are.
    QCOMPARE(desktopui::fencedCodeBlocks("```go\nfunc f() {\n\treturn  1\n}\n```\n"),
             (Blocks{{"func f() {\n\treturn  1\n}", 3}}));
    QCOMPARE(desktopui::fencedCodeBlocks("  ```\n      six\n\tx\n  \n  ```\n"),
             (Blocks{{"    six\n  x\n", 3}}));
    QCOMPARE(desktopui::fencedCodeBlocks("- item\n\n  ```\n  \ttabbed\n  ```\n"),
             (Blocks{{"\ttabbed", 1}}));
    QCOMPARE(desktopui::fencedCodeBlocks("no code here"), Blocks{});
    QCOMPARE(desktopui::fencedCodeBlocks("```\n```"), (Blocks{{"", 0}}));
  }

  void summarisesAToolBlockInOneLine() {
    kit::Message m = message("r", "assistant", "");
    QCOMPARE(TranscriptModel::toolSummary(m), QString());
    m.toolBlock = kit::ToolBlockSnapshot{};
    m.toolBlock->tools = {tool("1", "bash", kit::ToolRunStatus::completed, "ls -la")};
    QCOMPARE(TranscriptModel::toolSummary(m), QStringLiteral("bash ls -la — completed"));
    m.toolBlock->tools.push_back(tool("2", "grep", kit::ToolRunStatus::running, "TODO"));
    m.toolBlock->tools.push_back(tool("3", "bash", kit::ToolRunStatus::denied, "rm -rf build"));
    m.toolBlock->tools.push_back(tool("4", "read", kit::ToolRunStatus::completed, "a.txt"));
    m.toolBlock->tools.back().isError = true;
    QCOMPARE(TranscriptModel::toolSummary(m),
             QStringLiteral("4 tools: bash, grep, read — 1 running, 1 denied, 1 failed"));
  }

  void aToolBlockOpensAndClosesAndKeepsItsStateWhileStreaming() {
    auto reply = message("stream-1", "assistant", "I looked around.");
    reply.toolBlock = kit::ToolBlockSnapshot{};
    reply.toolBlock->tools = {
        tool("1", "bash", kit::ToolRunStatus::completed, "ls -la", "total 8 README.md"),
        tool("2", "read_file", kit::ToolRunStatus::completed, "README.md")};
    Transcript t({message("u1", "user", "what is here?"), reply});
    QVERIFY(QTest::qWaitForWindowExposed(&t.view));
    t.settle();
    auto& model = *t.model;
    // Finished tools start closed: a header only, read out as such.
    QVERIFY(!model.toolsExpanded(1));
    QVERIFY(
        t.at(1)
            .data(Qt::AccessibleTextRole)
            .toString()
            .contains(QStringLiteral("Tools, collapsed: 2 tools: bash, read_file — completed")));
    const int closed = t.rect(1).height();
    const int line = QFontMetrics(t.view.font()).lineSpacing();

    // A click on the header opens it: two tools and one output preview more.
    QSignalSpy changed(&model, &QAbstractItemModel::dataChanged);
    t.click(t.delegate().toolHeaderRect(t.rect(1), t.at(1)).center());
    QVERIFY(model.toolsExpanded(1));
    QCOMPARE(changed.size(), 1);
    QTRY_VERIFY(t.rect(1).height() >= closed + 3 * line);
    const int open = t.rect(1).height();
    QVERIFY(t.at(1)
                .data(Qt::AccessibleTextRole)
                .toString()
                .contains(QStringLiteral("Tools, expanded:\nTool: bash ls -la — completed")));
    // A click elsewhere in the row does not toggle it.
    t.click(t.rect(1).bottomLeft() + QPoint(20, -4));
    QVERIFY(model.toolsExpanded(1));

    // The reply keeps streaming: its row changes, the block stays open, the row only grows.
    for (int i = 0; i < 5; ++i) t.part.edit().messages[1].content += " Another sentence follows.";
    t.part.edit().messages[1].toolBlock->tools[0].preview = "total 9 README.md LICENSE";
    QTRY_VERIFY(changed.size() >= 2);
    t.settle();
    QVERIFY(model.toolsExpanded(1));
    QVERIFY(t.rect(1).height() >= open);
    // Laid out again at another width: still open.
    t.view.resize(420, 480);
    t.settle();
    QVERIFY(model.toolsExpanded(1));
    const int narrowOpen = t.rect(1).height();

    // From the keyboard: Space closes, Enter opens again.
    t.view.setFocus();
    t.view.setCurrentIndex(t.at(1));
    QTest::keyClick(&t.view, Qt::Key_Space);
    QVERIFY(!model.toolsExpanded(1));
    QTRY_VERIFY(t.rect(1).height() <= narrowOpen - 3 * line);
    QTest::keyClick(&t.view, Qt::Key_Return);
    QVERIFY(model.toolsExpanded(1));
    QTRY_COMPARE(t.rect(1).height(), narrowOpen);
    // Space on a row without tools does nothing to the reply.
    t.view.setCurrentIndex(t.at(0));
    QTest::keyClick(&t.view, Qt::Key_Space);
    QVERIFY(model.toolsExpanded(1));
  }

  void aRunningToolIsOpenUntilItFinishesUnlessTheUserChose() {
    auto reply = message("stream-1", "assistant", "");
    reply.toolBlock = kit::ToolBlockSnapshot{};
    reply.toolBlock->tools = {tool("1", "bash", kit::ToolRunStatus::running, "make")};
    auto other = reply;
    other.id = "stream-2";
    Transcript t({reply, other});
    auto& model = *t.model;
    QVERIFY(model.toolsExpanded(0));
    QVERIFY(model.toolsExpanded(1));
    // The user closes the second while it runs; then both finish.
    model.setToolsExpanded(1, false);
    t.part.edit().messages[0].toolBlock->tools[0].status = kit::ToolRunStatus::completed;
    t.part.edit().messages[1].toolBlock->tools[0].status = kit::ToolRunStatus::completed;
    QTRY_VERIFY(!model.toolsExpanded(0));
    QVERIFY(!model.toolsExpanded(1));
    model.setToolsExpanded(1, true);
    QVERIFY(model.toolsExpanded(1));
    // Another session's rows replace these: the choice goes with them, so a row with the same id
    // later starts from the default again.
    t.part.edit().messages = {message("x", "user", "elsewhere")};
    QTRY_COMPARE(model.rowCount(), 1);
    auto back = other;
    back.toolBlock->tools[0].status = kit::ToolRunStatus::completed;
    t.part.edit().messages = {back};
    QTRY_COMPARE(model.index(0).data(TranscriptModel::IdRole).toString(),
                 QStringLiteral("stream-2"));
    QVERIFY(!model.toolsExpanded(0));
  }

  void copiesOneCodeBlockFromItsButtonOrTheContextMenu() {
    const std::string text =
        "Two ways:\n\n```python\nprint(\"one\")\n\n\tx = 1\n```\n\nor in the shell:\n\n"
        "```sh\necho two\nls -la | wc -l\n```\n\nEither works.";
    Transcript t({message("u1", "user", "how?"), message("r1", "assistant", text),
                  message("r2", "assistant", "```\nfirst\n```\n```\nsecond\nthird\n```")});
    QVERIFY(QTest::qWaitForWindowExposed(&t.view));
    t.settle();
    auto& d = t.delegate();
    const auto reply = t.at(1);
    QCOMPARE(d.codeBlockCount(reply), 2);
    auto* clipboard = QGuiApplication::clipboard();

    // The context menu over the second block copies that block's code, and only that.
    clipboard->setText(QStringLiteral("before"));
    rightClick(t.view, d.codeBlockRect(t.rect(1), reply, 1).center());
    auto* copyBlock = menuAction(t.view, QStringLiteral("Copy code block"));
    QVERIFY(copyBlock);
    copyBlock->trigger();
    QCOMPARE(clipboard->text(), QStringLiteral("echo two\nls -la | wc -l"));
    closeMenus(t.view);
    // Over the prose there is no block to copy, but the whole message is.
    const auto first = d.codeBlockRect(t.rect(1), reply, 0);
    rightClick(t.view, QPoint(first.left() + 10, t.rect(1).top() + 12));
    QVERIFY(!menuAction(t.view, QStringLiteral("Copy code block")));
    auto* copyMessage = menuAction(t.view, QStringLiteral("Copy the message"));
    QVERIFY(copyMessage);
    copyMessage->trigger();
    QCOMPARE(clipboard->text(), QString::fromStdString(text));
    closeMenus(t.view);

    // The painted "Copy" button of the first block: its code, blank line and tab kept.
    t.click(d.copyButtonRect(t.rect(1), reply, 0).center());
    QCOMPARE(clipboard->text(), QStringLiteral("print(\"one\")\n\n\tx = 1"));
    // Ctrl+C on the row still copies the whole message as Markdown.
    t.view.setFocus();
    t.view.setCurrentIndex(reply);
    QTest::keyClick(&t.view, Qt::Key_C, Qt::ControlModifier);
    QCOMPARE(clipboard->text(), QString::fromStdString(text));
    // The menu key offers each block of the current message by number.
    QContextMenuEvent menuKey(QContextMenuEvent::Keyboard, QPoint(1, 1),
                              t.view.viewport()->mapToGlobal(QPoint(1, 1)));
    QCoreApplication::sendEvent(t.view.viewport(), &menuKey);
    QVERIFY(menuAction(t.view, QStringLiteral("Copy code block 1")));
    auto* second = menuAction(t.view, QStringLiteral("Copy code block 2"));
    QVERIFY(second);
    second->trigger();
    QCOMPARE(clipboard->text(), QStringLiteral("echo two\nls -la | wc -l"));
    closeMenus(t.view);

    // Two blocks back to back are two blocks on screen, each with its own button.
    const auto pair = t.at(2);
    QCOMPARE(d.codeBlockCount(pair), 2);
    const auto upper = d.codeBlockRect(t.rect(2), pair, 0);
    const auto lower = d.codeBlockRect(t.rect(2), pair, 1);
    QVERIFY(upper.bottom() <= lower.top());
    t.click(d.copyButtonRect(t.rect(2), pair, 1).center());
    QCOMPARE(clipboard->text(), QStringLiteral("second\nthird"));
    t.click(d.copyButtonRect(t.rect(2), pair, 0).center());
    QCOMPARE(clipboard->text(), QStringLiteral("first"));
  }

  void fileChipsFromASessionFileOpenTheirFilesOrSayWhyNot() {
    QTemporaryDir dir;
    const auto present = dir.filePath(QStringLiteral("notes (march).txt"));
    { std::ofstream(present.toStdString()) << "ph 6.2 north plot"; }
    const auto missing = dir.filePath(QStringLiteral("gone.pdf"));
    boost::json::object file{{"id", "s1"}, {"title", "Files"}};
    file["messages"] = boost::json::array{
        boost::json::object{
            {"role", "user"},
            {"content", boost::json::array{boost::json::object{{"type", "text"},
                                                               {"text", "Please read these."}},
                                           boost::json::object{{"type", "file_ref"},
                                                               {"file_path", present.toStdString()},
                                                               {"filename", "notes (march).txt"},
                                                               {"byte_size", 17}},
                                           boost::json::object{{"type", "file_ref"},
                                                               {"file_path", missing.toStdString()},
                                                               {"filename", "gone.pdf"},
                                                               {"byte_size", 2048}}}}},
        boost::json::object{{"role", "assistant"}, {"content", "Read them."}}};
    const auto decoded = bridge::SessionHistory::decode(boost::json::serialize(file));
    QVERIFY(decoded);
    std::vector<kit::Message> messages;
    for (const auto& m : bridge::SessionHistory::fold(*decoded).messages)
      messages.push_back(desktop::ChatTranscriptState::fromSessionMessage(m));
    QCOMPARE(messages.size(), std::size_t{2});
    Transcript t(messages);
    QVERIFY(QTest::qWaitForWindowExposed(&t.view));
    t.settle();
    std::vector<QUrl> opened;
    bool opens = true;
    t.view.setUrlOpener([&](const QUrl& url) {
      opened.push_back(url);
      return opens;
    });
    QSignalSpy notices(&t.view, &TranscriptView::noticeRequested);
    const auto row = t.at(0);
    QVERIFY(t.at(0)
                .data(Qt::AccessibleTextRole)
                .toString()
                .contains(QStringLiteral("Attachment: notes (march).txt, 17 bytes")));
    // The chips sit under the text, inside the row.
    const auto chip0 = t.delegate().attachmentRect(t.rect(0), row, 0);
    const auto chip1 = t.delegate().attachmentRect(t.rect(0), row, 1);
    QVERIFY(!chip0.isEmpty() && !chip1.isEmpty());
    QVERIFY(t.rect(0).contains(chip0) && t.rect(0).contains(chip1));

    // The pointer says a chip can be clicked, and the text cannot.
    QTest::mouseMove(t.view.viewport(), chip0.center());
    QTRY_COMPARE(t.view.viewport()->cursor().shape(), Qt::PointingHandCursor);
    QTest::mouseMove(t.view.viewport(), t.rect(1).center());
    QTRY_COMPARE(t.view.viewport()->cursor().shape(), Qt::ArrowCursor);
    // A click opens the file itself (once the file is found, off the GUI thread).
    t.click(chip0.center());
    QTRY_COMPARE(opened, std::vector<QUrl>{QUrl::fromLocalFile(present)});
    // The second chip names a file that is gone: a notice, nothing launched.
    t.click(chip1.center());
    QTRY_COMPARE(notices.size(), 1);
    QCOMPARE(opened.size(), std::size_t{1});
    QCOMPARE(notices.last().at(0).toString(),
             QStringLiteral("“gone.pdf” is no longer at %1.").arg(missing));

    // From the keyboard: Enter opens the chip the keys are on, Left/Right move between chips.
    t.view.setFocus();
    t.view.setCurrentIndex(t.at(1));
    t.view.setCurrentIndex(row);
    QTest::keyClick(&t.view, Qt::Key_Return);
    QTRY_COMPARE(opened.size(), std::size_t{2});
    QCOMPARE(opened.back(), QUrl::fromLocalFile(present));
    QTest::keyClick(&t.view, Qt::Key_Right);
    QTest::keyClick(&t.view, Qt::Key_Enter, Qt::KeypadModifier);
    QTRY_COMPARE(notices.size(), 2);
    QCOMPARE(opened.size(), std::size_t{2});
    QTest::keyClick(&t.view, Qt::Key_Left);
    // No application for it: said, not swallowed.
    opens = false;
    QTest::keyClick(&t.view, Qt::Key_Return);
    QTRY_COMPARE(notices.size(), 3);
    QCOMPARE(opened.size(), std::size_t{3});
    QVERIFY(
        notices.last().at(0).toString().startsWith(QStringLiteral("No application could open")));
    // The reply has no chips: Enter there opens nothing.
    t.view.setCurrentIndex(t.at(1));
    QTest::keyClick(&t.view, Qt::Key_Return);
    QTest::qWait(100);
    QCOMPARE(opened.size(), std::size_t{3});
    QCOMPARE(notices.size(), 3);
    // A file the message names without a path here (sent from another computer).
    auto elsewhere = message("u9", "user", "from my phone");
    elsewhere.attachments.push_back({});
    elsewhere.attachments.back().filename = "photo.jpg";
    t.part.edit().messages.push_back(elsewhere);
    QTRY_COMPARE(t.model->rowCount(), 3);
    t.view.openAttachment(t.at(2), 0);
    QCOMPARE(notices.size(), 4);
    QCOMPARE(notices.last().at(0).toString(),
             QStringLiteral("“photo.jpg” has no copy on this computer to open."));
  }

  void measuredHeightsStayBoundedAsRowsPileUp() {
    auto first = message("m0", "user",
                         "A first message with a list:\n\n- one\n- two\n- three\n\n```\ncode\n```");
    Transcript t({first}, {600, 300});
    QVERIFY(QTest::qWaitForWindowExposed(&t.view));
    t.settle();
    const int firstHeight = t.rect(0).height();
    auto& d = t.delegate();
    // Replies stream in and the view follows them, as in a long day's session.
    for (int r = 1; r <= 700; ++r) {
      t.part.edit().messages.push_back(message("u" + std::to_string(r), "user", "Next?"));
      t.part.edit().messages.push_back(message("stream-" + std::to_string(r), "assistant", ""));
      for (int k = 0; k < 3; ++k) {
        t.part.edit().messages.back().content += "streamed **word** ";
        QCoreApplication::processEvents();
      }
      t.view.scrollToBottom();
      QCoreApplication::processEvents();
    }
    t.settle();
    QCOMPARE(t.model->rowCount(), 1401);
    QVERIFY(d.cachedHeights() > 0);
    QVERIFY(d.cachedHeights() <= MessageDelegate::maxCachedHeights);
    // Documents are kept for the rows on screen and a margin, not for all rows seen.
    QCOMPARE(d.documentBound(), MessageDelegate::minCachedDocuments);
    QVERIFY(d.cachedDocuments() <= d.documentBound());
    // A taller window keeps a document for each row it shows.
    t.view.resize(600, 1600);
    t.settle();
    const int shown = t.view.indexAt(QPoint(0, t.view.viewport()->height() - 1)).row() -
                      t.view.indexAt(QPoint(0, 0)).row() + 1;
    QVERIFY(shown > MessageDelegate::minCachedDocuments);
    QVERIFY(d.documentBound() >= shown);
    QVERIFY(d.cachedDocuments() >= shown);
    // The first row's measure was dropped long ago; back on screen it is measured again exactly.
    t.view.scrollToTop();
    QTRY_COMPARE(t.rect(0).height(), firstHeight);
  }
};

QTEST_MAIN(TranscriptViewTest)
#include "transcript_view_test.moc"
