// The capture path's costs: accept() per callback (p50/p99 and heap allocations, with the writer
// draining beside it), and a track writer's throughput (ledger and CAF file) as a multiple of
// real time.
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <new>
#include <vector>

#include "tamsel/meeting/gap_ledger.hpp"
#include "tamsel/meeting/track_recorder.hpp"

namespace {
// Counts the allocations of the calling (capture) thread only, not the writer's.
thread_local bool counting = false;
std::atomic<long> allocations{0};
}  // namespace

void* operator new(std::size_t size) {
  if (counting) allocations.fetch_add(1, std::memory_order_relaxed);
  if (void* p = std::malloc(size ? size : 1)) return p;
  throw std::bad_alloc();
}
void operator delete(void* p) noexcept { std::free(p); }
void operator delete(void* p, std::size_t) noexcept { std::free(p); }

using namespace tamsel::meeting;
namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

namespace {

struct NullWriter : TrackWriter {
  void write(const AudioBuffer& b) override { frames += b.frameLength(); }
  void close() override {}
  std::int64_t framesWritten() const override { return frames; }
  std::int64_t frames = 0;
};

std::int64_t nanos(Clock::duration d) {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(d).count();
}

void acceptCost() {
  TrackRecorder recorder(
      TrackSource::mic, "unused.caf", 1e9,
      [](const fs::path&, double, const AudioFormat&) { return std::make_unique<NullWriter>(); });
  recorder.prepare(kTrackOutputFormat);
  std::vector<float> samples(480, 0.25f);
  // Paced at one callback per 500 us (20x a 10 ms device period): the writer keeps up and
  // sleeps between chunks as it does in a recording, so each push may have to wake it.
  constexpr int kCalls = 20'000;
  auto next = Clock::now();
  std::vector<std::int64_t> costs;
  costs.reserve(kCalls);
  counting = true;
  for (int i = 0; i < kCalls; ++i) {
    const double sample = static_cast<double>(i) * 480;
    const auto start = Clock::now();
    recorder.accept({kTrackOutputFormat, samples.data(), 480},
                    {sample, static_cast<std::uint64_t>(i) * 10'000'000, true, true});
    costs.push_back(nanos(Clock::now() - start));
    next += std::chrono::microseconds(500);
    while (Clock::now() < next) {
    }
  }
  counting = false;
  const auto dropped = recorder.chunksDropped();
  const auto r = recorder.finish(recorder.stop());
  std::sort(costs.begin(), costs.end());
  std::printf(
      "accept (480 frames, 20x real-time pace, writer draining): p50 %lld ns, p99 %lld ns, max "
      "%lld ns\n",
      static_cast<long long>(costs[kCalls / 2]), static_cast<long long>(costs[kCalls * 99 / 100]),
      static_cast<long long>(costs.back()));
  std::printf(
      "accept heap allocations: %ld in %d calls (buffer copies come from the pool; %llu "
      "chunks dropped by a full queue, %zu gaps)\n",
      allocations.load(), kCalls, static_cast<unsigned long long>(dropped), r.gaps.size());
}

void writerThroughput() {
  const fs::path dir = fs::temp_directory_path() / ("tamsel-bench-" + std::to_string(::getpid()));
  fs::create_directories(dir);
  constexpr std::int64_t kFrames = 480;
  constexpr std::int64_t kChunks = 60 * 60 * 100 / 6;  // ten minutes of 10 ms chunks
  std::vector<float> samples(kFrames, 0.1f);
  std::vector<AudioBuffer> buffers;
  for (int i = 0; i < 64; ++i)
    buffers.push_back(AudioBuffer::copyOf({kTrackOutputFormat, samples.data(), kFrames}, nullptr));
  double best = 0;
  for (int round = 0; round < 3; ++round) {
    GapLedger ledger(TrackSource::system);
    CAFTrackWriter writer(dir / "system.caf");
    const auto start = Clock::now();
    for (std::int64_t i = 0; i < kChunks; ++i) {
      ledger.record({TrackSource::system, static_cast<std::uint64_t>(i), 0, i * kFrames, kFrames,
                     std::nullopt});
      writer.write(buffers[static_cast<std::size_t>(i % 64)]);
      if (i % 50 == 0) writer.sync();  // as the recorder does for crash safety
    }
    writer.close();
    const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    best = std::max(best, static_cast<double>(kChunks * kFrames) / 48000.0 / seconds);
  }
  fs::remove_all(dir);
  std::printf(
      "writer (ledger + CAF file, 10 min of mono 48 kHz in 10 ms chunks): %.0fx real "
      "time per track (best of 3)\n",
      best);
}

}  // namespace

int main() {
  acceptCost();
  writerThroughput();
  std::printf("two-track recording CPU: python3 bench/meeting_cpu.py\n");
  return 0;
}
