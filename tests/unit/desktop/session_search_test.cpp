// The sidebar's search by message text: the pause before asking, answers that arrive late or out
// of order, paging, failures, and how found sessions join the title matches.
#include "tamsel/desktop/session_search.hpp"

#include <gtest/gtest.h>

#include <boost/asio/io_context.hpp>

#include "gated_calls.hpp"
#include "tamsel/bridge/daemon_client_error.hpp"

namespace tamsel::desktop {
namespace {

using bridge::DaemonSession;
using bridge::SessionPage;
using bridge::SessionSearchQuery;

DaemonSession session(std::string id, int day, std::optional<std::string> snippet = std::nullopt,
                      std::optional<std::string> agent = std::nullopt) {
  DaemonSession s;
  s.id = std::move(id);
  s.updatedAt = base::Timestamp{} + std::chrono::hours(24 * (20000 + day));
  s.snippet = std::move(snippet);
  s.agent = std::move(agent);
  return s;
}

std::vector<std::string> ids(const std::vector<DaemonSession>& sessions) {
  std::vector<std::string> out;
  for (const auto& s : sessions) out.push_back(s.id);
  return out;
}

SessionPage page(std::vector<DaemonSession> sessions, bool hasMore = false) {
  SessionPage p;
  p.sessions = std::move(sessions);
  p.hasMore = hasMore;
  return p;
}

class SessionSearchTest : public ::testing::Test {
 protected:
  // Runs the loop until `done` or a generous bound; the debounce needs real time to pass.
  template <class F>
  bool runUntil(F done, std::chrono::milliseconds bound = std::chrono::seconds(5)) {
    const auto until = std::chrono::steady_clock::now() + bound;
    while (!done() && std::chrono::steady_clock::now() < until) {
      io.restart();
      io.run_for(std::chrono::milliseconds(5));
    }
    return done();
  }
  void settle() {
    io.restart();
    io.poll();
  }

