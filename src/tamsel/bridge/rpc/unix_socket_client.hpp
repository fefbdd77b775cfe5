#pragma once
// The desktop's end of the engine's Unix stream socket. The engine listens; the desktop only
// ever connects.
//
// Every operation runs on the executor given at construction and must be called there. At most
// one receive may be outstanding; sends may overlap and go out whole, one after the other.
// close() ends pending operations at once (they throw TransportException).
#include <boost/asio/any_io_executor.hpp>
#include <boost/asio/awaitable.hpp>
#include <chrono>
#include <cstddef>
#include <filesystem>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <variant>

#include "tamsel/base/error.hpp"

namespace tamsel::bridge::rpc {

struct TransportError {
  static constexpr std::string_view category = "rpc_transport";
  struct ConnectFailed {
    std::string message;
  };
  struct ConnectionFailed {
    std::string message;
  };
  struct NotConnected {};
  struct UnexpectedEOF {};
  std::variant<ConnectFailed, ConnectionFailed, NotConnected, UnexpectedEOF> value;

  std::string description() const;
  std::string code() const;
};

using TransportException = base::ErrorOf<TransportError>;

class UnixSocketClient {
 public:
  static constexpr int defaultMaxAttempts = 30;
  static constexpr std::chrono::milliseconds defaultRetryDelay{100};
  // sun_path holds 108 bytes including the terminating NUL.
  static constexpr std::size_t maxPathLength = 107;

  UnixSocketClient(boost::asio::any_io_executor executor, std::filesystem::path socketPath);
  ~UnixSocketClient();
  UnixSocketClient(const UnixSocketClient&) = delete;
  UnixSocketClient& operator=(const UnixSocketClient&) = delete;

  const std::filesystem::path& socketPath() const { return socketPath_; }
  bool isConnected() const;

  // Tries up to `maxAttempts` times, `retryDelay` apart, replacing any current connection.
  // Throws connectFailed("failed after N attempts: <last error>"); a path longer than
  // sun_path allows fails at once.
  boost::asio::awaitable<void> connect();
  boost::asio::awaitable<void> connect(int maxAttempts, std::chrono::nanoseconds retryDelay);
  // Writes all of `bytes`. Throws notConnected or connectionFailed.
  boost::asio::awaitable<void> send(std::string bytes);
  // Exactly n bytes. Throws notConnected, unexpectedEOF when the peer closed first, or
  // connectionFailed.
  boost::asio::awaitable<std::string> receive(std::size_t n);
  void close();

 private:
  struct Connection;
  boost::asio::any_io_executor executor_;
  std::filesystem::path socketPath_;
  std::shared_ptr<Connection> connection_;
};

namespace LengthPrefixedCodec {
// Reads one frame through `read` (normally UnixSocketClient::receive): the same checks as
// readFrameSync, the body never asked for after a bad prefix.
using AsyncRead = std::function<boost::asio::awaitable<std::string>(std::size_t)>;
boost::asio::awaitable<std::string> readFrame(const AsyncRead& read);
}  // namespace LengthPrefixedCodec

}  // namespace tamsel::bridge::rpc
