#include <gtest/gtest.h>

#include <boost/json.hpp>

#include "tamsel/bridge/session_identity_registry.hpp"
#include "tamsel/kit/cancellation_planning.hpp"
#include "tamsel/kit/composer_draft_key.hpp"
#include "tamsel/kit/composer_queue.hpp"
#include "tamsel/kit/external_queued_messages.hpp"
#include "tamsel/kit/injected_message_prefix.hpp"

namespace tamsel::kit {
namespace {

using namespace std::chrono_literals;

base::Timestamp at(int seconds) {
  return base::Timestamp{} + std::chrono::seconds(1'800'000'000 + seconds);
}

Attachment attachment(std::string id) {
  Attachment a;
  a.id = std::move(id);
  a.filename = a.id + ".png";
  a.kind = Attachment::Kind::image;
  return a;
}

QueuedDraftMessage draft(std::string id, std::string text, int enqueuedSecond) {
  QueuedDraftMessage d;
  d.id = std::move(id);
  d.text = std::move(text);
  d.enqueuedAt = at(enqueuedSecond);
  return d;
}

TEST(InjectedMessagePrefix, AppliesAndStrips) {
  EXPECT_EQ(InjectedMessagePrefix::text.size(), 24u);
  const std::string injected = InjectedMessagePrefix::apply("stop and use tabs");
  EXPECT_EQ(injected, "[New message from user]\nstop and use tabs");
  EXPECT_EQ(InjectedMessagePrefix::strip(injected), "stop and use tabs");
  EXPECT_EQ(InjectedMessagePrefix::strip(InjectedMessagePrefix::apply("")), "");

  // Only the whole prefix, newline included, at the very start counts.
  EXPECT_EQ(InjectedMessagePrefix::strip("[New message from user]"), "[New message from user]");
  EXPECT_EQ(InjectedMessagePrefix::strip("[New message from user] hi"),
            "[New message from user] hi");
  EXPECT_EQ(InjectedMessagePrefix::strip(" [New message from user]\nhi"),
            " [New message from user]\nhi");
  EXPECT_EQ(InjectedMessagePrefix::strip("plain"), "plain");
  // Only one prefix is taken off; a quoted second one is the user's text.
  EXPECT_EQ(InjectedMessagePrefix::strip("[New message from user]\n[New message from user]\nx"),
            "[New message from user]\nx");

  EXPECT_EQ(InjectedMessagePrefix::stripTrimmed("\n  [New message from user]\nhello  \n"), "hello");
  EXPECT_EQ(InjectedMessagePrefix::stripTrimmed("  [New message from user]\n  indented"),
            "  indented");
  EXPECT_EQ(InjectedMessagePrefix::stripTrimmed(" [New message from user] "),
            "[New message from user]");

  EXPECT_EQ(InjectedMessagePrefix::applyEach({"a", "b"}),
            "[New message from user]\na\n\n[New message from user]\nb");
  EXPECT_EQ(InjectedMessagePrefix::applyEach({}), "");
}

ExternalQueuedMessage external(std::string id, std::string text, int second = 0) {
  return ExternalQueuedMessage{std::move(id), "slack", "dana", std::move(text), at(second)};
}

std::vector<std::string> texts(const std::vector<ExternalQueuedMessage>& items) {
  std::vector<std::string> out;
  for (const auto& item : items) out.push_back(item.text);
  return out;
}

TEST(ExternalQueuedMessageStore, BoundBelowTwoKeepsTheNewestOne) {
  for (long long bound : {0LL, 1LL, -7LL}) {
    ExternalQueuedMessageStore store(bound);
    EXPECT_EQ(store.maxItemsPerSession(), 1u) << bound;
    store.enqueue(external("a", "first"), "s1");
    store.enqueue(external("b", "second"), "s1");
    store.enqueue(external("c", "third"), "s1");
    EXPECT_EQ(texts(store.items("s1")), std::vector<std::string>{"third"}) << bound;
  }
  EXPECT_EQ(ExternalQueuedMessageStore(2).maxItemsPerSession(), 2u);
  EXPECT_EQ(ExternalQueuedMessageStore().maxItemsPerSession(), 20u);
}

TEST(ExternalQueuedMessageStore, ReplacesByIdInPlaceAndDropsFromTheFront) {
  ExternalQueuedMessageStore store(3);
  store.enqueue(external("a", "one"), "s1");
  store.enqueue(external("b", "two"), "s1");
  store.enqueue(external("c", "three"), "s1");
  store.enqueue(external("b", "two, edited", 9), "s1");
  EXPECT_EQ(texts(store.items("s1")), (std::vector<std::string>{"one", "two, edited", "three"}));
  EXPECT_EQ(store.items("s1")[1].receivedAt, at(9));

  store.enqueue(external("d", "four"), "s1");
  store.enqueue(external("e", "five"), "s1");
  EXPECT_EQ(texts(store.items("s1")), (std::vector<std::string>{"three", "four", "five"}));

  // Sessions are independent; an id repeated in another session is a different message.
  store.enqueue(external("e", "elsewhere"), "s2");
  EXPECT_EQ(texts(store.items("s2")), std::vector<std::string>{"elsewhere"});
  EXPECT_EQ(store.items("s1").back().text, "five");

  // Messages without an id never replace each other.
  ExternalQueuedMessageStore anonymous(5);
  anonymous.enqueue(external("", "x"), "s");
  anonymous.enqueue(external("", "y"), "s");
  EXPECT_EQ(texts(anonymous.items("s")), (std::vector<std::string>{"x", "y"}));
}

TEST(ExternalQueuedMessageStore, IgnoresMissingSessionsAndBlankText) {
  ExternalQueuedMessageStore store(5);
  store.enqueue(external("a", "hello"), "");
  store.enqueue(external("b", " \n\t "), "s1");
  store.enqueue(external("c", ""), "s1");
  EXPECT_TRUE(store.itemsBySessionID().empty());
  EXPECT_TRUE(store.items("").empty());
  EXPECT_TRUE(store.items("unknown").empty());

  store.enqueue(external("a", "hello"), "s1");
  store.remove("");
  EXPECT_EQ(store.items("s1").size(), 1u);
  store.remove("s1");
  EXPECT_TRUE(store.items("s1").empty());
}

TEST(QueueForceSend, PlansNothingWithoutAnythingToSend) {
  EXPECT_FALSE(QueueForceSendPlanner::plan({}, ""));
  EXPECT_FALSE(QueueForceSendPlanner::plan({}, "  \n "));

  auto typedOnly = QueueForceSendPlanner::plan({}, "  now this \n");
  ASSERT_TRUE(typedOnly);
  EXPECT_TRUE(typedOnly->queuedItems.empty());
  EXPECT_EQ(typedOnly->trimmedTypedText, "now this");
  EXPECT_EQ(QueueForceSendPayloadPlanner::plan(*typedOnly).promptText, "now this");
}

TEST(QueueForceSend, OneMessageCarriesQueuedItemsOldestFirstThenTheTypedText) {
  auto older = draft("q1", "  first question ", 10);
  older.attachments = {attachment("img-1")};
  older.contentBlocks = {boost::json::value{{"type", "image"}, {"ref", "img-1"}}};
  auto newer = draft("q2", "second", 20);
  newer.attachments = {attachment("doc-2"), attachment("img-1")};
  newer.contentBlocks = {boost::json::value{{"type", "text"}, {"text", "quoted"}}};
  auto attachmentOnly = draft("q3", "   ", 15);
  attachmentOnly.attachments = {attachment("shot-3")};

  // Queue order in memory may differ from the order they were typed in.
  auto plan = QueueForceSendPlanner::plan({newer, attachmentOnly, older}, "\tand finally this\n");
  ASSERT_TRUE(plan);
  ASSERT_EQ(plan->queuedItems.size(), 3u);
  EXPECT_EQ(plan->queuedItems[0].id, "q1");
  EXPECT_EQ(plan->queuedItems[1].id, "q3");
  EXPECT_EQ(plan->queuedItems[2].id, "q2");

  const auto payload = QueueForceSendPayloadPlanner::plan(*plan);
  EXPECT_EQ(payload.promptText, "first question\n\nsecond\n\nand finally this");
  EXPECT_EQ(payload.trimmedTypedText, "and finally this");
  EXPECT_EQ(payload.queuedItems, plan->queuedItems);
  ASSERT_EQ(payload.attachments.size(), 3u);
  EXPECT_EQ(payload.attachments[0].id, "img-1");
  EXPECT_EQ(payload.attachments[1].id, "shot-3");
  EXPECT_EQ(payload.attachments[2].id, "doc-2");
  ASSERT_EQ(payload.contentBlocks.size(), 2u);
  EXPECT_EQ(payload.contentBlocks[0].at("ref"), "img-1");
  EXPECT_EQ(payload.contentBlocks[1].at("text"), "quoted");

  // Equal times keep their queue order.
  auto tie = QueueForceSendPlanner::plan({draft("x", "x", 5), draft("y", "y", 5)}, "");
  EXPECT_EQ(QueueForceSendPayloadPlanner::plan(*tie).promptText, "x\n\ny");
}

TEST(QueuedDraftJoinPlanner, JoinsOldestFirstAndSkipsEmptyDrafts) {
  EXPECT_FALSE(QueuedDraftJoinPlanner::join({}));
  EXPECT_FALSE(QueuedDraftJoinPlanner::join({draft("a", " ", 1), draft("b", "", 2)}));

  auto single = draft("a", "  keep me as typed ", 1);
  single.replyAnchors = {boost::json::value("anchor")};
  EXPECT_EQ(QueuedDraftJoinPlanner::join({single, draft("b", "\n", 2)}), single);

  auto first = draft("a", "alpha", 1);
  first.attachments = {attachment("f")};
  first.replyAnchors = {boost::json::value{{"messageId", "m1"}}};
  auto second = draft("b", " beta ", 2);
  second.injectRouteSessionID = "sess-9";
  second.contentBlocks = {boost::json::value{{"type", "text"}}};
  second.attachments = {attachment("f"), attachment("g")};
  second.replyAnchors = {boost::json::value{{"messageId", "m2"}}};
  auto third = draft("c", "gamma", 3);
  third.injectRouteSessionID = "sess-other";

  auto joined = QueuedDraftJoinPlanner::join({third, second, first, draft("empty", "", 0)});
  ASSERT_TRUE(joined);
  EXPECT_EQ(joined->id, "a");
  EXPECT_EQ(joined->enqueuedAt, at(1));
  EXPECT_EQ(joined->text, "alpha\n\nbeta\n\ngamma");
  ASSERT_EQ(joined->attachments.size(), 2u);
  EXPECT_EQ(joined->attachments[0].id, "f");
  EXPECT_EQ(joined->attachments[1].id, "g");
  EXPECT_EQ(joined->contentBlocks.size(), 1u);
  ASSERT_EQ(joined->replyAnchors.size(), 2u);
  EXPECT_EQ(joined->replyAnchors[0].at("messageId"), "m1");
  EXPECT_EQ(joined->injectRouteSessionID, "sess-9");
}

TEST(QueuedDraftDrainCoordinator, DrainsOnceAfterTheReplyEnds) {
  QueuedDraftDrainCoordinator coordinator;
  EXPECT_EQ(coordinator.action("s1", true, false), QueuedDraftDrainAction::none);  // never marked

  coordinator.markReady("s1");
  coordinator.markReady("s2");
  coordinator.markReady("");
  EXPECT_EQ(coordinator.readySessionKeys(), (std::set<std::string>{"s1", "s2"}));

  // A reply running again holds the drain back without losing the mark.
  EXPECT_EQ(coordinator.action("s1", true, true), QueuedDraftDrainAction::none);
  EXPECT_EQ(coordinator.action("s1", true, false), QueuedDraftDrainAction::drainNow);
  EXPECT_EQ(coordinator.action("s1", true, false), QueuedDraftDrainAction::none);  // consumed

  // Nothing queued: the mark is dropped, so an item queued later waits for the next reply end.
  EXPECT_EQ(coordinator.action("s2", false, false), QueuedDraftDrainAction::none);
  EXPECT_EQ(coordinator.action("s2", true, false), QueuedDraftDrainAction::none);

  coordinator.markReady("s3");
  coordinator.clear("s3");
  EXPECT_EQ(coordinator.action("s3", true, false), QueuedDraftDrainAction::none);
  EXPECT_TRUE(coordinator.readySessionKeys().empty());
}

TEST(PendingCancelCleanupPlanner, DecisionTable) {
  using P = PendingCancelCleanupPlan;
  using Opt = std::optional<std::string>;
  using Restore = std::optional<PendingCancelInterruptRestoreSession>;
  const auto restore = [](Opt sessionID, Opt pendingLocalID) {
    return Restore(
        PendingCancelInterruptRestoreSession{std::move(sessionID), std::move(pendingLocalID)});
  };
  struct Row {
    const char* id;
    bool listed, discardable;
    Opt real, current;
    Restore restore;
    P expected;
  };
  const Restore none;
  const std::vector<Row> rows = {
      {"p1", true, true, "real-1", {}, none, P::promoteToReal},
      {"p1", true, false, "real-1", {}, none, P::promoteToReal},
      {"p1", true, true, "p1", {}, none, P::discardPendingDraft},  // registry echoing the pending
                                                                   // id
      {"p1", true, true, "", {}, none, P::discardPendingDraft},
      {"p1", true, true, {}, {}, none, P::discardPendingDraft},
      {"p1", true, false, {}, {}, none, P::skip},
      {"p1", false, true, {}, {}, none, P::ignoreStaleOrphan},
      {"p1", false, true, "real-1", {}, none, P::ignoreStaleOrphan},
      {"p1", false, true, {}, "p1", none, P::detachStalePendingMarker},
      {"p1", false, true, {}, "p2", none, P::ignoreStaleOrphan},
      {"p1", true, true, {}, {}, restore({}, "p1"), P::skip},
      {"p1", true, true, {}, {}, restore("other", "p2"), P::discardPendingDraft},
      {"p1", true, true, "real-1", {}, restore("real-1", {}), P::skip},
      {"p1", true, true, {}, {}, restore({}, {}), P::discardPendingDraft},  // names nothing
      {"p1", false, true, {}, "p1", restore({}, "p1"), P::skip},  // restore wins over a stale
                                                                  // marker
      {"", true, true, {}, "", none, P::ignoreStaleOrphan},
  };
  for (std::size_t i = 0; i < rows.size(); ++i) {
    const Row& r = rows[i];
    PendingCancelCleanupPlanner::Input in{
        {r.id, r.discardable}, r.real, r.listed, r.current, r.restore};
    EXPECT_EQ(name(PendingCancelCleanupPlanner::plan(in)), std::string(name(r.expected)))
        << "row " << i;
  }
}

TEST(StreamOwnershipPlanner, DecisionTable) {
  const std::map<std::string, std::string> tokens{{"s1", "t1"}, {"s2", "t2"}};
  EXPECT_EQ(StreamOwnershipPlanner::decide("t1", "s1", tokens, "s1"),
            StreamOwnership::deliverToView);
  EXPECT_EQ(StreamOwnershipPlanner::decide("t1", "s1", tokens, "s2"),
            StreamOwnership::deliverInBackground);
  EXPECT_EQ(StreamOwnershipPlanner::decide("t1", "s1", tokens, std::nullopt),
            StreamOwnership::deliverInBackground);
  // Superseded by a newer stream of the same session, or its session no longer streaming.
  EXPECT_EQ(StreamOwnershipPlanner::decide("t-old", "s1", tokens, "s1"), StreamOwnership::drop);
  EXPECT_EQ(StreamOwnershipPlanner::decide("t1", "s3", tokens, "s3"), StreamOwnership::drop);
  // A token owning another session does not own this one.
  EXPECT_EQ(StreamOwnershipPlanner::decide("t2", "s1", tokens, "s1"), StreamOwnership::drop);
  EXPECT_EQ(StreamOwnershipPlanner::decide("", "s4", {{"s4", ""}}, "s4"), StreamOwnership::drop);
}

TEST(StreamCancellationTracker, TracksTokensUntilCleared) {
  StreamCancellationTracker tracker;
  tracker.markCancelling("t1");
  tracker.markCancelling("t2");
  tracker.markCancelling("");
  EXPECT_TRUE(tracker.isCancelling("t1"));
  EXPECT_FALSE(tracker.isCancelling(""));
  tracker.clear("t1");
  tracker.clear("unknown");
  EXPECT_FALSE(tracker.isCancelling("t1"));
  EXPECT_EQ(tracker.cancellingTokens(), std::set<std::string>{"t2"});
}

TEST(ComposerDraftKey, KindsStayApart) {
  const std::string session = ComposerDraftKey::forSession("abc");
  const std::string pending = ComposerDraftKey::forPendingSession("abc");
  const std::string fresh = ComposerDraftKey::forNewSession("abc");
  EXPECT_NE(session, pending);
  EXPECT_NE(session, fresh);
  EXPECT_NE(pending, fresh);
  EXPECT_EQ(ComposerDraftKey::pendingLocalID(pending), "abc");
  EXPECT_FALSE(ComposerDraftKey::pendingLocalID(session));
  EXPECT_FALSE(ComposerDraftKey::pendingLocalID(ComposerDraftKey::forPendingSession("")));
}

}  // namespace
}  // namespace tamsel::kit
