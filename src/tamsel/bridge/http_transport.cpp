#include "tamsel/bridge/http_transport.hpp"

#include <boost/asio/as_tuple.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/this_coro.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/core/tcp_stream.hpp>
#include <boost/beast/http.hpp>
#include <deque>

#include "tamsel/base/mutex.hpp"
#include "tamsel/base/strings.hpp"
#include "tamsel/bridge/daemon_client_error.hpp"

namespace tamsel::bridge {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
using asio::ip::tcp;

// Counts open connections of one session; callers beyond the limit wait in order.
// Waiters may live on different executors, so a freed slot is handed over by posting to the
// waiter's own executor.
class ConnectionLimiter : public std::enable_shared_from_this<ConnectionLimiter> {
 public:
  explicit ConnectionLimiter(std::size_t limit) : limit_(limit) {}

  class Slot {
   public:
    Slot() = default;
    explicit Slot(std::shared_ptr<ConnectionLimiter> owner) : owner_(std::move(owner)) {}
    Slot(Slot&& other) noexcept : owner_(std::move(other.owner_)) {}
    Slot& operator=(Slot&& other) noexcept {
      release();
      owner_ = std::move(other.owner_);
      return *this;
    }
    ~Slot() { release(); }
    void release() {
      if (owner_) std::exchange(owner_, nullptr)->release();
    }

   private:
    std::shared_ptr<ConnectionLimiter> owner_;
  };

  asio::awaitable<Slot> acquire() {
    auto executor = co_await asio::this_coro::executor;
    auto waiter = std::make_shared<Waiter>(executor);
    {
      base::MutexLock lock(mutex_);
      if (limit_ == 0 || active_ < limit_) {
        ++active_;
        co_return Slot(shared_from_this());
      }
      waiters_.push_back(waiter);
    }
    auto [ec] = co_await waiter->timer.async_wait(asio::as_tuple(asio::use_awaitable));
    (void)ec;
    base::MutexLock lock(mutex_);
    if (waiter->granted) co_return Slot(shared_from_this());
    // Cancelled while waiting: leave the queue without taking a slot.
    std::erase(waiters_, waiter);
    throw TransportError("The request was cancelled");
  }

  std::size_t active() const {
    base::MutexLock lock(mutex_);
    return active_;
  }

 private:
  struct Waiter {
    explicit Waiter(asio::any_io_executor executor)
        : timer(executor, asio::steady_timer::time_point::max()) {}
    asio::steady_timer timer;
    bool granted = false;  // under the limiter's mutex_
  };

  void release() EXCLUDES(mutex_) {
    base::MutexLock lock(mutex_);
    if (waiters_.empty()) {
      --active_;
      return;
    }
    // The slot passes straight to the oldest waiter; the count stays.
    auto next = waiters_.front();
    waiters_.pop_front();
    next->granted = true;
    asio::post(next->timer.get_executor(), [next] { next->timer.cancel(); });
  }

  mutable base::Mutex mutex_;
  const std::size_t limit_;
  std::size_t active_ GUARDED_BY(mutex_) = 0;
  std::deque<std::shared_ptr<Waiter>> waiters_ GUARDED_BY(mutex_);
};

namespace {

std::string describe(const boost::system::error_code& ec, std::uint16_t port) {
  if (ec == beast::error::timeout) return "The request timed out";
  if (ec == asio::error::connection_refused)
    return "Could not connect to the engine at 127.0.0.1:" + std::to_string(port) +
           " (connection refused)";
  return "Engine connection failed: " + ec.message();
}

http::request<http::string_body> buildRequest(std::uint16_t port, HttpRequest& request) {
  http::request<http::string_body> r;
  r.method_string(request.method);
  r.target(request.target);
  r.version(11);
  r.set(http::field::host, "127.0.0.1:" + std::to_string(port));
  r.set(http::field::user_agent, "tamsel-desktop");
  r.keep_alive(false);
  for (auto& [name, value] : request.headers) r.set(name, value);
  if (!request.contentType.empty()) r.set(http::field::content_type, request.contentType);
  r.body() = std::move(request.body);
  r.prepare_payload();
  return r;
}

asio::awaitable<beast::tcp_stream> connectAndWrite(std::uint16_t port, HttpRequest& request,
                                                   std::chrono::seconds timeLimit) {
  beast::tcp_stream stream(co_await asio::this_coro::executor);
  // One deadline for the whole exchange: the session's request and resource limit.
  stream.expires_after(timeLimit);
  auto [connectError] = co_await stream.async_connect(
      tcp::endpoint(asio::ip::address_v4::loopback(), port), asio::as_tuple(asio::use_awaitable));
  if (connectError) throw TransportError(describe(connectError, port));
  auto message = buildRequest(port, request);
  auto [writeError, written] =
      co_await http::async_write(stream, message, asio::as_tuple(asio::use_awaitable));
  (void)written;
  if (writeError) throw TransportError(describe(writeError, port));
  co_return stream;
}

class BeastHttpStream final : public HttpStream {
 public:
  BeastHttpStream(beast::tcp_stream stream, std::uint16_t port, ConnectionLimiter::Slot slot)
      : stream_(std::move(stream)), port_(port), slot_(std::move(slot)) {
    parser_.body_limit(boost::none);  // a day-long stream must not be cut by a size limit
  }

  asio::awaitable<void> readHeader() {
    auto [ec, n] = co_await http::async_read_header(stream_, buffer_, parser_,
                                                    asio::as_tuple(asio::use_awaitable));
    (void)n;
    if (ec) throw TransportError(describe(ec, port_));
    status_ = static_cast<int>(parser_.get().result_int());
    contentType_ = std::string(parser_.get()[http::field::content_type]);
  }

