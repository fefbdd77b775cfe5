#include "tamsel/bridge/event_stream_client.hpp"

#include <gtest/gtest.h>

#include <boost/asio/detached.hpp>
#include <boost/asio/io_context.hpp>

#include "../test_support.hpp"

namespace tamsel::bridge {
namespace {

SSEMessage message(std::string event, std::string data,
                   std::optional<std::string> id = std::nullopt) {
  return SSEMessage{std::move(id), std::move(event), std::move(data)};
}

DaemonEventPtr usage(int n) {
  auto decoded =
      decodeDaemonEvent(message("usage", "{\"input_tokens\":" + std::to_string(n) + "}"));
  return std::make_shared<const DaemonEvent>(std::move(*decoded));
}

DaemonEventPtr approval(const std::string& id) {
  auto decoded = decodeDaemonEvent(message("approval_request", "{\"request_id\":\"" + id + "\"}"));
  return std::make_shared<const DaemonEvent>(std::move(*decoded));
}

std::int64_t tokens(const DaemonEventPtr& e) {
  return *e->get<DaemonEvent::Usage>()->value.inputTokens;
}

TEST(EventStreamBackoff, DoublesAfterShortConnectionsAndResetsAfterLongOnes) {
  EventStreamBackoff b;
  EXPECT_EQ(b.afterConnection(1.0), 1.0);
  EXPECT_EQ(b.backoffSeconds, 2.0);
  EXPECT_EQ(b.afterConnection(0), 2.0);
  EXPECT_EQ(b.afterConnection(0), 4.0);
  for (int i = 0; i < 10; ++i) b.afterConnection(0.5);
  EXPECT_EQ(b.backoffSeconds, 30.0) << "capped";
  EXPECT_EQ(b.afterConnection(1.99), 30.0);
  EXPECT_EQ(b.afterConnection(3.0), 1.0) << "a connection that lived 3 s resets the backoff";
  EXPECT_EQ(b.attempt, 0);
  EXPECT_EQ(b.backoffSeconds, 1.0);
}

TEST(DaemonEvents, DecodeByWireNameAndSkipTheUnknown) {
  auto e = decodeDaemonEvent(
      message("tool_status",
              R"({"tool":"bash","status":"done","is_error":false,"session_id":"s1"})", "41"));
  ASSERT_TRUE(e);
  EXPECT_EQ(e->wireName(), "tool_status");
  EXPECT_EQ(e->get<DaemonEvent::ToolStatus>()->value.sessionId, "s1");
  EXPECT_EQ(e->id, "41");
  EXPECT_FALSE(e->isCritical());

  e = decodeDaemonEvent(message(
      "work_plan_updated",
      R"({"session_id":"s","steps":[{"content":"a","status":"done"}],"updated_at":"2026-11-20T09:15:02.5Z"})"));
  ASSERT_TRUE(e);
  EXPECT_EQ(e->get<DaemonEvent::WorkPlanUpdated>()->value.steps->at(0).content, "a");
  EXPECT_TRUE(decodeDaemonEvent(message("computer_use_activity", R"({"anything":[1,2]})")));
  EXPECT_TRUE(
      decodeDaemonEvent(message("question_resolved", R"({"request_id":"q"})"))->isCritical());

  EXPECT_FALSE(decodeDaemonEvent(message("brand_new_event", "{}")));
  EXPECT_FALSE(decodeDaemonEvent(message("approval_request", R"({"tool":"bash"})")))
      << "request id is required";
  EXPECT_FALSE(decodeDaemonEvent(message("usage", "not json")));
  EXPECT_FALSE(decodeDaemonEvent(message("deliverable", R"({"ts":"last week"})")));
}

TEST(EventSubscription, KeepsTheNewest2048AndCountsWhatItDrops) {
  EventSubscription s;
  for (int i = 1; i <= 2049; ++i) s.push(usage(i));
  EXPECT_EQ(s.dropped(), 1u);
  EXPECT_EQ(tokens(*s.tryNext()), 2) << "the 2049th pushed out the oldest";
  int count = 1;
  std::int64_t last = 2;
  while (auto e = s.tryNext()) {
    EXPECT_EQ(tokens(*e), last + 1);
    last = tokens(*e);
    ++count;
  }
  EXPECT_EQ(count, 2048);
  EXPECT_EQ(last, 2049);
}

TEST(EventSubscription, LosingACriticalEventEndsTheSequenceWithAnError) {
  EventSubscription s;
  s.push(approval("r1"));
  for (int i = 0; i < 2047; ++i) s.push(usage(i));
  EXPECT_EQ(s.dropped(), 0u);
  s.push(usage(9999));  // pushes out the approval request
  try {
    test::runAsync(s.next());
    FAIL() << "expected the overflow error";
  } catch (const SSEBufferOverflowError& e) {
    EXPECT_STREQ(e.what(), "The event consumer could not keep up with critical daemon events.");
  }
  EXPECT_EQ(test::runAsync(s.next()), std::nullopt) << "the sequence is over";
  s.push(usage(1));
  EXPECT_FALSE(s.tryNext());
}

TEST(EventStreamClient, FansOutToEverySubscriberIndependently) {
  boost::asio::io_context io;
  EventStreamClient client(io.get_executor(),
                           {.port = 1, .presenceToken = "t", .desktopDeviceID = "d"});
  auto slow = client.subscribe();
  auto fast = client.subscribe();
  EXPECT_TRUE(client.isRunning()) << "the first subscription starts the loop";
  client.stop();
  EXPECT_NE(slow.id, fast.id);

  for (int i = 0; i < 3000; ++i) {
    client.dispatch(
        message("usage", "{\"input_tokens\":" + std::to_string(i) + "}", std::to_string(i)));
    // The fast subscriber keeps up; the slow one never reads.
    ASSERT_EQ(tokens(*fast.events->tryNext()), i);
  }
  client.dispatch(message("unknown_thing", "{}", "3000"));
  EXPECT_EQ(client.lastEventID(), "3000") << "ids of skipped events still move the resume point";
  auto dropped = client.droppedCounts();
  EXPECT_EQ(dropped[slow.id], 3000u - 2048u);
  EXPECT_EQ(dropped[fast.id], 0u);

  // A waiting consumer wakes for a new event, and unsubscribing ends its sequence.
  std::vector<std::int64_t> seen;
  bool ended = false;
  boost::asio::co_spawn(
      io,
      [&]() -> boost::asio::awaitable<void> {
        while (auto e = co_await fast.events->next()) seen.push_back(tokens(*e));
        ended = true;
      },
      boost::asio::detached);
  io.poll();
  client.dispatch(message("usage", "{\"input_tokens\":77}"));
  io.poll();
  client.unsubscribe(fast.id);
  io.poll();
  EXPECT_EQ(seen, std::vector<std::int64_t>{77});
  EXPECT_TRUE(ended);
  EXPECT_EQ(client.droppedCounts().count(fast.id), 0u);
}

}  // namespace
}  // namespace tamsel::bridge
