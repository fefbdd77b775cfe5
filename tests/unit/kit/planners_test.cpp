#include <gtest/gtest.h>

#include <random>
#include <set>

#include "tamsel/bridge/session_identity_registry.hpp"
#include "tamsel/kit/desktop_local_echo_suppressor.hpp"
#include "tamsel/kit/message_list_update_planner.hpp"
#include "tamsel/kit/session_stores.hpp"
#include "tamsel/kit/transcript_merge_planner.hpp"

namespace tamsel::kit {
namespace {

using Op = TranscriptMergePlanner::MergeOp;
using Keys = std::vector<std::string>;

// Every index of both inputs exactly once; matched pairs equal and increasing on both sides.
void checkInvariant(const Keys& S, const Keys& D, const std::vector<Op>& plan) {
  std::vector<int> seenS(S.size()), seenD(D.size());
  long lastS = -1, lastD = -1;
  for (const auto& op : plan) {
    if (op.kind != Op::Kind::takeDisk) {
      ASSERT_LT(op.stateIndex, S.size());
      ++seenS[op.stateIndex];
    }
    if (op.kind != Op::Kind::takeState) {
      ASSERT_LT(op.diskIndex, D.size());
      ++seenD[op.diskIndex];
    }
    if (op.kind == Op::Kind::matched) {
      ASSERT_EQ(S[op.stateIndex], D[op.diskIndex]);
      ASSERT_GT(static_cast<long>(op.stateIndex), lastS);
      ASSERT_GT(static_cast<long>(op.diskIndex), lastD);
      lastS = static_cast<long>(op.stateIndex);
      lastD = static_cast<long>(op.diskIndex);
    }
  }
  for (int c : seenS) ASSERT_EQ(c, 1);
  for (int c : seenD) ASSERT_EQ(c, 1);
}

std::size_t matches(const std::vector<Op>& plan) {
  return static_cast<std::size_t>(std::count_if(
      plan.begin(), plan.end(), [](const Op& o) { return o.kind == Op::Kind::matched; }));
}

TEST(TranscriptMergePlanner, ListedInputs) {
  EXPECT_TRUE(TranscriptMergePlanner::plan({}, {}).empty());
  EXPECT_EQ(TranscriptMergePlanner::plan({"a", "b", "c"}, {"a", "b", "c"}),
            (std::vector<Op>{Op::matched(0, 0), Op::matched(1, 1), Op::matched(2, 2)}));
  EXPECT_EQ(TranscriptMergePlanner::plan({"a", "b"}, {"a", "b", "c"}),
            (std::vector<Op>{Op::matched(0, 0), Op::matched(1, 1), Op::takeDisk(2)}));
  EXPECT_EQ(TranscriptMergePlanner::plan({"a", "x", "c"}, {"a", "c"}),
            (std::vector<Op>{Op::matched(0, 0), Op::takeState(1), Op::matched(2, 1)}));
  EXPECT_EQ(TranscriptMergePlanner::plan({}, {"a", "b"}),
            (std::vector<Op>{Op::takeDisk(0), Op::takeDisk(1)}));
  EXPECT_EQ(TranscriptMergePlanner::plan({"a"}, {}), (std::vector<Op>{Op::takeState(0)}));
  // The tie-break is fixed: equal inputs, equal plans, memory first.
  EXPECT_EQ(
      TranscriptMergePlanner::plan({"a", "x", "z"}, {"a", "y", "z"}),
      (std::vector<Op>{Op::matched(0, 0), Op::takeState(1), Op::takeDisk(1), Op::matched(2, 2)}));
}

TEST(TranscriptMergePlanner, RandomInputsKeepTheInvariantAndTheTableFindsTheLongestMatch) {
  std::mt19937 random(42);
  for (int round = 0; round < 2000; ++round) {
    auto make = [&](std::size_t n) {
      Keys keys;
      for (std::size_t i = 0; i < n; ++i)
        keys.push_back(std::string(1, static_cast<char>('a' + random() % 5)));
      return keys;
    };
    const Keys S = make(random() % 12), D = make(random() % 12);
    const auto plan = TranscriptMergePlanner::plan(S, D);
    checkInvariant(S, D, plan);
    if (::testing::Test::HasFatalFailure()) FAIL() << "round " << round;
    // Small inputs go through the table: the match count is the true LCS length.
    std::vector<std::vector<int>> lcs(S.size() + 1, std::vector<int>(D.size() + 1));
    for (std::size_t i = S.size(); i-- > 0;)
      for (std::size_t j = D.size(); j-- > 0;)
        lcs[i][j] = S[i] == D[j] ? lcs[i + 1][j + 1] + 1 : std::max(lcs[i + 1][j], lcs[i][j + 1]);
    ASSERT_EQ(matches(plan), static_cast<std::size_t>(lcs[0][0])) << "round " << round;
  }
}

TEST(TranscriptMergePlanner, TableAndMapBoundary) {
  EXPECT_TRUE(TranscriptMergePlanner::usesTable(1000, 1000));
  EXPECT_FALSE(TranscriptMergePlanner::usesTable(1001, 1000));
  EXPECT_FALSE(TranscriptMergePlanner::usesTable(1000, 1001)) << "1,000,000 / 1,001 is 999";
  EXPECT_TRUE(TranscriptMergePlanner::usesTable(1, 1000000));
}

TEST(TranscriptMergePlanner, LargeMiddlesUseTheMapAndStillHoldTheInvariant) {
  // 1,001 x 1,000 middle with a shuffled overlap and duplicates.
  std::mt19937 random(7);
  Keys S{"head"}, D{"head"};
  for (int i = 0; i < 1001; ++i) S.push_back("m" + std::to_string(random() % 700));
  for (int i = 0; i < 1000; ++i) D.push_back("m" + std::to_string(random() % 700));
  S.push_back("tail");
  D.push_back("tail");
  const auto plan = TranscriptMergePlanner::plan(S, D);
  checkInvariant(S, D, plan);
  EXPECT_EQ(plan.front(), Op::matched(0, 0));
  EXPECT_EQ(plan.back(), Op::matched(S.size() - 1, D.size() - 1));
  EXPECT_GT(matches(plan), 2u);
}

TEST(MessageListUpdatePlanner, ChoosesTheSmallestUpdate) {
  auto msg = [](std::string id, std::string text) {
    Message m;
    m.id = std::move(id);
    m.content = std::move(text);
    return m;
  };
  using W = MessageListUpdatePlanner::WebUpdate;
  const std::vector<Message> a{msg("1", "hi"), msg("2", "hel")};
  EXPECT_EQ(MessageListUpdatePlanner::plan(a, a), std::nullopt);
  EXPECT_EQ(MessageListUpdatePlanner::plan(a, a, true), (std::vector<W>{{W::Kind::fullReload, a}}));

  auto grown = a;
  grown[1].content = "hello";
  EXPECT_EQ(MessageListUpdatePlanner::plan(a, grown),
            (std::vector<W>{{W::Kind::update, {grown[1]}}}));
  auto appended = grown;
  appended.push_back(msg("3", "next"));
  EXPECT_EQ(MessageListUpdatePlanner::plan(a, appended),
            (std::vector<W>{{W::Kind::update, {grown[1]}}, {W::Kind::append, {appended[2]}}}));
  std::vector<Message> older{msg("0", "earlier"), a[0], a[1]};
  EXPECT_EQ(MessageListUpdatePlanner::plan(a, older),
            (std::vector<W>{{W::Kind::prepend, {older[0]}}}));
  std::vector<Message> other{msg("9", "x"), a[1]};
  EXPECT_EQ(MessageListUpdatePlanner::plan(a, other),
            (std::vector<W>{{W::Kind::fullReload, other}}));
  EXPECT_EQ(MessageListUpdatePlanner::plan(a, {}), (std::vector<W>{{W::Kind::fullReload, {}}}));
  EXPECT_EQ(MessageListUpdatePlanner::plan({}, a), (std::vector<W>{{W::Kind::append, a}}));
}

TEST(SessionScopedStores, ValueStoreDropsTheLeastRecentlyWritten) {
  SessionScopedValueStore<int> store(2);
  store.set(1, "a");
  store.set(2, "b");
  store.set(3, "c");
  EXPECT_EQ(store.value("a"), std::nullopt);
  EXPECT_EQ(store.value("b"), 2);
  EXPECT_EQ(store.value("c"), 3);
  store.set(20, "b");  // rewriting makes b the newest
  store.set(4, "d");
  EXPECT_EQ(store.lruOrder(), (std::vector<std::string>{"b", "d"}));
  store.set(std::nullopt, "b");
  EXPECT_EQ(store.lruOrder(), (std::vector<std::string>{"d"}));
  store.set(5, "");
  EXPECT_EQ(store.value(""), std::nullopt);

  SessionScopedValueStore<int> none(-3);
  none.set(1, "a");
  EXPECT_EQ(none.maxEntries(), 0u);
  EXPECT_TRUE(none.valuesByKey().empty());
  EXPECT_EQ(SessionScopedValueStore<int>(0), none);

  SessionScopedQueueStore<std::string> queue;
  queue.replace("s", {"x", "y"});
  EXPECT_EQ(queue.items("s").size(), 2u);
  queue.replace("s", {});
  EXPECT_TRUE(queue.itemsByKey().empty());
}

TEST(SessionIdentityRegistry, MapsBothWaysAndCountsChanges) {
  bridge::SessionIdentityRegistry registry;
  int notified = 0;
  registry.changed().connect([&] { ++notified; });
  registry.registerPair("p", "r");
  EXPECT_EQ(registry.realID("p"), "r");
  EXPECT_EQ(registry.realID("r"), "r");
  EXPECT_EQ(registry.pendingID("r"), "p");
  EXPECT_EQ(registry.pendingID("p"), "p");
  EXPECT_EQ(registry.realID(""), "");
  EXPECT_EQ(registry.realIDIfRegistered("x"), std::nullopt);
  EXPECT_EQ(registry.pendingIDIfRegistered("r"), "p");
  EXPECT_EQ(registry.version(), 1u);
  registry.registerPair("p", "r");
  EXPECT_EQ(registry.version(), 1u) << "the same pair again is no change";
  registry.registerPair("p", "r2");
  EXPECT_EQ(registry.pendingIDIfRegistered("r"), std::nullopt);
  EXPECT_EQ(registry.realID("p"), "r2");
  EXPECT_EQ(notified, 2);
}

TEST(DesktopLocalEchoSuppressor, SuppressesOnlyWhatThisDesktopAlreadyShows) {
  DesktopLocalEchoSuppressionState s;
  s.source = "desktop";
  s.eventSessionID = "r1";
  EXPECT_FALSE(DesktopLocalEchoSuppressor::decide(s)) << "a session this desktop is not running";
  s.currentSessionID = "r1";
  EXPECT_TRUE(DesktopLocalEchoSuppressor::decide(s));
  s.source = "telegram";
  EXPECT_FALSE(DesktopLocalEchoSuppressor::decide(s)) << "another source is always shown";
  s = {};
  s.source = "desktop";
  s.eventSessionID = "r1";
  s.pendingAliasForEventSession = "p1";
  s.currentPendingSessionLocalID = "p1";
  EXPECT_TRUE(DesktopLocalEchoSuppressor::decide(s));
  s.currentPendingSessionLocalID = "p2";
  EXPECT_FALSE(DesktopLocalEchoSuppressor::decide(s));
  s.runningPendingSessionIDs = {"p1"};
  EXPECT_TRUE(DesktopLocalEchoSuppressor::decide(s));
  s.runningPendingSessionIDs.clear();
  s.runningSessionIDs = {"r1"};
  EXPECT_TRUE(DesktopLocalEchoSuppressor::decide(s));
  s.runningSessionIDs.clear();
  s.isForegroundStreamActive = true;
  EXPECT_TRUE(DesktopLocalEchoSuppressor::decide(s));
  s.eventSessionID.reset();
  EXPECT_FALSE(DesktopLocalEchoSuppressor::decide(s));
}

}  // namespace
}  // namespace tamsel::kit
