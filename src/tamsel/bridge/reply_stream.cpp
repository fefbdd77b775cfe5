#include "tamsel/bridge/reply_stream.hpp"

#include <utility>

namespace tamsel::bridge {

namespace asio = boost::asio;

ReplyStream::ReplyStream(std::unique_ptr<HttpStream> body) : body_(std::move(body)) {}
ReplyStream::ReplyStream(ReplyStream&&) noexcept = default;
ReplyStream& ReplyStream::operator=(ReplyStream&&) noexcept = default;
ReplyStream::~ReplyStream() = default;

void ReplyStream::feed(std::string_view bytes) {
  splitter_.feed(bytes, [this](std::string_view line) {
    // Nothing after "done" or a stream-ending error belongs to this reply.
    if (sawDone_ || failure_) return;
    if (!parser_.feedLine(line, message_)) return;
    std::optional<SSEEvent> event;
    try {
      event = decodeReplyEvent(message_);
    } catch (...) {
      failure_ = std::current_exception();
      return;
    }
    if (!event) return;
    if (event->get<SSEEvent::Done>()) sawDone_ = true;
    ready_.push_back(std::move(*event));
  });
}

std::optional<SSEEvent> ReplyStream::takeDecoded() {
  if (ready_.empty()) return std::nullopt;
  auto event = std::move(ready_.front());
  ready_.pop_front();
  return event;
}

asio::awaitable<std::optional<SSEEvent>> ReplyStream::next() {
  while (ready_.empty()) {
    if (failure_) {
      ended_ = true;
      body_.reset();
      std::rethrow_exception(std::exchange(failure_, nullptr));
    }
    if (ended_ || sawDone_) {
      ended_ = true;
      // The reply is complete: let the connection go now rather than when the stream is dropped.
      body_.reset();
      co_return std::nullopt;
    }
    auto bytes = co_await body_->readSome();
    if (!bytes) {
      ended_ = true;
      continue;
    }
    try {
      feed(*bytes);
    } catch (const SSELimitError&) {
      // The engine sent more than any event needs: drop the request with the error.
      ended_ = true;
      body_.reset();
      throw;
    }
  }
  co_return takeDecoded();
}

}  // namespace tamsel::bridge
