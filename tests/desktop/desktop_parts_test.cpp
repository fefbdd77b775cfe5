// The window's parts without an engine: list updates planned from keys, the transcript model
// following the controller's part by change, and the main executor on the Qt loop.
#include <QApplication>
#include <QClipboard>
#include <QImage>
#include <QMimeData>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QtTest>
#include <boost/asio/local/connect_pair.hpp>
#include <boost/asio/local/stream_protocol.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/read.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/write.hpp>
#include <thread>

#include "../unit/message_support.hpp"
#include "composer.hpp"
#include "keyed_list_model.hpp"
#include "qt_main_executor.hpp"
#include "tamsel/desktop/chat/chat_parts.hpp"
#include "transcript_model.hpp"

using namespace tamsel;
using desktopui::ListUpdate;
using desktopui::planListUpdate;
using desktopui::RowKey;

namespace {

std::vector<RowKey> keys(std::initializer_list<std::pair<const char*, int>> rows) {
  std::vector<RowKey> out;
  for (auto [id, f] : rows) out.push_back({id, static_cast<std::uint64_t>(f)});
  return out;
}

// A transcript part a test can edit, as the controller does.
struct Part {
  explicit Part(base::MainExecutor& main) : whole(main), part(main, whole) {}
  base::ChangePublisher whole;
  desktop::ChatPart<desktop::ChatTranscriptState> part;
};

using test::message;

}  // namespace

class DesktopPartsTest : public QObject {
  Q_OBJECT
 private Q_SLOTS:
  void plansTheSmallestUpdate() {
    // A growing reply: one changed row.
    auto u = planListUpdate(keys({{"a", 1}, {"b", 2}}), keys({{"a", 1}, {"b", 3}}));
    QCOMPARE(u.removed, 0);
    QCOMPARE(u.inserted, 0);
    QCOMPARE(u.changed, std::vector<int>{1});
    // Appended rows.
    u = planListUpdate(keys({{"a", 1}}), keys({{"a", 1}, {"b", 2}, {"c", 3}}));
    QCOMPARE(u.first, 1);
    QCOMPARE(u.removed, 0);
    QCOMPARE(u.inserted, 2);
    QVERIFY(u.changed.empty());
    // A streamed reply replaced by the one read back from the file, with a changed head and
    // tail row: only the middle is replaced, changed rows are numbered as in the new list.
    u = planListUpdate(keys({{"u1", 1}, {"stream-x", 2}, {"u2", 3}, {"r2", 4}}),
                       keys({{"u1", 9}, {"file-1", 2}, {"file-2", 2}, {"u2", 3}, {"r2", 5}}));
    QCOMPARE(u.first, 1);
    QCOMPARE(u.removed, 1);
    QCOMPARE(u.inserted, 2);
    QCOMPARE(u.changed, (std::vector<int>{0, 4}));
    // Everything different, and the empty cases.
    u = planListUpdate(keys({{"a", 1}, {"b", 1}}), keys({{"c", 1}}));
    QCOMPARE(u.first, 0);
    QCOMPARE(u.removed, 2);
    QCOMPARE(u.inserted, 1);
    QVERIFY(planListUpdate({}, {}).empty());
    u = planListUpdate(keys({{"a", 1}, {"b", 1}}), {});
    QCOMPARE(u.removed, 2);
    // A row removed from the middle of equal neighbours.
    u = planListUpdate(keys({{"a", 1}, {"b", 1}, {"c", 1}}), keys({{"a", 1}, {"c", 1}}));
    QCOMPARE(u.first, 1);
    QCOMPARE(u.removed, 1);
    QCOMPARE(u.inserted, 0);
  }

  void fingerprintsTellTextsApart() {
    using desktopui::fingerprintOf;
    QVERIFY(fingerprintOf("ab") != fingerprintOf("ba"));
    QVERIFY(fingerprintOf("ab", fingerprintOf("c")) != fingerprintOf("b", fingerprintOf("ca")));
    QCOMPARE(fingerprintOf("same"), fingerprintOf("same"));
  }

