#include "tamsel/base/task_scope.hpp"

#include <boost/asio/bind_cancellation_slot.hpp>
#include <boost/asio/cancellation_signal.hpp>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/dispatch.hpp>
#include <boost/system/system_error.hpp>
#include <list>

#include "tamsel/base/log.hpp"

namespace tamsel::base {

namespace asio = boost::asio;

struct TaskScope::State {
  // A list keeps each signal where it is while others come and go (a slot points at its signal).
  std::list<asio::cancellation_signal> signals;
  bool closed = false;
};

TaskScope::TaskScope(asio::any_io_executor executor)
    : executor_(std::move(executor)), state_(std::make_shared<State>()) {}

TaskScope::~TaskScope() { close(); }

void TaskScope::spawn(asio::awaitable<void> work, const char* source) {
  if (state_->closed) return;
  auto& signal = state_->signals.emplace_back();
  auto position = std::prev(state_->signals.end());
  asio::co_spawn(executor_, std::move(work),
                 asio::bind_cancellation_slot(
                     signal.slot(), [state = state_, position, source](std::exception_ptr error) {
                       if (!state->closed) state->signals.erase(position);
                       if (!error) return;
                       try {
                         std::rethrow_exception(error);
                       } catch (const boost::system::system_error& e) {
                         if (state->closed && e.code() == asio::error::operation_aborted) return;
                         log::warn(source, "task failed: {}", e.what());
                       } catch (const std::exception& e) {
                         // A closed scope's tasks end however their cancellation surfaced; nobody
                         // waits for them.
                         if (state->closed) return;
                         log::warn(source, "task failed: {}", e.what());
                       }
                     }));
}

void TaskScope::close() {
  if (state_->closed) return;
  state_->closed = true;
  // The signals stay until every task has ended: a task still refers to its slot. They are
  // emitted from inside the loop: a co_spawn'ed task reacts to a signal emitted elsewhere by
  // posting a reference to its own state, which is gone if the task ends first.
  asio::dispatch(executor_, [state = state_] {
    for (auto& signal : state->signals) signal.emit(asio::cancellation_type::terminal);
  });
}

bool TaskScope::isClosed() const { return state_->closed; }

}  // namespace tamsel::base
