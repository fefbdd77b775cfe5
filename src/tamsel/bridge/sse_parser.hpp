#pragma once
// The server-sent event line parser shared by reply streams and the engine's event stream.
//
// Fed one line at a time (without its line feed). An empty line ends a block: when the block had
// data, one message (id, event, data lines joined by "\n") is dispatched; either way the state is
// reset completely, so an id never carries over to the next block. Lines starting with ":" are
// comments; "id:", "event:" and "data:" lose exactly one blank after the colon; any other line,
// "retry:" included, is ignored. Steady-state parsing allocates nothing per line: the data lines
// keep their storage from block to block.
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tamsel::bridge {

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
  };

  // Returns the dispatched message, if this line ended a block that had data.
  std::optional<SSEMessage> feedLine(std::string_view line);
  // As above, writing into `out` (whose storage is reused) and returning whether it dispatched.
  bool feedLine(std::string_view line, SSEMessage& out);

  const State& state() const { return state_; }

 private:
  void reset();
  State state_;
};

// Splits a byte stream into lines on the line feed, across reads of any size. A carriage return
// right before a line feed is dropped so CRLF-framed streams read like LF-framed ones; a lone
// carriage return is ordinary content. Multi-byte characters pass through untouched, since only
// the byte 0x0A (never part of a UTF-8 sequence) splits.
class SSELineSplitter {
 public:
  // Calls `onLine(std::string_view)` for every complete line in `bytes`.
  template <class OnLine>
  void feed(std::string_view bytes, OnLine&& onLine) {
    while (!bytes.empty()) {
      const auto lf = bytes.find('\n');
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
  std::string partial_;
};

}  // namespace tamsel::bridge
