// Session files and transcript planning: loading a large session, the unchanged-file check, and
// merge plans for a changed middle and for a long transcript with a small change.
#include <benchmark/benchmark.h>

#include <filesystem>
#include <fstream>
#include <random>

#include "tamsel/base/uuid.hpp"
#include "tamsel/bridge/session_history.hpp"
#include "tamsel/kit/transcript_merge_planner.hpp"

namespace {

namespace fs = std::filesystem;
using namespace tamsel;

// About 10,000 messages with tool calls and results, ~20 MB.
std::string generatedSession(int turns) {
  std::string text = R"({"id":"s_big","title":"A long working session","messages":[)";
  std::string meta = R"(],"message_meta":[)";
  const std::string output(6500, 'o');
  const std::string prose =
      "Here is what I found after reading the files and running the checks; the details follow "
      "below. ";
  for (int t = 0; t < turns; ++t) {
    if (t) {
      text += ",";
      meta += ",";
    }
    const std::string id = std::to_string(t);
    text += R"({"role":"user","content":"Please look at item )" + id +
            R"( and fix what is wrong with it."},)";
    text += R"({"role":"assistant","content":[{"type":"text","text":")" + prose +
            R"("},)"
            R"({"type":"tool_use","id":"tu_)" +
            id + R"(","name":"bash","input":{"command":"grep -rn item_)" + id +
            R"( src/ | head -50","timeout":30}}]},)";
    text += R"({"role":"user","content":[{"type":"tool_result","tool_use_id":"tu_)" + id +
            R"(","content":")" + output + R"("}]},)";
    text += R"({"role":"assistant","content":[{"type":"text","text":")" + prose + prose + prose +
            prose + prose + R"("}]})";
    meta +=
        R"({"timestamp":"2026-11-20T09:15:02.123Z"},{"timestamp":"2026-11-20T09:15:03Z"},null,{"timestamp":"2026-11-20T09:15:04Z"})";
  }
  return text + meta + "]}";
}

struct SessionFolder {
  SessionFolder() : root(fs::temp_directory_path() / ("tamsel-bench-" + base::newUUIDString())) {
    fs::create_directories(root / "sessions");
    text = generatedSession(2500);
    std::ofstream(root / "sessions" / "s_big.json") << text;
  }
  ~SessionFolder() { fs::remove_all(root); }
  fs::path root;
  std::string text;
};

SessionFolder& folder() {
  static SessionFolder instance;
  return instance;
}

void LoadLargeSession(benchmark::State& state) {
  bridge::SessionHistory history(folder().root);
  std::size_t shown = 0;
  for (auto _ : state) {
    auto result = history.loadNow("s_big", std::nullopt, std::nullopt);
    shown = result.messages.size();
    benchmark::DoNotOptimize(result);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * folder().text.size()));
  state.counters["MB"] = static_cast<double>(folder().text.size()) / 1e6;
  state.counters["shown"] = static_cast<double>(shown);
}
BENCHMARK(LoadLargeSession)->Unit(benchmark::kMillisecond);

void DecodeAndFoldOnly(benchmark::State& state) {
  for (auto _ : state) {
    auto file = bridge::SessionHistory::decode(folder().text);
    auto folded = bridge::SessionHistory::fold(*file, false);
    benchmark::DoNotOptimize(folded);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * folder().text.size()));
}
BENCHMARK(DecodeAndFoldOnly)->Unit(benchmark::kMillisecond);

void UnchangedSessionCheck(benchmark::State& state) {
  bridge::SessionHistory history(folder().root);
  const auto first = history.loadNow("s_big", std::nullopt, std::nullopt);
  for (auto _ : state) {
    auto result = history.loadNow("s_big", std::nullopt, first.fingerprint);
    if (!result.unchanged) state.SkipWithError("the file looked changed");
    benchmark::DoNotOptimize(result);
  }
}
BENCHMARK(UnchangedSessionCheck);

std::vector<std::string> keys(std::size_t n, const std::string& prefix) {
  std::vector<std::string> out;
  out.reserve(n);
  for (std::size_t i = 0; i < n; ++i) out.push_back(prefix + std::to_string(i));
  return out;
}

// A 1,000 x 1,000 middle: the largest planned by the table.
void MergeMiddleThousandByThousand(benchmark::State& state) {
  std::mt19937 random(3);
  std::vector<std::string> S{"head"}, D{"head"};
  for (int i = 0; i < 1000; ++i) S.push_back("m" + std::to_string(random() % 1500));
  for (int i = 0; i < 1000; ++i) D.push_back("m" + std::to_string(random() % 1500));
  S.push_back("tail");
  D.push_back("tail");
  for (auto _ : state) benchmark::DoNotOptimize(kit::TranscriptMergePlanner::plan(S, D));
}
BENCHMARK(MergeMiddleThousandByThousand)->Unit(benchmark::kMillisecond);

// 100,000 messages, the file has two new ones at the end and one changed in the middle.
void MergeLongTranscriptSmallChange(benchmark::State& state) {
  auto S = keys(100000, "msg-");
  auto D = S;
  D[50000] = "edited";
  D.push_back("new-1");
  D.push_back("new-2");
  for (auto _ : state) benchmark::DoNotOptimize(kit::TranscriptMergePlanner::plan(S, D));
}
BENCHMARK(MergeLongTranscriptSmallChange)->Unit(benchmark::kMillisecond);

}  // namespace
