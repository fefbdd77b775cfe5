#pragma once
// How asynchronous work is tied to the object that started it.
//
// Every controller and client whose work may still be suspended when it is destroyed keeps its
// state in a shared `Impl`. Each coroutine it starts holds that Impl strongly (so a resumed
// coroutine never touches freed memory) and runs in the Impl's TaskScope. The owner's destructor
// closes the scope: every task gets a terminal cancellation at once, which ends the timer, socket
// read or engine request it is suspended in, and the Impl, once closed, calls nobody outside
// itself. Queued one-shot work (posted callbacks, timer handlers) holds a weak reference instead.
//
// A scope lives on one executor: spawn() and close() must be called there.
#include <boost/asio/any_io_executor.hpp>
#include <boost/asio/awaitable.hpp>
#include <memory>

namespace tamsel::base {

class TaskScope {
 public:
  explicit TaskScope(boost::asio::any_io_executor executor);
  // Closes the scope.
  ~TaskScope();
  TaskScope(const TaskScope&) = delete;
  TaskScope& operator=(const TaskScope&) = delete;

  const boost::asio::any_io_executor& executor() const { return executor_; }

  // Starts `work` bound to this scope's cancellation. A task that ends by an exception other than
  // its cancellation is logged under `source`. Ignored once closed.
  void spawn(boost::asio::awaitable<void> work, const char* source);

  // Cancels every running task; later spawns are ignored. Idempotent.
  void close();
  bool isClosed() const;

 private:
  struct State;
  boost::asio::any_io_executor executor_;
  std::shared_ptr<State> state_;
};

}  // namespace tamsel::base
