// Event-stream parsing, reply-stream decoding and event-bus fan-out.
#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <boost/asio/co_spawn.hpp>
#include <boost/asio/io_context.hpp>
#include <thread>

#include "tamsel/bridge/daemon_client.hpp"
#include "tamsel/bridge/event_stream_client.hpp"
#include "tamsel/bridge/sse_parser.hpp"

namespace {

using namespace tamsel::bridge;

std::string eventStreamText(int events) {
  std::string text;
  for (int i = 0; i < events; ++i) {
    text += "id: " + std::to_string(i) +
            "\nevent: delta\ndata: {\"text\":\"a fragment of the reply, about fifty bytes\"}\n\n";
    if (i % 50 == 0) text += ": keepalive\n";
  }
  return text;
}

// Lines through the splitter and the parser: the hot path of every stream.
void ParseEventStreamLines(benchmark::State& state) {
  const std::string text = eventStreamText(20000);
  SSEMessage message;
  std::size_t dispatched = 0;
  for (auto _ : state) {
    SSELineSplitter splitter;
    SSEParser parser;
    for (std::size_t at = 0; at < text.size(); at += 16384) {
      splitter.feed(std::string_view(text).substr(at, 16384), [&](std::string_view line) {
        if (parser.feedLine(line, message)) ++dispatched;
      });
    }
  }
  benchmark::DoNotOptimize(dispatched);
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text.size()));
}
BENCHMARK(ParseEventStreamLines);

// Four subscribers each receive every event; they drain as they go, as live consumers do.
void FanOutToFourSubscribers(benchmark::State& state) {
  boost::asio::io_context io;
  EventStreamClient client(io.get_executor(), {});
  std::vector<EventStreamClient::Subscription> subscribers;
  for (int i = 0; i < 4; ++i) subscribers.push_back(client.subscribe());
  client.stop();
  const SSEMessage message{
      std::string("1"), "tool_status",
      R"({"tool":"bash","status":"running","elapsed":0.5,"is_error":false,"session_id":"s_1"})"};
  for (auto _ : state) {
    client.dispatch(message);
    for (auto& s : subscribers) benchmark::DoNotOptimize(s.events->tryNext());
  }
  state.SetItemsProcessed(state.iterations() * 4);
  state.counters["deliveries/s"] =
      benchmark::Counter(static_cast<double>(state.iterations() * 4), benchmark::Counter::kIsRate);
}
BENCHMARK(FanOutToFourSubscribers);

// The same fan-out with the decode done once outside: the cost of delivery alone.
void DeliverToFourSubscribers(benchmark::State& state) {
  std::vector<std::shared_ptr<EventSubscription>> subscribers;
  for (int i = 0; i < 4; ++i) subscribers.push_back(std::make_shared<EventSubscription>());
  auto event = std::make_shared<const DaemonEvent>(
      *decodeDaemonEvent({std::nullopt, "usage", R"({"input_tokens":1})"}));
  for (auto _ : state) {
    for (auto& s : subscribers) s->push(event);
    for (auto& s : subscribers) benchmark::DoNotOptimize(s->tryNext());
  }
  state.counters["deliveries/s"] =
      benchmark::Counter(static_cast<double>(state.iterations() * 4), benchmark::Counter::kIsRate);
}
BENCHMARK(DeliverToFourSubscribers);

// A reply of many events from a loopback peer that writes as fast as it can, decoded by the
// client's real HTTP and stream code.
void ReplyStreamEndToEnd(benchmark::State& state) {
  const int events = 100000;
  std::string body;
  for (int i = 0; i < events; ++i) body += "event: delta\ndata: {\"text\":\"word \"}\n\n";
  body += "event: done\ndata: {\"reply\":\"\",\"partial\":false}\n\n";
  const std::string response =
      "HTTP/1.1 200 OK\r\nContent-Type: text/event-stream\r\nConnection: close\r\n\r\n" + body;

  const int listener = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  ::bind(listener, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
  socklen_t len = sizeof addr;
  ::getsockname(listener, reinterpret_cast<sockaddr*>(&addr), &len);
  ::listen(listener, 16);
  const auto port = ntohs(addr.sin_port);
  std::atomic<bool> stop{false};
  std::thread server([&] {
    while (!stop) {
      const int fd = ::accept(listener, nullptr, nullptr);
      if (fd < 0) break;
      char request[4096];
      (void)::read(fd, request, sizeof request);
      for (std::size_t at = 0; at < response.size();) {
        const ssize_t n = ::write(fd, response.data() + at, response.size() - at);
        if (n <= 0) break;
        at += static_cast<std::size_t>(n);
      }
      ::close(fd);
    }
  });

  DaemonClient client({port, "token", "device", {}});
  std::int64_t decoded = 0;
  for (auto _ : state) {
    boost::asio::io_context io;
    boost::asio::co_spawn(
        io,
        [&]() -> boost::asio::awaitable<void> {
          SendMessageRequest request;
          request.text = "go";
          auto stream = co_await client.sendMessage(request);
          while (auto event = co_await stream.next()) ++decoded;
        },
        [](std::exception_ptr e) {
          if (e) std::rethrow_exception(e);
        });
    io.run();
  }
  stop = true;
  ::shutdown(listener, SHUT_RDWR);
  ::close(listener);
  server.join();
  state.counters["events/s"] =
      benchmark::Counter(static_cast<double>(decoded), benchmark::Counter::kIsRate);
}
BENCHMARK(ReplyStreamEndToEnd)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
