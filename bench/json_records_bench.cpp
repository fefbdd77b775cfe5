// Decoding engine replies into records: the session list is the largest reply the desktop reads
// on every sidebar refresh.
#include <benchmark/benchmark.h>

#include "tamsel/base/json.hpp"
#include "tamsel/bridge/daemon_client_error.hpp"
#include "tamsel/bridge/daemon_records.hpp"

namespace {

std::string sessionList(int count) {
  std::string text = "[";
  for (int i = 0; i < count; ++i) {
    if (i) text += ",";
    text +=
        R"({"id":"s_)" + std::to_string(i) +
        R"(","title":"Plan the release and review the open pull requests","cwd":"/home/u/work/project",)"
        R"("created_at":"2026-11-20T09:15:02.123Z","updated_at":"2026-11-20T09:15:02Z","msg_count":42,)"
        R"("source":"desktop","schedule_id":null,"in_progress":false,"pinned":false,"favorite":true,)"
        R"("kind":"chat","agent":"main","project_id":"p_1"})";
  }
  return text + "]";
}

void DecodeSessionList(benchmark::State& state) {
  const std::string text = sessionList(static_cast<int>(state.range(0)));
  for (auto _ : state) {
    auto sessions = tamsel::base::json::decode<std::vector<tamsel::bridge::DaemonSession>>(text);
    benchmark::DoNotOptimize(sessions);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text.size()));
  state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(DecodeSessionList)->Arg(50)->Arg(1000);

void EncodeSendMessage(benchmark::State& state) {
  tamsel::bridge::SendMessageRequest request;
  request.text = std::string(2000, 'x');
  request.agent = "main";
  request.sessionId = "s_7f3a9c01";
  request.clientMessageId = "C0573ADE-B7B1-432E-858B-6BE83EF24684";
  for (auto _ : state) {
    auto body = tamsel::base::json::serialize(tamsel::base::json::encode(request));
    benchmark::DoNotOptimize(body);
  }
}
BENCHMARK(EncodeSendMessage);

void MapErrorBody(benchmark::State& state) {
  const std::string body =
      R"({"error":"limit","code":"quota_exceeded","current_plan":"pro","reset_at":"2026-12-01T00:00:00Z"})";
  for (auto _ : state) {
    auto error = tamsel::bridge::DaemonClientError::fromResponse(429, body);
    benchmark::DoNotOptimize(error);
  }
}
BENCHMARK(MapErrorBody);

}  // namespace
