#pragma once
// The main executor: the one thread on which controllers live and publish their state.
//
// Controllers run their coroutines, timers and I/O on ioExecutor(), an Asio executor whose loop
// must run on that same thread; post() and runningInThisThread() are what a front end's own
// loop needs to hand work over. In the command-line client both are the io_context the main
// thread runs (AsioMainExecutor). A graphical shell implements this interface over its event
// loop: post() queues onto the GUI thread, and the GUI loop drives the same io_context
// (polling it whenever its descriptor is readable and when a posted handler is due), so Asio
// remains the I/O engine underneath and every controller callback still arrives on the GUI
// thread. Blocking work (file decoding, hashing) never runs here: it goes to worker strands and
// resumes on ioExecutor().
//
// The executor must outlive every controller built on it.
#include <boost/asio/any_io_executor.hpp>
#include <functional>

namespace boost::asio {
class io_context;
}

namespace tamsel::base {

class MainExecutor {
 public:
  virtual ~MainExecutor() = default;
  // Runs `work` later on the main thread; may be called from any thread.
  virtual void post(std::function<void()> work) const = 0;
  virtual bool runningInThisThread() const = 0;
  // Where controllers' coroutines, timers and sockets run (on the main thread).
  virtual boost::asio::any_io_executor ioExecutor() const = 0;
};

// The main thread's io_context as the main executor.
class AsioMainExecutor final : public MainExecutor {
 public:
  explicit AsioMainExecutor(boost::asio::io_context& context) : context_(&context) {}

  boost::asio::io_context& context() const { return *context_; }
  void post(std::function<void()> work) const override;
  bool runningInThisThread() const override;
  boost::asio::any_io_executor ioExecutor() const override;

 private:
  boost::asio::io_context* context_;
};

}  // namespace tamsel::base