  void theTranscriptModelFollowsItsPartByChange() {
    desktopui::QtMainExecutor main;
    Part p(main);
    p.part.edit().messages = {message("u1", "user", "hello"), message("stream-1", "assistant", "")};
    desktopui::TranscriptModel model(p.part);
    QCOMPARE(model.rowCount(), 2);
    QSignalSpy resets(&model, &QAbstractItemModel::modelReset);
    QSignalSpy inserted(&model, &QAbstractItemModel::rowsInserted);
    QSignalSpy removed(&model, &QAbstractItemModel::rowsRemoved);
    QSignalSpy changed(&model, &QAbstractItemModel::dataChanged);
    for (int i = 0; i < 20; ++i) {
      p.part.edit().messages[1].content += "word ";
      QTRY_COMPARE(changed.size(), i + 1);
    }
    QCOMPARE(changed.last().at(0).value<QModelIndex>().row(), 1);
    QCOMPARE(changed.last().at(1).value<QModelIndex>().row(), 1);
    QCOMPARE(inserted.size() + removed.size() + resets.size(), 0);
    QCOMPARE(model.index(1).data(desktopui::TranscriptModel::MarkdownRole).toString().size(), 100);

    // A tool's status is part of what a row shows.
    kit::ToolBlockSnapshot block;
    block.tools.push_back({"t1", "bash", kit::ToolRunStatus::running});
    p.part.edit().messages[1].toolBlock = block;
    QTRY_COMPARE(changed.size(), 21);
    QCOMPARE(model.index(1).data(desktopui::TranscriptModel::ToolLinesRole).toStringList(),
             QStringList{QStringLiteral("bash — running")});
    p.part.edit().messages[1].toolBlock->tools[0].status = kit::ToolRunStatus::completed;
    QTRY_COMPARE(changed.size(), 22);

    // The file's version replaces the streamed row; the user's row stays.
    p.part.edit().messages = {message("u1", "user", "hello"), message("f2", "assistant", "done"),
                              message("u3", "user", "[New message from user]\nmore")};
    QTRY_COMPARE(model.rowCount(), 3);
    QCOMPARE(removed.size(), 1);
    QCOMPARE(inserted.size(), 1);
    QCOMPARE(resets.size(), 0);
    QCOMPARE(model.index(1).data(desktopui::TranscriptModel::IdRole).toString(),
             QStringLiteral("f2"));
    // An injected message is shown without its marker.
    QCOMPARE(model.index(2).data(desktopui::TranscriptModel::MarkdownRole).toString(),
             QStringLiteral("more"));
    QCOMPARE(model.index(2).data(Qt::AccessibleTextRole).toString(), QStringLiteral("You: more"));

    // Several edits in one turn reach the model once.
    const auto before = changed.size();
    p.part.edit().messages[1].content = "one";
    p.part.edit().messages[1].content = "two";
    QTRY_COMPARE(changed.size(), before + 1);
    QTest::qWait(50);
    QCOMPARE(changed.size(), before + 1);
  }

  void theComposerSendsOnEnterOnly() {
    desktopui::Composer composer;
    QSignalSpy sends(&composer, &desktopui::Composer::sendRequested);
    QSignalSpy injects(&composer, &desktopui::Composer::injectRequested);
    QTest::keyClicks(&composer, QStringLiteral("one"));
    QTest::keyClick(&composer, Qt::Key_Return, Qt::ShiftModifier);
    QTest::keyClicks(&composer, QStringLiteral("two"));
    QCOMPARE(composer.toPlainText(), QStringLiteral("one\ntwo"));
    QCOMPARE(sends.size(), 0);
    QTest::keyClick(&composer, Qt::Key_Enter);
    QTest::keyClick(&composer, Qt::Key_Return, Qt::ControlModifier);
    QCOMPARE(sends.size(), 1);
    QCOMPARE(injects.size(), 1);
    QCOMPARE(composer.toPlainText(), QStringLiteral("one\ntwo"));
  }

  void filesBecomeAttachmentsByTheirContentAndFoldersAreRefused() {
    QTemporaryDir dir;
    QVERIFY(dir.isValid());
    const auto path = [&](const char* name) { return dir.filePath(QString::fromLatin1(name)); };
    QFile notes(path("notes.txt"));
    QVERIFY(notes.open(QIODevice::WriteOnly));
    notes.write("release checklist\n");
    notes.close();
    // A picture without an extension is still a picture: the type comes from its bytes too.
    QImage dot(2, 2, QImage::Format_RGB32);
    dot.fill(Qt::blue);
    QVERIFY(dot.save(path("photo"), "PNG"));
    QFile svg(path("logo.svg"));
    QVERIFY(svg.open(QIODevice::WriteOnly));
    svg.write("<svg xmlns=\"http://www.w3.org/2000/svg\"/>");
    svg.close();
    QVERIFY(QDir(dir.path()).mkdir(QStringLiteral("drafts")));

    const auto file = std::get<kit::Attachment>(desktopui::attachmentForFile(path("notes.txt")));
    QCOMPARE(file.kind, kit::Attachment::Kind::fileRef);
    QCOMPARE(file.filename, std::string("notes.txt"));
    QCOMPARE(file.mimeType, std::optional<std::string>("text/plain"));
    QCOMPARE(file.byteSize, std::optional<std::int64_t>(18));
    QCOMPARE(file.filePath, std::optional<std::string>(path("notes.txt").toStdString()));
    QVERIFY(!file.id.empty());
    const auto photo = std::get<kit::Attachment>(desktopui::attachmentForFile(path("photo")));
    QCOMPARE(photo.kind, kit::Attachment::Kind::image);
    QCOMPARE(photo.mimeType, std::optional<std::string>("image/png"));
    // An image the engine cannot show the model goes as a plain file.
    const auto logo = std::get<kit::Attachment>(desktopui::attachmentForFile(path("logo.svg")));
    QCOMPARE(logo.kind, kit::Attachment::Kind::fileRef);
    QCOMPARE(logo.mimeType, std::optional<std::string>("image/svg+xml"));

    QCOMPARE(std::get<QString>(desktopui::attachmentForFile(path("drafts"))),
             QStringLiteral("drafts is a folder: only files can be attached"));
    QCOMPARE(std::get<QString>(desktopui::attachmentForFile(path("gone.txt"))),
             QStringLiteral("gone.txt was not found"));
    QCOMPARE(std::get<QString>(desktopui::attachmentForFile(QStringLiteral("/dev/null"))),
             QStringLiteral("null is not a regular file"));
    QCOMPARE(desktopui::attachmentSizeText(18), QStringLiteral("18 bytes"));
  }

