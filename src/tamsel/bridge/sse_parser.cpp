#include "tamsel/bridge/sse_parser.hpp"

#include "tamsel/base/strings.hpp"

namespace tamsel::bridge {

namespace {
// The value after "name:", with one optional blank removed; nothing when the line is not that
// field.
std::optional<std::string_view> field(std::string_view line, std::string_view name) {
  if (line.size() <= name.size() || line.compare(0, name.size(), name) != 0 ||
      line[name.size()] != ':')
    return std::nullopt;
  std::string_view value = line.substr(name.size() + 1);
  if (!value.empty() && value.front() == ' ') value.remove_prefix(1);
  return value;
}
}  // namespace

void SSEParser::reset() {
  state_.eventID.reset();
  state_.eventType.clear();
  state_.dataLineCount = 0;
  state_.dataBytes = 0;
}

void SSELineSplitter::tooLong() {
  std::string().swap(partial_);
  throw SSELimitError("The engine sent an event-stream line longer than " +
                      base::byteSizeText(maxLineBytes_) + "; the stream was dropped");
}

bool SSEParser::feedLine(std::string_view line, SSEMessage& out) {
  if (line.empty()) {
    const bool dispatch = state_.dataLineCount > 0;
    if (dispatch) {
      out.id = state_.eventID;
      out.event = state_.eventType;
      out.data.clear();
      for (std::size_t i = 0; i < state_.dataLineCount; ++i) {
        if (i) out.data.push_back('\n');
        out.data.append(state_.dataLines[i]);
      }
    }
    reset();
    return dispatch;
  }
  if (line.front() == ':') return false;
  if (auto value = field(line, "id")) {
    state_.eventID = std::string(*value);
  } else if (auto value = field(line, "event")) {
    state_.eventType.assign(*value);
  } else if (auto value = field(line, "data")) {
    // A line feed joins each line to the previous one, so it counts too.
    state_.dataBytes += value->size() + 1;
    if (state_.dataBytes > maxBlockBytes_ + 1) {
      reset();
      std::vector<std::string>().swap(state_.dataLines);
      throw SSELimitError("The engine sent an event larger than " +
                          base::byteSizeText(maxBlockBytes_) + "; the stream was dropped");
    }
    if (state_.dataLineCount == state_.dataLines.size()) state_.dataLines.emplace_back();
    state_.dataLines[state_.dataLineCount++].assign(*value);
  }
  return false;
}

std::optional<SSEMessage> SSEParser::feedLine(std::string_view line) {
  SSEMessage message;
  if (feedLine(line, message)) return message;
  return std::nullopt;
}

}  // namespace tamsel::bridge
