#pragma once
// HTTP/1.1 to the engine on 127.0.0.1, behind a plain interface so that only one source file
// pays for Beast. Each request opens its own loopback connection, which keeps a slow streamed
// reply from ever holding up a short control call.
#include <boost/asio/awaitable.hpp>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "tamsel/bridge/daemon_client_error.hpp"

namespace tamsel::bridge {

enum class HttpSessionKind {
  longLived,  // streamed replies: one day, at most 64 connections at once
  control,    // short control calls: 5 s
  capture,    // screen-capture transfers: 25 s
  config,     // configuration reads and writes: 20 s
  liveness,   // the "/health" probe: outside the limits of the others, 5 s
};

struct HttpSessionConfig {
  std::chrono::seconds timeLimit;
  std::size_t maxConnections;  // 0: unlimited
  // The largest whole response send() reads; a larger one fails with ResponseTooLargeError
  // before it is buffered. Streams read through open() are not limited here (their lines are).
  std::size_t maxResponseBytes = std::size_t(64) << 20;
};

// A response past its session's limit: the call is dropped rather than buffered whole.
class ResponseTooLargeError : public TransportError {
 public:
  explicit ResponseTooLargeError(const std::string& message)
      : TransportError("response_too_large", message) {}
};

struct HttpRequest {
  std::string method = "GET";
  std::string target = "/";  // path and query, already encoded
  std::vector<std::pair<std::string, std::string>> headers;
  std::string body;
  std::string contentType;  // sent when not empty
};

struct HttpResponse {
  int status = 0;
  std::string contentType;
  std::string body;
};

// A response whose body is read as it arrives (chunked or close-delimited), with no size limit.
// Destroying it closes the connection, which is how a consumer cancels the request.
class HttpStream {
 public:
  virtual ~HttpStream() = default;
  virtual int status() const = 0;
  virtual const std::string& contentType() const = 0;
  // The next bytes of the body, or nothing at its end. Throws TransportError.
  // The view is valid until the next call.
  virtual boost::asio::awaitable<std::optional<std::string_view>> readSome() = 0;
  // From now on each read fails with a TransportError when no bytes arrive for `idle`.
  virtual void setIdleTimeout(std::chrono::steady_clock::duration idle) = 0;
  // Ends a pending read at once (it throws TransportError); used to stop a stream from outside.
  virtual void cancel() = 0;
  // The remaining body as one text (for error bodies of failed stream requests); throws
  // ResponseTooLargeError past `limit` bytes.
  boost::asio::awaitable<std::string> readAll(std::size_t limit = kMaxErrorBodyBytes);
  // An error body is a small JSON object; a megabyte is far more than any engine sends.
  static constexpr std::size_t kMaxErrorBodyBytes = std::size_t(1) << 20;
};

class ConnectionLimiter;

// A pool of loopback connections with one time limit. The application makes one set of them
// (HttpSessions) and shares it with every client. Operations run on the caller's executor and may
// be used from several at once; a request in flight keeps what it needs alive, so the session may
// be released while requests are still running.
class HttpSession {
 public:
  static HttpSessionConfig defaultConfig(HttpSessionKind kind);

  explicit HttpSession(HttpSessionConfig config);
  ~HttpSession();
  HttpSession(const HttpSession&) = delete;
  HttpSession& operator=(const HttpSession&) = delete;

  const HttpSessionConfig& config() const { return config_; }
  std::size_t activeConnections() const;

  // Sends the request and reads the whole response. Throws TransportError.
  boost::asio::awaitable<HttpResponse> send(std::uint16_t port, HttpRequest request);
  // Sends the request and returns once the response header has arrived.
  boost::asio::awaitable<std::unique_ptr<HttpStream>> open(std::uint16_t port, HttpRequest request);

 private:
  HttpSessionConfig config_;
  std::shared_ptr<ConnectionLimiter> limiter_;
};

// One session of each kind, with the limits of defaultConfig().
class HttpSessions {
 public:
  HttpSessions();
  const std::shared_ptr<HttpSession>& of(HttpSessionKind kind) const;

 private:
  std::shared_ptr<HttpSession> sessions_[5];
};

}  // namespace tamsel::bridge
