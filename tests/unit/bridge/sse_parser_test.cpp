#include "tamsel/bridge/sse_parser.hpp"

#include <gtest/gtest.h>

#include <random>

#include "../test_support.hpp"
#include "tamsel/bridge/reply_stream.hpp"

namespace tamsel::bridge {
namespace {

std::vector<SSEMessage> parseLines(const std::vector<std::string>& lines) {
  SSEParser parser;
  std::vector<SSEMessage> out;
  for (const auto& line : lines)
    if (auto m = parser.feedLine(line)) out.push_back(*m);
  return out;
}

TEST(SSEParser, RemovesExactlyOneBlankAfterTheColon) {
  auto out = parseLines({"data:x", "", "data: x", "", "data:  x", "", "data:", ""});
  ASSERT_EQ(out.size(), 4u);
  EXPECT_EQ(out[0].data, "x");
  EXPECT_EQ(out[1].data, "x");
  EXPECT_EQ(out[2].data, " x");
  EXPECT_EQ(out[3].data, "");
}

TEST(SSEParser, JoinsDataLinesAndCarriesEventAndId) {
  auto out = parseLines({"event: delta", "id: 7", "data: a", "data: b", ""});
  ASSERT_EQ(out.size(), 1u);
  EXPECT_EQ(out[0].event, "delta");
  EXPECT_EQ(out[0].id, "7");
  EXPECT_EQ(out[0].data, "a\nb");
}

TEST(SSEParser, BlocksWithoutDataDispatchNothingAndStateResetsCompletely) {
  // An event line alone dispatches nothing, and its name must not leak into the next block.
  auto out = parseLines({"event: done", "", "id: 7", "data: a", "", "data: b", ""});
  ASSERT_EQ(out.size(), 2u);
  EXPECT_EQ(out[0].event, "");
  EXPECT_EQ(out[0].id, "7");
  EXPECT_EQ(out[1].data, "b");
  EXPECT_FALSE(out[1].id.has_value()) << "the id is not carried from block to block";
  EXPECT_EQ(out[1].event, "");
}

TEST(SSEParser, CommentsRetryAndUnknownLinesChangeNothing) {
  SSEParser parser;
  for (const char* line :
       {":keepalive", ": comment", "retry: 1000", "data", "event", "ids: 3", "DATA: x", "x: y"}) {
    EXPECT_FALSE(parser.feedLine(line).has_value()) << line;
  }
  EXPECT_EQ(parser.state().dataLineCount, 0u);
  EXPECT_EQ(parser.state().eventType, "");
  EXPECT_FALSE(parser.state().eventID.has_value());
  EXPECT_FALSE(parser.feedLine("").has_value());
}

TEST(SSELineSplitter, SplitsOnLineFeedAcrossAnyChunkingAndDropsTheCRBeforeIt) {
  const std::string stream =
      "event: delta\r\ndata: {\"text\":\"h\xC3\xA9llo\"}\r\n\r\n: ping\n"
      "event: delta\ndata: a\rb\n\n";
  std::vector<std::string> expected;
  SSELineSplitter whole;
  whole.feed(stream, [&](std::string_view l) { expected.emplace_back(l); });
  ASSERT_EQ(expected.size(), 7u);
  EXPECT_EQ(expected[1], "data: {\"text\":\"h\xC3\xA9llo\"}");
  EXPECT_EQ(expected[2], "");
  EXPECT_EQ(expected[5], "data: a\rb") << "a lone carriage return is content";

  std::mt19937 random(7);
  for (int round = 0; round < 200; ++round) {
    SSELineSplitter splitter;
    std::vector<std::string> lines;
    size_t at = 0;
    while (at < stream.size()) {
      const size_t n = std::min<size_t>(stream.size() - at, 1 + random() % 5);
      splitter.feed(std::string_view(stream).substr(at, n),
                    [&](std::string_view l) { lines.emplace_back(l); });
      at += n;
    }
    ASSERT_EQ(lines, expected) << "round " << round;
    EXPECT_TRUE(splitter.pending().empty());
  }
}

TEST(SSELimits, ALineOrBlockPastTheLimitIsRefusedHoweverItIsSplitAndTheBufferIsReleased) {
  // An engine that never ends a line: refused as soon as the buffered part passes the limit,
  // not when (if ever) the line feed comes.
  SSELineSplitter splitter(64);
  int lines = 0;
  const auto count = [&](std::string_view) { ++lines; };
  splitter.feed("data: ok\n", count);
  splitter.feed(std::string(40, 'x'), count);
  splitter.feed(std::string(24, 'x'), count);  // exactly 64: still allowed
  EXPECT_THROW(splitter.feed("x", count), SSELimitError);
  EXPECT_TRUE(splitter.pending().empty());
  EXPECT_EQ(lines, 1);
  // One chunk holding a whole over-long line is refused too, so chunking never changes the result.
  SSELineSplitter whole(64);
  EXPECT_THROW(whole.feed(std::string(65, 'y') + "\n", count), SSELimitError);
  SSELineSplitter fits(64);
  EXPECT_NO_THROW(fits.feed(std::string(63, 'y') + "\r\n", count));

  // The default limit holds for the real sizes: 9 MiB of line in network-sized reads.
  SSELineSplitter real;
  const std::string chunk(16384, 'z');
  std::size_t fed = 0;
  try {
    real.feed("data: ", count);
    for (; fed < (std::size_t(9) << 20); fed += chunk.size()) real.feed(chunk, count);
    ADD_FAILURE() << "a 9 MiB line was buffered";
  } catch (const SSELimitError& e) {
    EXPECT_LE(fed, kMaxSSEBytes);
    EXPECT_NE(std::string(e.what()).find("longer than 8 MiB"), std::string::npos) << e.what();
  }

  // Many short data lines without the empty line that ends a block: the block is limited too.
  SSEParser parser(100);
  for (int i = 0; i < 9; ++i) parser.feedLine("data: 123456789");  // 89 bytes once joined
  parser.feedLine("data: 123456789a");                             // 100: the limit
  EXPECT_THROW(parser.feedLine("data:"), SSELimitError);           // 101 with its line feed
  EXPECT_EQ(parser.state().dataLineCount, 0u) << "the refused block is forgotten";
  EXPECT_TRUE(parser.feedLine("data: fresh") == std::nullopt);
  auto message = parser.feedLine("");
  ASSERT_TRUE(message);
  EXPECT_EQ(message->data, "fresh");
}

TEST(SSELimits, AReplyStreamWithAnEndlessLineEndsWithTheError) {
  ReplyStream stream(nullptr);
  stream.feed("event: delta\ndata: {\"text\":\"a\"}\n\n");
  EXPECT_THROW(stream.feed("data: " + std::string(kMaxSSEBytes, 'x')), SSELimitError);
  // What arrived before the line is still delivered.
  auto first = stream.takeDecoded();
  ASSERT_TRUE(first);
  EXPECT_TRUE(first->get<SSEEvent::Delta>());
}

// ---- reply stream decoding ----

std::vector<SSEEvent> decodeAll(const std::string& bytes, ReplyStream& stream) {
  stream.feed(bytes);
  std::vector<SSEEvent> out;
  while (auto e = stream.takeDecoded()) out.push_back(std::move(*e));
  return out;
}

TEST(ReplyStreamDecoding, EveryEventDecodesIntoItsCase) {
  const std::string bytes =
      "event: session_started\ndata: {\"session_id\":\"s1\"}\n\n"
      "event: tool\ndata: "
      "{\"tool\":\"bash\",\"status\":\"running\",\"elapsed\":0,\"is_error\":false,"
      "\"args\":{\"command\":\"ls\"},\"preview\":null,\"tool_use_id\":\"tu1\"}\n\n"
      "event: delta\ndata: {\"text\":\"Hel\"}\n\n"
      "event: assistant_text\ndata: {\"text\":\"Hello\"}\n\n"
      "event: approval\ndata: "
      "{\"request_id\":\"r1\",\"tool\":\"bash\",\"args\":{},\"flags\":[\"writes_files\"]}\n\n"
      "event: question\ndata: "
      "{\"request_id\":\"q1\",\"questions\":[{\"id\":\"a\",\"question\":\"Which?\","
      "\"multi_select\":false,\"options\":[{\"label\":\"X\",\"recommended\":true}]}],\"ts\":\"2026-"
      "11-20T09:15:02Z\"}\n\n"
      "event: error\ndata: {\"error\":\"tool crashed\",\"code\":\"internal\"}\n\n"
      "event: error\ndata: {\"error\":\"no "
      "credits\",\"code\":\"credits_exhausted\",\"auto_refill_started\":true}\n\n"
      "event: injected\ndata: {\"message_id\":\"i1\",\"text\":\"more\"}\n\n"
      "event: injected_committed\ndata: {\"message_id\":\"i1\",\"text\":\"more\"}\n\n"
      "event: cloud_agent\ndata: {\"agent_id\":\"c\",\"status\":\"up\",\"message\":\"m\"}\n\n"
      "event: cloud_progress\ndata: {\"completed\":1,\"total\":3}\n\n"
      "event: cloud_plan\ndata: {\"type\":\"t\",\"content\":\"c\",\"needs_review\":true}\n\n"
      "event: done\ndata: {\"reply\":\"Hello\",\"session_id\":\"s1\",\"partial\":false}\n\n"
      "event: delta\ndata: {\"text\":\"after done\"}\n\n";
  ReplyStream stream(nullptr);
  auto events = decodeAll(bytes, stream);
  ASSERT_EQ(events.size(), 14u);
  EXPECT_EQ(events[0].get<SSEEvent::SessionStarted>()->value.sessionId, "s1");
  EXPECT_EQ(events[1].get<SSEEvent::Tool>()->value.toolUseId, "tu1");
  EXPECT_EQ(events[2].get<SSEEvent::Delta>()->value.text, "Hel");
  EXPECT_EQ(events[3].get<SSEEvent::AssistantText>()->value.text, "Hello");
  EXPECT_EQ(events[4].get<SSEEvent::Approval>()->value.flags->front(), "writes_files");
  EXPECT_EQ(events[5].get<SSEEvent::Question>()->value.questions.at(0).options->at(0).label, "X");
  EXPECT_EQ(events[6].get<SSEEvent::Error>()->value.error, "tool crashed");
  ASSERT_TRUE(events[7].get<SSEEvent::Failure>());
  EXPECT_TRUE(
      events[7].get<SSEEvent::Failure>()->value.error.is<DaemonClientError::CreditsExhausted>());
  EXPECT_EQ(events[8].get<SSEEvent::Injected>()->value.messageId, "i1");
  EXPECT_EQ(events[9].get<SSEEvent::InjectedCommitted>()->value.messageId, "i1");
  EXPECT_TRUE(events[10].get<SSEEvent::CloudAgent>());
  EXPECT_EQ(events[11].get<SSEEvent::CloudProgress>()->value.total, 3);
  EXPECT_TRUE(events[12].get<SSEEvent::CloudPlan>()->value.needsReview.value());
  EXPECT_EQ(events[13].get<SSEEvent::Done>()->value.reply, "Hello");
  EXPECT_TRUE(stream.sawDone());
}

TEST(ReplyStreamDecoding, UnknownAndUndecodableEventsAreSkipped) {
  ReplyStream stream(nullptr);
  auto events = decodeAll(
      "event: mystery\ndata: {}\n\n"
      "event: delta\ndata: not json\n\n"
      "event: delta\ndata: {\"text\": 5}\n\n"
      "event: cloud_progress\ndata: {\"completed\":1}\n\n"
      "data: {\"text\":\"no event name\"}\n\n"
      "event: delta\ndata: {\"text\":\"ok\"}\n\n",
      stream);
  ASSERT_EQ(events.size(), 1u);
  EXPECT_EQ(events[0].get<SSEEvent::Delta>()->value.text, "ok");
  EXPECT_FALSE(stream.sawDone());
}

TEST(ReplyStreamDecoding, RequestInProgressEndsTheStreamAfterEarlierEvents) {
  ReplyStream stream(nullptr);
  auto events = decodeAll(
      "event: delta\ndata: {\"text\":\"a\"}\n\n"
      "event: error\ndata: {\"error\":\"busy\",\"code\":\"idempotent_request_in_progress\"}\n\n"
      "event: delta\ndata: {\"text\":\"b\"}\n\n",
      stream);
  ASSERT_EQ(events.size(), 1u);
  try {
    test::runAsync(stream.next());
    FAIL() << "expected the in-progress error";
  } catch (const DaemonClientException& e) {
    EXPECT_TRUE(e.error().is<DaemonClientError::IdempotentRequestInProgress>());
  }
}

}  // namespace
}  // namespace tamsel::bridge