  void pastedFilesAreOfferedAndPastedTextIsInserted() {
    desktopui::Composer composer;
    QSignalSpy offered(&composer, &desktopui::Composer::filesOffered);
    auto* files = new QMimeData;
    files->setUrls({QUrl::fromLocalFile(QStringLiteral("/tmp/a.txt"))});
    files->setText(QStringLiteral("/tmp/a.txt"));
    QApplication::clipboard()->setMimeData(files);
    composer.paste();
    QCOMPARE(offered.size(), 1);
    QCOMPARE(offered[0][0].value<QList<QUrl>>(),
             QList<QUrl>{QUrl::fromLocalFile(QStringLiteral("/tmp/a.txt"))});
    QCOMPARE(composer.toPlainText(), QString());
    // A web link alone is text to paste, not a file.
    auto* link = new QMimeData;
    link->setUrls({QUrl(QStringLiteral("https://example.org/"))});
    link->setText(QStringLiteral("https://example.org/"));
    QApplication::clipboard()->setMimeData(link);
    composer.paste();
    QCOMPARE(offered.size(), 1);
    QCOMPARE(composer.toPlainText(), QStringLiteral("https://example.org/"));
  }

  void theMainExecutorRunsAsioOnTheGuiThread() {
    desktopui::QtMainExecutor main;
    QVERIFY(main.drivenByDescriptor());
    QVERIFY(main.runningInThisThread());
    const auto gui = std::this_thread::get_id();

    // A timer, with nothing else to wake the loop.
    bool fired = false;
    std::thread::id timerThread;
    boost::asio::steady_timer timer(main.ioExecutor(), std::chrono::milliseconds(30));
    timer.async_wait([&](const boost::system::error_code& ec) {
      fired = !ec;
      timerThread = std::this_thread::get_id();
    });
    QTRY_VERIFY_WITH_TIMEOUT(fired, 2000);
    QCOMPARE(timerThread, gui);

    // Work handed over from another thread, both ways in.
    std::atomic<int> done{0};
    std::thread::id postedThread, ioThread;
    std::thread other([&] {
      main.post([&] {
        postedThread = std::this_thread::get_id();
        ++done;
      });
      boost::asio::post(main.ioExecutor(), [&] {
        ioThread = std::this_thread::get_id();
        ++done;
      });
    });
    other.join();
    QTRY_COMPARE_WITH_TIMEOUT(done.load(), 2, 2000);
    QCOMPARE(postedThread, gui);
    QCOMPARE(ioThread, gui);

    // A socket: bytes written by another thread wake the GUI loop.
    boost::asio::local::stream_protocol::socket ours(main.ioExecutor()), theirs(main.ioExecutor());
    boost::asio::local::connect_pair(ours, theirs);
    char buffer[5] = {};
    bool read = false;
    boost::asio::async_read(ours, boost::asio::buffer(buffer),
                            [&](const boost::system::error_code& ec, std::size_t) { read = !ec; });
    const int fd = theirs.native_handle();
    std::thread writer([fd] {
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
      (void)!::write(fd, "hello", 5);
    });
    writer.join();
    QTRY_VERIFY_WITH_TIMEOUT(read, 2000);
    QCOMPARE(std::string(buffer, 5), std::string("hello"));
  }
};

QTEST_MAIN(DesktopPartsTest)
#include "desktop_parts_test.moc"