  boost::asio::io_context io;
  base::AsioMainExecutor main{io};
  test::GatedCalls<SessionSearchQuery, SessionPage> engine{io.get_executor()};
  SessionSearch search{main, [this](SessionSearchQuery q) { return engine(std::move(q)); },
                       std::chrono::milliseconds(40)};
};

TEST_F(SessionSearchTest, TypingAsksOnceForTheLastTextAfterThePause) {
  int changes = 0;
  search.changed().connect([&] { ++changes; });
  search.setQuery("b");
  search.setQuery("bl");
  search.setQuery("  blue ");
  settle();
  EXPECT_TRUE(engine.calls.empty()) << "nothing is asked before typing pauses";
  EXPECT_TRUE(search.state().searching);
  EXPECT_EQ(search.state().query, "blue");
  EXPECT_GE(changes, 1);
  ASSERT_TRUE(runUntil([&] { return !engine.calls.empty(); }));
  runUntil([] { return false; }, std::chrono::milliseconds(100));
  ASSERT_EQ(engine.calls.size(), 1u) << "one search for the whole burst of typing";
  EXPECT_EQ(engine.calls[0]->request.query, "blue");
  EXPECT_EQ(engine.calls[0]->request.offset, 0);
  EXPECT_EQ(engine.calls[0]->request.limit, SessionSearch::pageSize);

  engine.answer(0, page({session("old", 1),
                         session("new", 9, "...soil pH guides recommend it for blueberries"),
                         session("mid", 5)}));
  settle();
  EXPECT_FALSE(search.state().searching);
  EXPECT_EQ(ids(search.state().found), (std::vector<std::string>{"new", "mid", "old"}));
  EXPECT_EQ(search.state().found[0].snippet, "…it for blueberries")
      << "the match is brought near the row's start";

  // The same text again (spaces aside) asks nothing; clearing it drops the results at once.
  search.setQuery("blue ");
  runUntil([] { return false; }, std::chrono::milliseconds(100));
  EXPECT_EQ(engine.calls.size(), 1u);
  search.setQuery("");
  EXPECT_TRUE(search.state().found.empty());
  EXPECT_FALSE(search.state().searching);
}

TEST_F(SessionSearchTest, AnOlderQuerysAnswerNeverReplacesANewerOnes) {
  search.setQuery("alpha");
  ASSERT_TRUE(runUntil([&] { return engine.calls.size() == 1; }));
  search.setQuery("beta");
  EXPECT_TRUE(search.state().found.empty());
  ASSERT_TRUE(runUntil([&] { return engine.calls.size() == 2; }));
  engine.answer(1, page({session("b", 2)}));
  settle();
  engine.answer(0, page({session("a", 3)}));
  settle();
  EXPECT_EQ(search.state().query, "beta");
  EXPECT_EQ(ids(search.state().found), std::vector<std::string>{"b"});

  // Nor does its failure, or an answer that arrives after the text was cleared.
  search.setQuery("gamma");
  ASSERT_TRUE(runUntil([&] { return engine.calls.size() == 3; }));
  search.setQuery("delta");
  ASSERT_TRUE(runUntil([&] { return engine.calls.size() == 4; }));
  engine.fail(2, bridge::TransportError("connection refused"));
  settle();
  EXPECT_FALSE(search.state().notice);
  EXPECT_TRUE(search.state().searching) << "delta's answer is still awaited";
  search.setQuery("");
  engine.answer(3, page({session("d", 1)}));
  settle();
  EXPECT_TRUE(search.state().found.empty());
  EXPECT_FALSE(search.state().searching);

  // A query typed and cleared before the pause never reaches the engine.
  search.setQuery("epsilon");
  search.setQuery("");
  runUntil([] { return false; }, std::chrono::milliseconds(100));
  EXPECT_EQ(engine.calls.size(), 4u);
}

TEST_F(SessionSearchTest, MorePagesJoinWithoutDuplicatesNewestFirst) {
  search.setQuery("notes");
  ASSERT_TRUE(runUntil([&] { return engine.calls.size() == 1; }));
  engine.answer(0, page({session("s3", 3, "…notes…"), session("s1", 1)}, true));
  settle();
  EXPECT_TRUE(search.state().hasMore);
  search.loadMore();
  search.loadMore();  // already asking: ignored
  settle();
  ASSERT_EQ(engine.calls.size(), 2u);
  EXPECT_EQ(engine.calls[1]->request.query, "notes");
  EXPECT_EQ(engine.calls[1]->request.offset, 2);
  // The list moved on meanwhile: s3 comes again, updated and without a snippet; s9 is newer.
  engine.answer(1, page({session("s3", 4), session("s9", 9), session("s2", 2)}, false));
  settle();
  EXPECT_EQ(ids(search.state().found), (std::vector<std::string>{"s9", "s3", "s2", "s1"}));
  EXPECT_EQ(search.state().found[1].snippet, "…notes…") << "the snippet stays with its session";
  EXPECT_FALSE(search.state().hasMore);
  search.loadMore();
  settle();
  EXPECT_EQ(engine.calls.size(), 2u) << "nothing more to load";
}

TEST_F(SessionSearchTest, AFailedSearchLeavesAQuietNoticeUntilTheNextQuery) {
  search.setQuery("pH");
  ASSERT_TRUE(runUntil([&] { return engine.calls.size() == 1; }));
  engine.fail(0, bridge::TransportError("connection refused"));
  settle();
  ASSERT_TRUE(search.state().notice);
  EXPECT_NE(search.state().notice->find("connection refused"), std::string::npos);
  EXPECT_FALSE(search.state().searching);
  EXPECT_TRUE(search.state().found.empty());
  search.setQuery("pH 5");
  EXPECT_FALSE(search.state().notice);
  ASSERT_TRUE(runUntil([&] { return engine.calls.size() == 2; }));
  engine.answer(1, page({session("x", 1)}));
  settle();
  EXPECT_FALSE(search.state().notice);
  EXPECT_EQ(search.state().found.size(), 1u);
}

TEST_F(SessionSearchTest, ClosingWithASearchInFlightRunsNothingAfterwards) {
  auto own = std::make_unique<SessionSearch>(
      main, [this](SessionSearchQuery q) { return engine(std::move(q)); },
      std::chrono::milliseconds(1));
  bool notified = false;
  own->changed().connect([&] { notified = true; });
  own->setQuery("late");
  ASSERT_TRUE(runUntil([&] { return engine.calls.size() == 1; }));
  notified = false;
  own.reset();
  settle();
  EXPECT_FALSE(notified);
}

TEST(SessionSearchSnippet, TheMatchComesNearTheStartCutAtAWord) {
  const std::string text =
      "...the review agreed on the sidebar layout and deferred theming to next";
  EXPECT_EQ(SessionSearch::focusSnippet(text, "THEMING"), "…and deferred theming to next");
  EXPECT_EQ(SessionSearch::focusSnippet(text, "review"), text) << "already near the start";
  EXPECT_EQ(SessionSearch::focusSnippet(text, "absent"), text);
  EXPECT_EQ(SessionSearch::focusSnippet(text, ""), text);
  // One long word before the match: cut inside it, but never inside a character.
  const std::string word = "Überraschungsüberraschungsüber match";
  const auto cut = SessionSearch::focusSnippet(word, "match", 9);
  EXPECT_EQ(cut.substr(cut.size() - 5), "match");
  const std::string rest = cut.substr(std::string("…").size());
  EXPECT_NE(static_cast<unsigned char>(rest[0]) & 0xC0, 0x80) << cut;
}

TEST(SessionSearchJoin, TitleMatchesAndFoundSessionsShowOnceNewestFirstForTheAgent) {
  auto listedOld = session("a", 1, std::nullopt, "main");
  listedOld.title = "listed record";
  auto foundA = session("a", 1, "…text…", "main");
  foundA.title = "found record";
  const auto rows =
      SessionSearch::joinWithListed({session("c", 3, std::nullopt, "main"), listedOld},
                                    {foundA, session("b", 2, "…b…", "main"),
                                     session("z", 9, "…z…", "researcher"), session("n", 5, "…n…")},
                                    std::string("main"));
  EXPECT_EQ(ids(rows), (std::vector<std::string>{"n", "c", "b", "a"}))
      << "another agent's session is left out; one without an agent is kept";
  EXPECT_EQ(rows[3].title, "listed record") << "the listed record wins";
  EXPECT_FALSE(rows[3].snippet) << "a title match needs no snippet";
  EXPECT_EQ(rows[2].snippet, "…b…");
  // Without an agent every found session is kept.
  EXPECT_EQ(SessionSearch::joinWithListed({}, {session("z", 9, {}, "researcher")}, {}).size(), 1u);
}

}  // namespace
}  // namespace tamsel::desktop
