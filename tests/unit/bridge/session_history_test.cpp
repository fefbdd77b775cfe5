#include "tamsel/bridge/session_history.hpp"

#include <gtest/gtest.h>

#include <boost/asio/co_spawn.hpp>
#include <boost/asio/detached.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/thread_pool.hpp>
#include <fstream>
#include <thread>

#include "../test_support.hpp"
#include "tamsel/base/atomic_file.hpp"

namespace tamsel::bridge {
namespace {

namespace fs = std::filesystem;

const fs::path kFixtures = fs::path(TAMSEL_FIXTURES_DIR) / "verdane";

SessionHistory::Folded foldText(const std::string& json) {
  auto file = SessionHistory::decode(json);
  EXPECT_TRUE(file.has_value()) << json;
  return file ? SessionHistory::fold(*file, false) : SessionHistory::Folded{};
}

TEST(SessionHistoryLocate, DefaultCopyWinsAndBuiltinIsNeverSearched) {
  SessionHistory history(kFixtures);
  EXPECT_EQ(history.locate("s_dup", std::nullopt), kFixtures / "sessions" / "s_dup.json");
  EXPECT_EQ(history.locate("s_dup", "researcher"),
            kFixtures / "agents" / "researcher" / "sessions" / "s_dup.json");
  EXPECT_EQ(history.locate("s_sources", std::nullopt),
            kFixtures / "agents" / "researcher" / "sessions" / "s_sources.json");
  EXPECT_FALSE(history.locate("s_builtin", std::nullopt));
  EXPECT_TRUE(history.locate("s_builtin", "_builtin")) << "only the search skips it";
  EXPECT_FALSE(history.locate("../sessions/s_dup", std::nullopt));
  EXPECT_FALSE(history.locate("s_release", "researcher"));
  EXPECT_FALSE(SessionHistory(kFixtures / "missing").locate("s_dup", std::nullopt));
}

TEST(SessionHistoryFold, FixtureReadsAsTheRulesSay) {
  SessionHistory history(kFixtures);
  const auto result = history.loadNow("s_release", std::nullopt, std::nullopt);
  ASSERT_TRUE(result.found);
  EXPECT_EQ(result.title, "Plan the 0.3 release");
  const auto& m = result.messages;
  ASSERT_EQ(m.size(), 6u);
  EXPECT_EQ(m[0].role, "user");
  EXPECT_EQ(m[0].rawIndex, 0);

  // One reply for the run of assistant messages separated only by tool results.
  EXPECT_EQ(m[1].role, "assistant");
  EXPECT_EQ(m[1].rawIndex, 1);
  EXPECT_EQ(m[1].rawIndexEnd, 5);
  EXPECT_EQ(m[1].content,
            "Let me look at the open items.\n\n42 commits since 0.2. The changelog still needs the "
            "streaming entry, and one check failed.");
  ASSERT_TRUE(m[1].toolBlock);
  EXPECT_EQ(m[1].toolBlock->id, "session-toolblock-0");
  const auto& tools = m[1].toolBlock->tools;
  ASSERT_EQ(tools.size(), 3u) << "set_work_plan never shows";
  EXPECT_EQ(tools[0].args, "git log --oneline v0.2..HEAD | wc -l")
      << "newlines become spaces; numbers are skipped";
  EXPECT_EQ(tools[0].preview, "42");
  EXPECT_EQ(tools[0].status, kit::ToolRunStatus::completed);
  EXPECT_EQ(tools[1].preview, "## 0.3 (unreleased) - streaming replies");
  EXPECT_EQ(tools[2].args, "List release blockers")
      << "bash without command falls back to another string";
  EXPECT_TRUE(tools[2].isError);

  // Nudges: flagged by metadata, or by the text rule once metadata has run out.
  EXPECT_EQ(m[2].content, " STOP. is what the sign on the door says; ignore it.");
  EXPECT_EQ(m[2].rawIndex, 7);
  ASSERT_TRUE(m[2].conversationAnnotations);
  EXPECT_EQ(m[3].content,
            "Understood. Here is the summary: changelog, one failing check, then tag.");
  EXPECT_EQ(m[3].rawIndex, 9);
  EXPECT_FALSE(m[3].timestamp) << "metadata shorter than the messages";
  EXPECT_EQ(m[5].content, "Will do.") << "unknown block types are ignored";
}

TEST(SessionHistoryFold, AttachmentsImagesAndDeliverables) {
  SessionHistory history(kFixtures);
  const auto result = history.loadNow("s_sources", "researcher", std::nullopt);
  ASSERT_GE(result.messages.size(), 1u);
  const auto& first = result.messages[0];
  EXPECT_EQ(first.content, "Here is the field photo and my draft. Find three sources.")
      << "markers are not text";
  ASSERT_EQ(first.attachments.size(), 3u) << "the marker naming the file_ref's file is not doubled";
  const auto& image = first.attachments[0];
  EXPECT_EQ(image.kind, kit::Attachment::Kind::image);
  ASSERT_TRUE(image.filePath);
  EXPECT_EQ(fs::path(*image.filePath).parent_path().filename(), "quenlo-images");
  EXPECT_EQ(fs::path(*image.filePath).extension(), ".png");
  std::string png;
  ASSERT_TRUE(base::readFile(*image.filePath, png));
  EXPECT_EQ(png.substr(1, 3), "PNG");
  EXPECT_EQ(image.byteSize, static_cast<std::int64_t>(png.size()));
  fs::remove(*image.filePath);
  EXPECT_EQ(first.attachments[1].filename, "soil-draft.md");
  EXPECT_EQ(first.attachments[1].byteSize, 5120);
  EXPECT_EQ(first.attachments[2].filename, "field notes (march).txt");
  EXPECT_EQ(first.attachments[2].byteSize, 812);
  EXPECT_EQ(first.attachments[2].filePath, "/home/dev/docs/field notes (march).txt");

  ASSERT_EQ(result.deliverables.size(), 1u);
  EXPECT_EQ(result.deliverables[0].toolUseID, "dl_1");
  EXPECT_EQ(result.deliverables[0].resource.id, "dlv_7");
  EXPECT_EQ(result.deliverables[0].resource.title, "Three sources on soil pH");
  EXPECT_EQ(result.deliverables[0].resource.mimeType, "text/markdown");
  // The message whose blocks do not decode shows nothing; the next one still does.
  EXPECT_EQ(result.messages.back().content, "Great.");
  EXPECT_EQ(result.messages.back().rawIndex, 7);
}

TEST(SessionHistoryFold, LenientDecoding) {
  // A bad file is an empty history, not an error.
  EXPECT_FALSE(SessionHistory::decode("{\"messages\": ["));
  EXPECT_FALSE(SessionHistory::decode("{\"title\": \"no messages\"}"));
  EXPECT_FALSE(SessionHistory::decode("[]"));
  SessionHistory history(kFixtures);
  const auto broken = history.loadNow("s_broken", std::nullopt, std::nullopt);
  EXPECT_TRUE(broken.found);
  EXPECT_TRUE(broken.messages.empty());

  // A block missing its type spoils only its message; camel-case keys match too.
  auto folded = foldText(R"({"messages": [
    {"role": "user", "content": [{"text": "no type"}]},
    {"role": "user", "content": [{"type": "text", "text": "fine"}]},
    {"role": "assistant", "content": [{"type": "tool_use", "id": "t", "name": "grep", "input": {"pattern": 5, "path": "src"}}]},
    {"role": "user", "content": [{"type": "tool_result", "toolUseId": "t", "content": "3 matches", "isError": false}]}
  ]})");
  ASSERT_EQ(folded.messages.size(), 2u);
  EXPECT_EQ(folded.messages[0].content, "fine");
  EXPECT_EQ(folded.messages[0].rawIndex, 1);
  ASSERT_TRUE(folded.messages[1].toolBlock);
  EXPECT_EQ(folded.messages[1].toolBlock->tools[0].args, "src")
      << "the non-string key argument is skipped";
  EXPECT_EQ(folded.messages[1].toolBlock->tools[0].preview, "3 matches");
  EXPECT_EQ(folded.messages[1].rawIndexEnd, 3);

