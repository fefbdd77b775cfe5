// Event-stream bytes from the engine, split at every possible place: the line splitter, the
// parser and the reply-stream decoder must never crash, and splitting must not change the result.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include "tamsel/bridge/daemon_client_error.hpp"
#include "tamsel/bridge/daemon_events.hpp"
#include "tamsel/bridge/reply_events.hpp"
#include "tamsel/bridge/sse_parser.hpp"

namespace {

std::vector<std::string> dispatch(std::string_view bytes, std::size_t chunk) {
  tamsel::bridge::SSELineSplitter splitter;
  tamsel::bridge::SSEParser parser;
  tamsel::bridge::SSEMessage message;
  std::vector<std::string> out;
  for (std::size_t at = 0; at < bytes.size(); at += chunk) {
    splitter.feed(bytes.substr(at, chunk), [&](std::string_view line) {
      if (!parser.feedLine(line, message)) return;
      out.push_back(message.event + "\n" + message.data);
      try {
        (void)tamsel::bridge::decodeReplyEvent(message);
      } catch (const tamsel::bridge::DaemonClientException&) {
      }
      (void)tamsel::bridge::decodeDaemonEvent(message);
    });
  }
  return out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  const std::string_view bytes(reinterpret_cast<const char*>(data) + 1, size - 1);
  const std::size_t chunk = 1 + data[0] % 17;
  if (dispatch(bytes, chunk) != dispatch(bytes, bytes.size() + 1)) std::abort();
  return 0;
}
