#pragma once
// A minimal observer list for controllers' observable state.
// Not thread-safe by design: a controller connects, disconnects and emits only on its main
// executor, which is what keeps every observer seeing changes in the order they happened.
#include <cstdint>
#include <functional>
#include <utility>
#include <vector>

namespace tamsel::base {

template <class... Args>
class Signal {
 public:
  using Slot = std::function<void(const Args&...)>;
  using Connection = std::uint64_t;

  Connection connect(Slot slot) {
    slots_.emplace_back(++lastId_, std::move(slot));
    return lastId_;
  }

  void disconnect(Connection id) {
    std::erase_if(slots_, [id](const auto& entry) { return entry.first == id; });
  }

  void emit(const Args&... args) const {
    // Copy so that an observer may disconnect itself while being called.
    auto snapshot = slots_;
    for (const auto& entry : snapshot) entry.second(args...);
  }

 private:
  std::vector<std::pair<Connection, Slot>> slots_;
  Connection lastId_ = 0;
};

}  // namespace tamsel::base