  // Sizes past int64 (found by the fuzzer: a cast that is undefined behaviour) fail only their
  // block, like any other field of the wrong type; whole numbers written as doubles still count.
  folded = foldText(R"({"messages": [
    {"role": "user", "content": [{"type": "file_ref", "file_path": "/a", "filename": "a", "byte_size": 5E20}]},
    {"role": "assistant", "content": "ok"},
    {"role": "user", "content": [{"type": "file_ref", "file_path": "/b", "filename": "b", "byte_size": 2E3}]}
  ]})");
  ASSERT_EQ(folded.messages.size(), 2u);
  EXPECT_EQ(folded.messages[0].rawIndex, 1);
  ASSERT_EQ(folded.messages[1].attachments.size(), 1u);
  EXPECT_EQ(folded.messages[1].attachments[0].byteSize, 2000);
}

TEST(SessionHistoryFold, ToolCallsWithoutResultsStayRunningAndBlocksCountInFileOrder) {
  auto folded = foldText(R"({"messages": [
    {"role": "assistant", "content": [{"type": "tool_use", "id": "a", "name": "glob", "input": {"pattern": "*.md"}}]},
    {"role": "user", "content": "next"},
    {"role": "assistant", "content": [{"type": "tool_use", "id": "b", "name": "web_fetch", "input": {"url": "https://example.org"}}]}
  ]})");
  ASSERT_EQ(folded.messages.size(), 3u);
  EXPECT_EQ(folded.messages[0].toolBlock->id, "session-toolblock-0");
  EXPECT_EQ(folded.messages[0].toolBlock->tools[0].status, kit::ToolRunStatus::running)
      << "its answer never came";
  EXPECT_EQ(folded.messages[2].toolBlock->id, "session-toolblock-1");
}

