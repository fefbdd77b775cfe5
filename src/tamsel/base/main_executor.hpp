#pragma once
// The main executor: the one thread on which controllers live and publish their state.
// In the command-line client it is the io_context run by the main thread; a graphical shell
// supplies its own loop's context. post() may be called from any thread.
#include <functional>

namespace boost::asio {
class io_context;
}

namespace tamsel::base {

class MainExecutor {
 public:
  explicit MainExecutor(boost::asio::io_context& context) : context_(&context) {}

  boost::asio::io_context& context() const { return *context_; }
  void post(std::function<void()> work) const;
  bool runningInThisThread() const;

 private:
  boost::asio::io_context* context_;
};

}  // namespace tamsel::base
