#pragma once
// The tools the user told the engine to always allow ("/permissions/always-allow"), to review
// and revoke: one at a time or all at once. The list is read again whenever an approval is
// answered "always" anywhere (the engine's event bus says so), so it never lags behind a card.
//
// Lives on the main executor: call every method there; changes are published there through
// changed(). Requests may overlap; only the answer to the latest one is shown (an earlier,
// slower answer would show a list that is already out of date).
#include <boost/asio/awaitable.hpp>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tamsel/base/main_executor.hpp"
#include "tamsel/base/signal.hpp"
#include "tamsel/bridge/daemon_records.hpp"

namespace tamsel::bridge {
class DaemonClient;
class EventStreamClient;
}  // namespace tamsel::bridge

namespace tamsel::desktop {

class AlwaysAllowList {
 public:
  // One request to the endpoint: a method ("GET", "POST", "DELETE") and an optional body; the
  // engine answers {"tools": [...]}.
  using Call = std::function<boost::asio::awaitable<bridge::JSON>(
      std::string method, std::optional<bridge::JSON> body)>;

  struct State {
    std::vector<std::string> tools;
    // The list has been read at least once.
    bool loaded = false;
    // A request is on its way.
    bool busy = false;
    // Why the last request failed; cleared by the next answer.
    std::optional<std::string> error;
  };

  // `call` must stay callable, and `events` (optional) alive, for the controller's life.
  AlwaysAllowList(base::MainExecutor& executor, Call call,
                  bridge::EventStreamClient* events = nullptr);
  // The engine's endpoint through its client (which must outlive the controller).
  static Call through(bridge::DaemonClient& client);
  // Requests in flight are cancelled; nothing of the controller runs afterwards.
  ~AlwaysAllowList();
  AlwaysAllowList(const AlwaysAllowList&) = delete;
  AlwaysAllowList& operator=(const AlwaysAllowList&) = delete;

  base::Signal<>& changed();
  const State& state() const;

  // Starts following the event bus (once the engine runs) and reads the list.
  void start();
  void refresh();
  void revoke(std::string tool);
  void revokeAll();

  // The tool names of the engine's answer; throws std::runtime_error when it holds no list.
  static std::vector<std::string> toolsFrom(const bridge::JSON& reply);

 private:
  struct Impl;
  std::shared_ptr<Impl> impl_;
};

}  // namespace tamsel::desktop
