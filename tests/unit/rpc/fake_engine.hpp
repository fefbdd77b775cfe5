#pragma once
// The engine's end of the RPC socket for tests: listens at a path and lets a test read and write
// frames (or raw bytes) on the one connection it accepted.
#include <boost/asio/local/stream_protocol.hpp>
#include <boost/asio/read.hpp>
#include <boost/asio/redirect_error.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/this_coro.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <boost/asio/write.hpp>
#include <chrono>
#include <filesystem>
#include <functional>
#include <optional>

#include "tamsel/bridge/rpc/codec.hpp"
#include "tamsel/bridge/rpc/messages.hpp"

namespace tamsel::test {

namespace asio = boost::asio;

class FakeEngine {
 public:
  using Protocol = asio::local::stream_protocol;

  FakeEngine(const asio::any_io_executor& executor, const std::filesystem::path& path)
      : acceptor_(executor, Protocol::endpoint(path.string())), socket_(executor) {}

  asio::awaitable<void> accept() { socket_ = co_await acceptor_.async_accept(asio::use_awaitable); }

  // The next frame, or nothing when the desktop closed the connection.
  asio::awaitable<std::optional<bridge::rpc::Frame>> readFrame() {
    std::string prefix(4, '\0');
    boost::system::error_code ec;
    co_await asio::async_read(socket_, asio::buffer(prefix),
                              asio::redirect_error(asio::use_awaitable, ec));
    if (ec) co_return std::nullopt;
    const auto length = bridge::rpc::LengthPrefixedCodec::bodyLength(prefix);
    std::string body(length, '\0');
    co_await asio::async_read(socket_, asio::buffer(body), asio::use_awaitable);
    co_return bridge::rpc::Frame::decode(body);
  }

  asio::awaitable<void> sendRaw(std::string bytes) {
    co_await asio::async_write(socket_, asio::buffer(bytes), asio::use_awaitable);
  }
  asio::awaitable<void> send(bridge::rpc::Frame frame) {
    std::string bytes = bridge::rpc::LengthPrefixedCodec::encode(frame.encode());
    co_await sendRaw(std::move(bytes));
  }
  asio::awaitable<void> answerHandshake(const bridge::rpc::RPCRequest& request,
                                        std::string version) {
    auto result = bridge::rpc::RPCResult::success(
        request.requestID, bridge::rpc::JSONValue::object({{"version", version}}));
    co_await send(bridge::rpc::Frame::rpcResult(std::move(result)));
  }

  void closeConnection() {
    boost::system::error_code ignored;
    socket_.shutdown(Protocol::socket::shutdown_both, ignored);
    socket_.close(ignored);
  }

 private:
  Protocol::acceptor acceptor_;
  Protocol::socket socket_;
};

// Waits on the current executor until `done` holds or `limit` passes; true when it held.
inline asio::awaitable<bool> eventually(
    std::function<bool()> done, std::chrono::milliseconds limit = std::chrono::milliseconds(5000)) {
  asio::steady_timer timer(co_await asio::this_coro::executor);
  const auto deadline = std::chrono::steady_clock::now() + limit;
  while (!done()) {
    if (std::chrono::steady_clock::now() > deadline) co_return false;
    timer.expires_after(std::chrono::milliseconds(1));
    co_await timer.async_wait(asio::use_awaitable);
  }
  co_return true;
}

}  // namespace tamsel::test
