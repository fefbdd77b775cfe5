#pragma once
// A controller's `changed` notification. Changes made in one turn of the main executor reach
// observers as one notification, posted after them, so observers always read a consistent state.
// Once closed (its controller is going), nobody is notified again, even by a notification
// already posted. Lives on the main executor.
#include <memory>

#include "tamsel/base/main_executor.hpp"
#include "tamsel/base/signal.hpp"

namespace tamsel::base {

class ChangePublisher {
 public:
  explicit ChangePublisher(MainExecutor& executor) : state_(std::make_shared<State>(executor)) {}

  Signal<>& changed() { return state_->changed; }

  void publish() {
    if (state_->pending || state_->closed) return;
    state_->pending = true;
    state_->executor.post([weak = std::weak_ptr<State>(state_)] {
      const auto state = weak.lock();
      if (!state || state->closed) return;
      state->pending = false;
      state->changed.emit();
    });
  }

  void close() { state_->closed = true; }

 private:
  struct State {
    explicit State(MainExecutor& e) : executor(e) {}
    MainExecutor& executor;
    bool pending = false;
    bool closed = false;
    Signal<> changed;
  };
  std::shared_ptr<State> state_;
};

}  // namespace tamsel::base
