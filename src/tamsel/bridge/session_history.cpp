#include "tamsel/bridge/session_history.hpp"

#include <boost/asio/post.hpp>
#include <boost/asio/strand.hpp>
#include <boost/asio/this_coro.hpp>
#include <boost/asio/use_awaitable.hpp>

#include "tamsel/base/atomic_file.hpp"
#include "tamsel/base/env.hpp"
#include "tamsel/base/log.hpp"

namespace tamsel::bridge {

namespace fs = std::filesystem;
namespace asio = boost::asio;

namespace {
constexpr const char* kSource = "SessionHistory";
}  // namespace

std::optional<SessionFileFingerprint> SessionHistory::fingerprint(const fs::path& file) {
  std::error_code ec;
  const auto status = fs::status(file, ec);
  if (ec || !fs::is_regular_file(status)) return std::nullopt;
  SessionFileFingerprint print;
  print.modificationDate = fs::last_write_time(file, ec);
  if (ec) print.modificationDate = fs::file_time_type::min();
  print.byteCount = static_cast<std::int64_t>(fs::file_size(file, ec));
  if (ec) return std::nullopt;
  return print;
}

struct SessionHistory::Worker {
  explicit Worker(asio::any_io_executor executor) : strand(asio::make_strand(executor)) {}
  asio::strand<asio::any_io_executor> strand;
};

SessionHistory::SessionHistory(fs::path verdaneDir, std::optional<asio::any_io_executor> worker)
    : verdaneDir_(std::move(verdaneDir)) {
  if (worker) worker_ = std::make_shared<Worker>(*worker);
}

SessionHistory::~SessionHistory() = default;

std::optional<fs::path> SessionHistory::locate(const std::string& sessionID,
                                               const std::optional<std::string>& agent) const {
  // Ids come from outside: never let one climb out of its folder.
  if (sessionID.empty() || sessionID.find('/') != std::string::npos || sessionID == "." ||
      sessionID == "..")
    return std::nullopt;
  const std::string name = sessionID + ".json";
  std::error_code ec;
  auto candidate = [&](const fs::path& path) -> std::optional<fs::path> {
    std::error_code e;
    if (fs::exists(path, e) && !fs::is_directory(path, e)) return path;
    return std::nullopt;
  };
  if (agent) {
    if (agent->empty() || agent->find('/') != std::string::npos) return std::nullopt;
    return candidate(verdaneDir_ / "agents" / *agent / "sessions" / name);
  }
  if (auto found = candidate(verdaneDir_ / "sessions" / name)) return found;
  for (fs::directory_iterator it(verdaneDir_ / "agents", ec), end; !ec && it != end;
       it.increment(ec)) {
    std::error_code e;
    if (!it->is_directory(e) || it->path().filename() == "_builtin") continue;
    if (auto found = candidate(it->path() / "sessions" / name)) return found;
  }
  return std::nullopt;
}

SessionLoadResult SessionHistory::loadNow(
    const std::string& sessionID, const std::optional<std::string>& agent,
    const std::optional<SessionFileFingerprint>& lastSeen) const {
  SessionLoadResult result;
  const auto file = locate(sessionID, agent);
  if (!file) return result;
  result.found = true;
  result.fingerprint = fingerprint(*file);
  if (result.fingerprint && lastSeen && *result.fingerprint == *lastSeen) {
    result.unchanged = true;
    return result;
  }
  std::string text;
  if (!base::readFile(*file, text)) {
    base::log::info(kSource, "could not read {}", file->string());
    return result;
  }
  auto decoded = decode(text);
  if (!decoded) {
    base::log::info(kSource, "{} does not decode; showing an empty history", file->string());
    return result;
  }
  auto folded = fold(*decoded);
  result.messages = std::move(folded.messages);
  result.deliverables = std::move(folded.deliverables);
  result.title = decoded->title;
  return result;
}

asio::awaitable<SessionLoadResult> SessionHistory::load(
    std::string sessionID, std::optional<std::string> agent,
    std::optional<SessionFileFingerprint> lastSeen) {
  if (!worker_) co_return loadNow(sessionID, agent, lastSeen);
  // The load keeps its own reader and strand: the history may be destroyed while it runs.
  const auto worker = worker_;
  const SessionHistory reader(verdaneDir_);
  auto caller = co_await asio::this_coro::executor;
  // Hop onto the worker's strand (one load at a time), do the file work there, come back.
  co_await asio::post(worker->strand, asio::use_awaitable);
  auto result = reader.loadNow(sessionID, agent, lastSeen);
  co_await asio::post(caller, asio::use_awaitable);
  co_return result;
}

}  // namespace tamsel::bridge
