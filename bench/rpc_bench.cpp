// The desktop RPC channel: "system.ping" round trips over a real Unix socket (the engine's side
// is a plain blocking client on its own thread, as a separate process would be), and framing
// plus decoding of a 4 MiB frame. Round-trip percentiles are printed as counters p50_us, p99_us.
//
// The round trip runs twice: with both ends left to the scheduler (/0), and with both ends on
// one CPU (/1). On a small virtual machine most of the unpinned figure is the cost of waking an
// idle CPU twice per round trip, which the pinned run leaves out.
#include <benchmark/benchmark.h>
#include <pthread.h>
#include <sched.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/detached.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <chrono>
#include <filesystem>
#include <thread>

#include "tamsel/base/uuid.hpp"
#include "tamsel/bridge/rpc/codec.hpp"
#include "tamsel/bridge/rpc/desktop_rpc_service.hpp"

namespace {

using namespace tamsel::bridge::rpc;
namespace asio = boost::asio;

// The engine side reads ahead like any buffered reader would, so a whole frame is one read.
struct BufferedReader {
  int fd;
  std::string ahead;
  std::string read(std::size_t n) {
    while (ahead.size() < n) {
      char chunk[65536];
      const ssize_t got = ::read(fd, chunk, sizeof chunk);
      if (got <= 0) throw std::runtime_error("engine side: connection ended");
      ahead.append(chunk, static_cast<std::size_t>(got));
    }
    std::string out = ahead.substr(0, n);
    ahead.erase(0, n);
    return out;
  }
};

void writeAll(int fd, const std::string& bytes) {
  std::size_t at = 0;
  while (at < bytes.size()) {
    const ssize_t put = ::write(fd, bytes.data() + at, bytes.size() - at);
    if (put <= 0) throw std::runtime_error("engine side: write failed");
    at += static_cast<std::size_t>(put);
  }
}

Frame readFrame(BufferedReader& reader) {
  return Frame::decode(
      LengthPrefixedCodec::readFrameSync([&reader](std::size_t n) { return reader.read(n); }));
}

void sendFrame(int fd, const Frame& frame) {
  writeAll(fd, LengthPrefixedCodec::encode(frame.encode()));
}

void pinToFirstCPU(pthread_t thread) {
  cpu_set_t set;
  CPU_ZERO(&set);
  CPU_SET(0, &set);
  pthread_setaffinity_np(thread, sizeof set, &set);
}

void BM_PingRoundTrip(benchmark::State& state) {
  const bool pinned = state.range(0) != 0;
  cpu_set_t before;
  pthread_getaffinity_np(pthread_self(), sizeof before, &before);
  if (pinned) pinToFirstCPU(pthread_self());
  const auto dir =
      std::filesystem::temp_directory_path() / ("tamsel-bench-" + tamsel::base::newUUIDString());
  std::filesystem::create_directories(dir);
  const auto path = dir / "daemon.sock";
  const int listener = ::socket(AF_UNIX, SOCK_STREAM, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::snprintf(address.sun_path, sizeof address.sun_path, "%s", path.c_str());
  if (::bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
      ::listen(listener, 1) != 0) {
    state.SkipWithError("cannot listen");
    return;
  }

  // The desktop: the real service on its own event loop.
  asio::io_context io;
  DesktopRPCService::Options options;
  options.socketPath = path;
  DesktopRPCService service(io.get_executor(),
                            std::make_shared<DesktopRPCMethodDispatcher>(Platform::current()),
                            options);
  asio::co_spawn(io, service.start(), asio::detached);
  std::thread desktop([&io] {
    auto guard = asio::make_work_guard(io);
    io.run();
  });
  if (pinned) pinToFirstCPU(desktop.native_handle());

  const int engine = ::accept(listener, nullptr, nullptr);
  BufferedReader reader{engine, {}};
  const Frame handshake = readFrame(reader);
  sendFrame(engine,
            Frame::rpcResult(RPCResult::success(handshake.ifRequest()->requestID,
                                                JSONValue::object({{"version", "1.0.0"}}))));
  readFrame(reader);  // desktop_online

  std::vector<double> micros;
  micros.reserve(1 << 20);
  const std::string request = LengthPrefixedCodec::encode(
      Frame::rpcRequest(
          RPCRequest{"ping", "system.ping", JSONValue::object({}), 1000, "s", "main", "verd", "t"})
          .encode());
  for (auto _ : state) {
    const auto began = std::chrono::steady_clock::now();
    writeAll(engine, request);
    const Frame result = readFrame(reader);
    const auto took = std::chrono::steady_clock::now() - began;
    benchmark::DoNotOptimize(result);
    micros.push_back(std::chrono::duration<double, std::micro>(took).count());
  }
  std::sort(micros.begin(), micros.end());
  if (!micros.empty()) {
    state.counters["p50_us"] = micros[micros.size() / 2];
    state.counters["p99_us"] = micros[std::min(micros.size() - 1, micros.size() * 99 / 100)];
  }

  // The desktop leaves first, on its own thread, so the end is not reported as a failure.
  asio::post(io, [&service, &io] {
    service.stop();
    io.stop();
  });
  desktop.join();
  ::close(engine);
  ::close(listener);
  std::filesystem::remove_all(dir);
  pthread_setaffinity_np(pthread_self(), sizeof before, &before);
}
BENCHMARK(BM_PingRoundTrip)->Arg(0)->Arg(1)->UseRealTime()->MinTime(2.0);

// A 4 MiB frame: encode the record, frame it, read it back and decode it.
void BM_FourMebibyteFrame(benchmark::State& state) {
  JSONValue::Array items;
  std::string text(1000, 'x');
  while (items.size() * 1004 < LengthPrefixedCodec::maxBodyLength - 2000) items.emplace_back(text);
  const Frame frame = Frame::rpcResult(RPCResult::success("big", JSONValue(std::move(items))));
  std::size_t bytes = 0;
  for (auto _ : state) {
    const std::string framed = LengthPrefixedCodec::encode(frame.encode());
    std::size_t at = 0;
    const std::string body = LengthPrefixedCodec::readFrameSync([&](std::size_t n) {
      std::string out = framed.substr(at, n);
      at += out.size();
      return out;
    });
    benchmark::DoNotOptimize(Frame::decode(body));
    bytes += framed.size();
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(bytes));
}
BENCHMARK(BM_FourMebibyteFrame)->Unit(benchmark::kMillisecond);

}  // namespace
