#include "tamsel/bridge/rpc/unix_socket_client.hpp"

#include <boost/asio/connect.hpp>
#include <boost/asio/local/stream_protocol.hpp>
#include <boost/asio/read.hpp>
#include <boost/asio/redirect_error.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <boost/asio/write.hpp>
#include <deque>

#include "tamsel/bridge/rpc/codec.hpp"

namespace tamsel::bridge::rpc {

namespace asio = boost::asio;
using Protocol = asio::local::stream_protocol;

// g++ 12 can destroy a temporary inside a co_await expression twice: every argument of an
// awaited call here is a named local.

std::string TransportError::code() const {
  static const char* const names[] = {"connect_failed", "connection_failed", "not_connected",
                                      "unexpected_eof"};
  return base::caseName(value, names);
}

std::string TransportError::description() const {
  return std::visit(
      [](const auto& e) -> std::string {
        using T = std::decay_t<decltype(e)>;
        if constexpr (std::is_same_v<T, ConnectFailed> || std::is_same_v<T, ConnectionFailed>)
          return e.message;
        else if constexpr (std::is_same_v<T, NotConnected>)
          return "not connected";
        else
          return "unexpected end of stream";
      },
      value);
}

// One connection. Pending operations hold it by shared pointer, so closing or replacing the
// connection never frees a socket under an operation that is still completing.
struct UnixSocketClient::Connection {
  explicit Connection(const asio::any_io_executor& executor) : socket(executor) {}
  Protocol::socket socket;
  bool open = true;
  bool writing = false;
  // Sends waiting for the one in progress, first come first served.
  std::deque<std::shared_ptr<asio::steady_timer>> writeQueue;
  // Bytes read ahead of what receive() handed out: a frame that arrives whole costs one read.
  std::string readAhead;

  void shut() {
    open = false;
    boost::system::error_code ignored;
    socket.close(ignored);
    for (auto& waiter : writeQueue) waiter->cancel();
  }
};

UnixSocketClient::UnixSocketClient(asio::any_io_executor executor, std::filesystem::path socketPath)
    : executor_(std::move(executor)), socketPath_(std::move(socketPath)) {}

UnixSocketClient::~UnixSocketClient() { close(); }

bool UnixSocketClient::isConnected() const { return connection_ && connection_->open; }

void UnixSocketClient::close() {
  if (connection_) connection_->shut();
  connection_.reset();
}

asio::awaitable<void> UnixSocketClient::connect() {
  const int attempts = defaultMaxAttempts;
  const std::chrono::nanoseconds delay = defaultRetryDelay;
  co_await connect(attempts, delay);
}

asio::awaitable<void> UnixSocketClient::connect(int maxAttempts,
                                                std::chrono::nanoseconds retryDelay) {
  close();
  const std::string path = socketPath_.string();
  if (path.size() > maxPathLength) {
    throw TransportException({TransportError::ConnectFailed{
        "socket path is too long (" + std::to_string(path.size()) + " bytes, at most " +
        std::to_string(maxPathLength) + "): " + path}});
  }
  const Protocol::endpoint endpoint(path);
  std::string lastError = "no attempt made";
  const int attempts = std::max(maxAttempts, 1);
  for (int attempt = 1; attempt <= attempts; ++attempt) {
    // A Unix-domain connect completes at once, so it is made without waiting on the reactor:
    // a socket that fails is closed in the same turn, before the event loop could report a
    // hang-up for a descriptor number that the next open file may already reuse.
    boost::system::error_code ec;
    if (!std::filesystem::exists(socketPath_, ec)) {
      ec = std::make_error_code(std::errc::no_such_file_or_directory);
    } else {
      auto connection = std::make_shared<Connection>(executor_);
      connection->socket.open(Protocol(), ec);
      if (!ec) connection->socket.non_blocking(true, ec);
      if (!ec) connection->socket.connect(endpoint, ec);
      if (!ec) {
        connection_ = std::move(connection);
        co_return;
      }
      connection->shut();
    }
    lastError = ec.message();
    if (attempt < attempts) {
      asio::steady_timer timer(executor_);
      timer.expires_after(retryDelay);
      co_await timer.async_wait(asio::use_awaitable);
    }
  }
  throw TransportException({TransportError::ConnectFailed{
      "failed after " + std::to_string(attempts) + " attempts: " + lastError}});
}

asio::awaitable<void> UnixSocketClient::send(std::string bytes) {
  std::shared_ptr<Connection> connection = connection_;
  if (!connection || !connection->open) throw TransportException({TransportError::NotConnected{}});
  if (connection->writing) {
    // Wait for our turn; a frame is never interleaved with another.
    auto turn =
        std::make_shared<asio::steady_timer>(executor_, asio::steady_timer::time_point::max());
    connection->writeQueue.push_back(turn);
    boost::system::error_code ignored;
    co_await turn->async_wait(asio::redirect_error(asio::use_awaitable, ignored));
    if (!connection->open) throw TransportException({TransportError::NotConnected{}});
  }
  connection->writing = true;
  boost::system::error_code ec;
  co_await asio::async_write(connection->socket, asio::buffer(bytes),
                             asio::redirect_error(asio::use_awaitable, ec));
  connection->writing = false;
  if (!connection->writeQueue.empty()) {
    // Handing over keeps `writing` set, so nobody slips in between.
    connection->writing = true;
    connection->writeQueue.front()->cancel();
    connection->writeQueue.pop_front();
  }
  if (ec) throw TransportException({TransportError::ConnectionFailed{ec.message()}});
}

asio::awaitable<std::string> UnixSocketClient::receive(std::size_t n) {
  std::shared_ptr<Connection> connection = connection_;
  if (!connection || !connection->open) throw TransportException({TransportError::NotConnected{}});
  constexpr std::size_t readChunk = 64 * 1024;
  std::string& ahead = connection->readAhead;
  while (ahead.size() < n) {
    const std::size_t have = ahead.size();
    const std::size_t room = std::max(n - have, readChunk);
    ahead.resize(have + room);
    boost::system::error_code ec;
    const std::size_t got = co_await connection->socket.async_read_some(
        asio::buffer(ahead.data() + have, room), asio::redirect_error(asio::use_awaitable, ec));
    ahead.resize(have + got);
    if (ec == asio::error::eof) throw TransportException({TransportError::UnexpectedEOF{}});
    if (ec) throw TransportException({TransportError::ConnectionFailed{ec.message()}});
  }
  std::string out = ahead.substr(0, n);
  ahead.erase(0, n);
  co_return out;
}

namespace LengthPrefixedCodec {

asio::awaitable<std::string> readFrame(const AsyncRead& read) {
  const std::size_t prefixSize = prefixLength;
  const std::string prefix = co_await read(prefixSize);
  const std::size_t length = bodyLength(prefix);
  std::string body = co_await read(length);
  checkBody(static_cast<std::uint32_t>(length), body);
  co_return body;
}

}  // namespace LengthPrefixedCodec

}  // namespace tamsel::bridge::rpc
