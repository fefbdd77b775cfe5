#pragma once
// The reply of a sent, edited or injected message, read as it is written.
//
// next() yields decoded events in arrival order and nothing once the stream has ended: after
// "done", or when the body ended without it (then endedPrematurely() is true). Unknown events and
// undecodable data are skipped. A transport failure is thrown unchanged; an
// "idempotent_request_in_progress" error is thrown as DaemonClientException. Destroying the
// stream closes the connection, which cancels the request.
#include <boost/asio/awaitable.hpp>
#include <deque>
#include <exception>
#include <memory>
#include <optional>

#include "tamsel/bridge/http_transport.hpp"
#include "tamsel/bridge/reply_events.hpp"
#include "tamsel/bridge/sse_parser.hpp"

namespace tamsel::bridge {

class ReplyStream {
 public:
  explicit ReplyStream(std::unique_ptr<HttpStream> body);
  ReplyStream(ReplyStream&&) noexcept;
  ReplyStream& operator=(ReplyStream&&) noexcept;
  ~ReplyStream();

  boost::asio::awaitable<std::optional<SSEEvent>> next();

  // Ends a pending next() at once with a TransportError; the request is closed.
  void cancel() {
    if (body_) body_->cancel();
  }

  bool sawDone() const { return sawDone_; }
  bool endedPrematurely() const { return ended_ && !sawDone_; }

  // Feeds raw bytes through the same path as the network (for tests and benchmarks).
  void feed(std::string_view bytes);
  std::optional<SSEEvent> takeDecoded();

 private:
  std::unique_ptr<HttpStream> body_;
  SSELineSplitter splitter_;
  SSEParser parser_;
  SSEMessage message_;
  std::deque<SSEEvent> ready_;
  // A stream-ending error, thrown once the events before it have been delivered.
  std::exception_ptr failure_;
  bool sawDone_ = false;
  bool ended_ = false;
};

}  // namespace tamsel::bridge
