#include "tamsel/desktop/always_allow_list.hpp"

#include <boost/json.hpp>
#include <stdexcept>

#include "tamsel/base/change_publisher.hpp"
#include "tamsel/base/log.hpp"
#include "tamsel/base/task_scope.hpp"
#include "tamsel/bridge/daemon_client.hpp"
#include "tamsel/bridge/event_stream_client.hpp"

namespace tamsel::desktop {

namespace asio = boost::asio;
namespace json = boost::json;

namespace {
constexpr const char* kSource = "AlwaysAllowList";

bool isAlways(const std::optional<std::string>& decision) {
  return decision && (*decision == "always" || *decision == "allow_always");
}
}  // namespace

struct AlwaysAllowList::Impl : std::enable_shared_from_this<Impl> {
  Impl(base::MainExecutor& executor, Call call, bridge::EventStreamClient* events)
      : call(std::move(call)), events(events), publisher(executor), tasks(executor.ioExecutor()) {}

  Call call;
  bridge::EventStreamClient* events;
  base::ChangePublisher publisher;
  base::TaskScope tasks;
  State state;
  std::optional<bridge::EventStreamClient::Subscription> subscription;
  // Requests asked and still on their way; only the latest asked is shown.
  std::uint64_t asked = 0;
  int inFlight = 0;

  State& edit() {
    publisher.publish();
    return state;
  }
  bool closed() const { return tasks.isClosed(); }

  void request(std::string method, std::optional<bridge::JSON> body, std::string failure) {
    const auto number = ++asked;
    ++inFlight;
    edit().busy = true;
    tasks.spawn(
        [](std::shared_ptr<Impl> self, std::uint64_t number, std::string method,
           std::optional<bridge::JSON> body, std::string failure) -> asio::awaitable<void> {
          std::optional<std::vector<std::string>> tools;
          std::optional<std::string> error;
          try {
            tools = toolsFrom(co_await self->call(std::move(method), std::move(body)));
          } catch (const std::exception& e) {
            error = failure + ": " + e.what();
          }
          if (self->closed()) co_return;
          auto& s = self->edit();
          s.busy = --self->inFlight > 0;
          if (number != self->asked) co_return;  // a later request will tell
          if (tools) {
            s.tools = std::move(*tools);
            s.loaded = true;
            s.error.reset();
          } else {
            s.error = std::move(error);
          }
        }(shared_from_this(), number, std::move(method), std::move(body), std::move(failure)),
        kSource);
  }

  void follow() {
    if (!events || subscription || closed()) return;
    subscription = events->subscribe();
    tasks.spawn(
        [](std::shared_ptr<Impl> self,
           std::shared_ptr<bridge::EventSubscription> feed) -> asio::awaitable<void> {
          while (true) {
            std::optional<bridge::DaemonEventPtr> event;
            try {
              event = co_await feed->next();
            } catch (const bridge::SSEBufferOverflowError& e) {
              // An answer may have been lost with the rest: start over and read the list again.
              base::log::warn(kSource, "{}", e.what());
              if (self->closed()) co_return;
              if (self->subscription) self->events->unsubscribe(self->subscription->id);
              self->subscription.reset();
              self->follow();
              self->refresh();
              co_return;
            }
            if (!event || self->closed()) co_return;
            const auto* resolved = (*event)->get<bridge::DaemonEvent::ApprovalResolved>();
            if (resolved && isAlways(resolved->value.decision)) self->refresh();
          }
        }(shared_from_this(), subscription->events),
        kSource);
  }

  void refresh() { request("GET", std::nullopt, "Could not read the always-allowed tools"); }
};

AlwaysAllowList::AlwaysAllowList(base::MainExecutor& executor, Call call,
                                 bridge::EventStreamClient* events)
    : impl_(std::make_shared<Impl>(executor, std::move(call), events)) {}

AlwaysAllowList::~AlwaysAllowList() {
  auto& impl = *impl_;
  if (impl.subscription && impl.events) impl.events->unsubscribe(impl.subscription->id);
  impl.subscription.reset();
  impl.publisher.close();
  impl.tasks.close();
}

AlwaysAllowList::Call AlwaysAllowList::through(bridge::DaemonClient& client) {
  return [&client](std::string method, std::optional<bridge::JSON> body) {
    return client.alwaysAllow(std::move(method), std::move(body));
  };
}

base::Signal<>& AlwaysAllowList::changed() { return impl_->publisher.changed(); }
auto AlwaysAllowList::state() const -> const State& { return impl_->state; }

void AlwaysAllowList::start() {
  impl_->follow();
  refresh();
}

void AlwaysAllowList::refresh() { impl_->refresh(); }

void AlwaysAllowList::revoke(std::string tool) {
  const auto failure = "Could not revoke " + tool;
  impl_->request("DELETE", json::value{{"tools", json::array{json::string(tool)}}}, failure);
}

void AlwaysAllowList::revokeAll() {
  // The engine clears the whole list when no tool is named.
  impl_->request("DELETE", std::nullopt, "Could not revoke the always-allowed tools");
}

std::vector<std::string> AlwaysAllowList::toolsFrom(const bridge::JSON& reply) {
  const auto* object = reply.if_object();
  const auto* list = object ? object->if_contains("tools") : nullptr;
  if (!list || !list->is_array())
    throw std::runtime_error("the engine's answer holds no tool list");
  std::vector<std::string> tools;
  for (const auto& item : list->get_array()) {
    if (!item.is_string()) throw std::runtime_error("the engine's tool list holds a non-name");
    tools.emplace_back(item.get_string());
  }
  return tools;
}

}  // namespace tamsel::desktop
