#pragma once
// The server-sent event line parser shared by reply streams and the engine's event stream.
//
// Fed one line at a time (without its line feed). An empty line ends a block: when the block had
// data, one message (id, event, data lines joined by "\n") is dispatched; either way the state is
// reset completely, so an id never carries over to the next block. Lines starting with ":" are
// comments; "id:", "event:" and "data:" lose exactly one blank after the colon; any other line,
// "retry:" included, is ignored. Steady-state parsing allocates nothing per line: the data lines
// keep their storage from block to block.
//
// Both the splitter and the parser refuse to buffer more than kMaxSSEBytes (8 MiB) for one line
// or one block and throw SSELimitError instead: a stream that never ends a line must not grow
// without end. The largest thing a real engine writes on one line is one event's JSON (a whole
// assistant text, a tool's arguments), well under a megabyte; 8 MiB leaves ample room for that
// and keeps the worst case of a stream (line, block, joined data and its decoded JSON) far below
// 100 MB.
#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tamsel/bridge/daemon_client_error.hpp"

namespace tamsel::bridge {

inline constexpr std::size_t kMaxSSEBytes = std::size_t(8) << 20;

// A line or block past the limit. A TransportError, so every reader drops the stream as after
// any other failure of the connection (the event bus reconnects).
class SSELimitError : public TransportError {
 public:
  explicit SSELimitError(const std::string& message) : TransportError("line_too_long", message) {}
};

struct SSEMessage {
  std::optional<std::string> id;
  std::string event;  // empty when the block had no "event:" line
  std::string data;
};

class SSEParser {
 public:
  struct State {
    std::optional<std::string> eventID;
    std::string eventType;
    // Only the first `dataLineCount` entries are the block's lines; the rest is kept storage.
    std::vector<std::string> dataLines;
    std::size_t dataLineCount = 0;
    std::size_t dataBytes = 0;  // of the block's lines, counted against the limit
  };

  explicit SSEParser(std::size_t maxBlockBytes = kMaxSSEBytes) : maxBlockBytes_(maxBlockBytes) {}

  // Returns the dispatched message, if this line ended a block that had data. Throws
  // SSELimitError (and forgets the block) when its data passes the limit.
  std::optional<SSEMessage> feedLine(std::string_view line);
  // As above, writing into `out` (whose storage is reused) and returning whether it dispatched.
  bool feedLine(std::string_view line, SSEMessage& out);

  const State& state() const { return state_; }

 private:
  void reset();
  State state_;
  std::size_t maxBlockBytes_;
};

// Splits a byte stream into lines on the line feed, across reads of any size. A carriage return
// right before a line feed is dropped so CRLF-framed streams read like LF-framed ones; a lone
// carriage return is ordinary content. Multi-byte characters pass through untouched, since only
// the byte 0x0A (never part of a UTF-8 sequence) splits.
class SSELineSplitter {
 public:
  explicit SSELineSplitter(std::size_t maxLineBytes = kMaxSSEBytes) : maxLineBytes_(maxLineBytes) {}

  // Calls `onLine(std::string_view)` for every complete line in `bytes`. Throws SSELimitError
  // when a line (without its line feed) is longer than the limit, however it was split; the
  // buffered part is released.
  template <class OnLine>
  void feed(std::string_view bytes, OnLine&& onLine) {
    while (!bytes.empty()) {
      const auto lf = bytes.find('\n');
      const std::size_t taken = lf == std::string_view::npos ? bytes.size() : lf;
      if (partial_.size() + taken > maxLineBytes_) tooLong();
      if (lf == std::string_view::npos) {
        partial_.append(bytes);
        return;
      }
      std::string_view line = bytes.substr(0, lf);
      bytes.remove_prefix(lf + 1);
      if (!partial_.empty()) {
        partial_.append(line);
        line = partial_;
      }
      if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
      onLine(line);
      partial_.clear();
    }
  }
  // Bytes of an unfinished line at the end of the stream (nothing when it ended cleanly).
  const std::string& pending() const { return partial_; }

 private:
  [[noreturn]] void tooLong();
  std::string partial_;
  std::size_t maxLineBytes_;
};

}  // namespace tamsel::bridge
