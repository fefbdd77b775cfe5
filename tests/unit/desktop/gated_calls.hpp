#pragma once
// A fake engine endpoint whose calls wait until the test answers or fails each one, in any
// order: for controllers whose rules are about answers that arrive late or out of order.
#include <boost/asio/any_io_executor.hpp>
#include <boost/asio/awaitable.hpp>
#include <boost/asio/redirect_error.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <exception>
#include <memory>
#include <optional>
#include <vector>

namespace tamsel::test {

template <class Request, class Reply>
class GatedCalls {
 public:
  struct Call {
    explicit Call(Request r, boost::asio::any_io_executor e) : request(std::move(r)), gate(e) {}
    Request request;
    std::optional<Reply> reply;
    std::exception_ptr error;
    boost::asio::steady_timer gate;
    bool answered() const { return reply || error; }
  };

  explicit GatedCalls(boost::asio::any_io_executor executor) : executor_(std::move(executor)) {}

  boost::asio::awaitable<Reply> operator()(Request request) {
    auto call = std::make_shared<Call>(std::move(request), executor_);
    calls.push_back(call);
    call->gate.expires_at(boost::asio::steady_timer::time_point::max());
    boost::system::error_code ec;
    co_await call->gate.async_wait(boost::asio::redirect_error(boost::asio::use_awaitable, ec));
    if (call->error) std::rethrow_exception(call->error);
    if (!call->reply) throw std::runtime_error("cancelled");
    co_return *call->reply;
  }

  void answer(std::size_t i, Reply reply) {
    calls.at(i)->reply = std::move(reply);
    calls.at(i)->gate.cancel();
  }
  template <class E>
  void fail(std::size_t i, E error) {
    calls.at(i)->error = std::make_exception_ptr(std::move(error));
    calls.at(i)->gate.cancel();
  }

  std::vector<std::shared_ptr<Call>> calls;

 private:
  boost::asio::any_io_executor executor_;
};

}  // namespace tamsel::test