  int status() const override { return status_; }
  const std::string& contentType() const override { return contentType_; }

  void setIdleTimeout(std::chrono::steady_clock::duration idle) override { idle_ = idle; }
  void cancel() override {
    boost::system::error_code ignored;
    stream_.socket().cancel(ignored);
  }

  asio::awaitable<std::optional<std::string_view>> readSome() override {
    while (!parser_.is_done()) {
      if (idle_) stream_.expires_after(*idle_);
      parser_.get().body().data = chunk_;
      parser_.get().body().size = sizeof chunk_;
      auto [ec, n] = co_await http::async_read_some(stream_, buffer_, parser_,
                                                    asio::as_tuple(asio::use_awaitable));
      (void)n;
      if (ec == http::error::need_buffer) ec = {};
      if (ec == beast::error::timeout && idle_) throw TransportError("The stream went silent");
      if (ec == http::error::end_of_stream || ec == http::error::partial_message) {
        // A close-delimited body ends with the connection.
        if (parser_.is_done()) break;
        throw TransportError("The engine closed the stream unexpectedly");
      }
      if (ec) throw TransportError(describe(ec, port_));
      const std::size_t produced = sizeof chunk_ - parser_.get().body().size;
      if (produced > 0) co_return std::string_view(chunk_, produced);
    }
    co_return std::nullopt;
  }

 private:
  beast::tcp_stream stream_;
  std::uint16_t port_;
  ConnectionLimiter::Slot slot_;
  beast::flat_buffer buffer_;
  http::response_parser<http::buffer_body> parser_;
  int status_ = 0;
  std::string contentType_;
  std::optional<std::chrono::steady_clock::duration> idle_;
  char chunk_[16384];
};

}  // namespace

asio::awaitable<std::string> HttpStream::readAll(std::size_t limit) {
  std::string all;
  while (auto piece = co_await readSome()) {
    if (all.size() + piece->size() > limit) {
      cancel();
      throw ResponseTooLargeError("The engine's error answer was larger than " +
                                  base::byteSizeText(limit) + "; the request was dropped");
    }
    all.append(*piece);
  }
  co_return all;
}

HttpSessionConfig HttpSession::defaultConfig(HttpSessionKind kind) {
  using std::chrono::seconds;
  constexpr std::size_t mib = std::size_t(1) << 20;
  // Response limits: the largest control answer is a session's whole transcript, which may carry
  // pasted images as base64 (tens of MB for a heavy session), hence 64 MiB; a screen capture of
  // a large display is under 100 MB even as base64; "/health" answers a few bytes.
  switch (kind) {
    case HttpSessionKind::longLived:
      return {seconds(86400), 64, 64 * mib};
    case HttpSessionKind::control:
      return {seconds(5), 0, 64 * mib};
    case HttpSessionKind::capture:
      return {seconds(25), 0, 256 * mib};
    case HttpSessionKind::config:
      return {seconds(20), 0, 64 * mib};
    case HttpSessionKind::liveness:
      return {seconds(5), 0, 1 * mib};
  }
  return {seconds(5), 0, 64 * mib};
}

HttpSessions::HttpSessions() {
  for (auto kind : {HttpSessionKind::longLived, HttpSessionKind::control, HttpSessionKind::capture,
                    HttpSessionKind::config, HttpSessionKind::liveness})
    sessions_[static_cast<int>(kind)] =
        std::make_shared<HttpSession>(HttpSession::defaultConfig(kind));
}

const std::shared_ptr<HttpSession>& HttpSessions::of(HttpSessionKind kind) const {
  return sessions_[static_cast<int>(kind)];
}

HttpSession::HttpSession(HttpSessionConfig config)
    : config_(config), limiter_(std::make_shared<ConnectionLimiter>(config.maxConnections)) {}

HttpSession::~HttpSession() = default;

std::size_t HttpSession::activeConnections() const { return limiter_->active(); }

asio::awaitable<HttpResponse> HttpSession::send(std::uint16_t port, HttpRequest request) {
  // Nothing of the session is touched after the first suspension: it may be gone by then.
  const auto timeLimit = config_.timeLimit;
  const auto maxBytes = config_.maxResponseBytes;
  const auto limiter = limiter_;
  auto slot = co_await limiter->acquire();
  const std::string what =
      request.method + " " + request.target.substr(0, request.target.find('?'));
  auto stream = co_await connectAndWrite(port, request, timeLimit);
  beast::flat_buffer buffer;
  http::response_parser<http::string_body> parser;
  parser.body_limit(static_cast<std::uint64_t>(maxBytes));
  auto [ec, n] =
      co_await http::async_read(stream, buffer, parser, asio::as_tuple(asio::use_awaitable));
  (void)n;
  if (ec == http::error::body_limit)
    throw ResponseTooLargeError("The engine's answer to " + what + " was larger than " +
                                base::byteSizeText(maxBytes) + "; the call was dropped");
  if (ec) throw TransportError(describe(ec, port));
  HttpResponse response;
  response.status = static_cast<int>(parser.get().result_int());
  response.contentType = std::string(parser.get()[http::field::content_type]);
  response.body = std::move(parser.get().body());
  co_return response;
}

asio::awaitable<std::unique_ptr<HttpStream>> HttpSession::open(std::uint16_t port,
                                                               HttpRequest request) {
  const auto timeLimit = config_.timeLimit;
  const auto limiter = limiter_;
  auto slot = co_await limiter->acquire();
  auto stream = co_await connectAndWrite(port, request, timeLimit);
  auto result = std::make_unique<BeastHttpStream>(std::move(stream), port, std::move(slot));
  co_await result->readHeader();
  co_return result;
}

}  // namespace tamsel::bridge