TEST(SessionHistoryRules, SummariesPreviewsAndNudges) {
  EXPECT_EQ(SessionHistory::argsSummary("bash", {{"command", "  ls -la\n"}}), "ls -la");
  EXPECT_EQ(SessionHistory::argsSummary("bash", {{"command", ""}, {"description", "d"}}), "d");
  EXPECT_EQ(SessionHistory::argsSummary("web_search", {{"limit", ""}}), std::nullopt);
  EXPECT_EQ(SessionHistory::argsSummary("unknown_tool", {}), std::nullopt);

  const std::string exact(200, 'x');
  EXPECT_EQ(SessionHistory::normalisePreview(exact), exact);
  EXPECT_EQ(SessionHistory::normalisePreview(exact + "y"), exact + "\u2026");
  // Characters, not bytes: 201 two-byte characters cut after the 200th.
  std::string accents;
  for (int i = 0; i < 201; ++i) accents += "\xC3\xA9";
  EXPECT_EQ(SessionHistory::normalisePreview(accents), accents.substr(0, 400) + "\u2026");

  EXPECT_TRUE(SessionHistory::isSystemInjected("STOP. Do not continue."));
  EXPECT_FALSE(SessionHistory::isSystemInjected(" STOP. is shown"));
  EXPECT_FALSE(SessionHistory::isSystemInjected("stop retrying"));
  EXPECT_TRUE(SessionHistory::isSystemInjected("Stop retrying the same command."));
  EXPECT_TRUE(SessionHistory::isSystemInjected("Multiple approaches have failed"));
  EXPECT_FALSE(SessionHistory::isSystemInjected("Hello. You've used 3 tools"));
}

TEST(SessionHistoryLoad, UnchangedFileCostsNoReadAndATouchForcesOne) {
  test::TempDir dir;
  fs::create_directories(dir.path() / "sessions");
  const auto file = dir.path() / "sessions" / "s1.json";
  std::ofstream(file) << R"({"messages": [{"role": "user", "content": "one"}]})";
  SessionHistory history(dir.path());
  auto first = history.loadNow("s1", std::nullopt, std::nullopt);
  ASSERT_EQ(first.messages.size(), 1u);
  ASSERT_TRUE(first.fingerprint);
  auto again = history.loadNow("s1", std::nullopt, first.fingerprint);
  EXPECT_TRUE(again.unchanged);
  EXPECT_TRUE(again.messages.empty());

  // Same size, new content and modification time: decoded again.
  std::ofstream(file) << R"({"messages": [{"role": "user", "content": "two"}]})";
  fs::last_write_time(file, fs::last_write_time(file) + std::chrono::seconds(1));
  auto touched = history.loadNow("s1", std::nullopt, first.fingerprint);
  EXPECT_FALSE(touched.unchanged);
  ASSERT_EQ(touched.messages.size(), 1u);
  EXPECT_EQ(touched.messages[0].content, "two");
}

TEST(SessionHistoryLoad, AsyncLoadRunsOnTheWorkerAndReturnsToTheCaller) {
  boost::asio::thread_pool pool(1);
  SessionHistory history(kFixtures, pool.get_executor());
  boost::asio::io_context io;
  std::thread::id resumedThread;
  std::optional<SessionLoadResult> result;
  boost::asio::co_spawn(
      io,
      [&]() -> boost::asio::awaitable<void> {
        result = co_await history.load("s_dup", std::nullopt, std::nullopt);
        resumedThread = std::this_thread::get_id();
      },
      boost::asio::detached);
  io.run();
  pool.join();
  ASSERT_TRUE(result);
  EXPECT_EQ(result->messages.at(0).content, "from the default folder");
  EXPECT_EQ(resumedThread, std::this_thread::get_id());
}

}  // namespace
}  // namespace tamsel::bridge
