// The chat controller's session caches: memory with 10 sessions cached, and the time to switch to
// a cached one (shown at once from the cache; the refresh then costs one file-status call).
#include <malloc.h>

#include <boost/asio/io_context.hpp>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <iostream>

#include "tamsel/base/uuid.hpp"
#include "tamsel/desktop/daemon_chat_view_model.hpp"

namespace fs = std::filesystem;
using namespace tamsel;

namespace {

void writeSession(const fs::path& file, int turns) {
  std::ofstream out(file);
  out << R"({"title":"Benchmark session","messages":[)";
  for (int t = 0; t < turns; ++t) {
    if (t) out << ",";
    out << R"({"role":"user","content":"Question number )" << t
        << R"( about the build and its tests?"},)"
        << R"({"role":"assistant","content":[{"type":"text","text":"Looking at it now."},)"
        << R"({"type":"tool_use","id":"t)" << t
        << R"(","name":"bash","input":{"command":"ninja -C build tests"}}]},)"
        << R"({"role":"user","content":[{"type":"tool_result","tool_use_id":"t)" << t
        << R"(","content":"[120/120] Linking CXX executable tests"}]},)"
        << R"({"role":"assistant","content":"The build passes; all tests are green after the change to the parser."})";
  }
  out << "]}";
}

std::size_t heapBytes() { return mallinfo2().uordblks; }

}  // namespace

int main() {
  const fs::path home = fs::temp_directory_path() / ("tamsel-bench-" + base::newUUIDString());
  fs::create_directories(home / "sessions");
  constexpr int sessions = 11;
  for (int i = 0; i < sessions; ++i)
    writeSession(home / "sessions" / ("s" + std::to_string(i) + ".json"), 75);

  boost::asio::io_context io;
  bridge::DaemonClient client({1, "token", "device", {}});  // no engine: only files are read
  desktop::DaemonChatEngine engine(client);
  bridge::SessionHistory history(home);
  auto settle = [&] {
    io.restart();
    io.poll();
  };

  const std::size_t before = heapBytes();
  {
    base::AsioMainExecutor main(io);
    desktop::DaemonChatViewModel vm(main, {&engine, nullptr, &history, nullptr, nullptr});
    for (int i = 0; i < sessions; ++i) {
      vm.selectSession("s" + std::to_string(i));
      settle();
    }
    const std::size_t cached = heapBytes();
    std::cout << "controller with " << vm.cachedSessionCount()
              << " session windows cached (+1 shown, " << vm.messages().size()
              << " messages each): " << (cached - before) / 1024.0 / 1024.0 << " MiB of heap\n";

    // Switch back and forth between cached sessions.
    constexpr int rounds = 2000;
    double switchMicros = 0, refreshMicros = 0;
    for (int r = 0; r < rounds; ++r) {
      const std::string id = "s" + std::to_string(sessions - 1 - (r % 2));
      const auto start = std::chrono::steady_clock::now();
      vm.selectSession(id);
      const auto shown = std::chrono::steady_clock::now();
      settle();
      const auto refreshed = std::chrono::steady_clock::now();
      switchMicros += std::chrono::duration<double, std::micro>(shown - start).count();
      refreshMicros += std::chrono::duration<double, std::micro>(refreshed - shown).count();
    }
    std::cout << "switch to a cached session: " << switchMicros / rounds << " us until shown, then "
              << refreshMicros / rounds << " us for the unchanged-file refresh\n";
  }
  fs::remove_all(home);
  return 0;
}
