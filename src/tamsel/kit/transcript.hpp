#pragma once
// The displayed transcript's records, shared by the session reader, the planners and the chat
// controller. Plain values; JSON output uses the members' own (camel-case) names.
#include <boost/json/value.hpp>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "tamsel/base/dates.hpp"

namespace tamsel::kit {

using base::Timestamp;
using JSON = boost::json::value;

enum class ToolRunStatus { running, completed, denied };

struct ToolEntrySnapshot {
  std::string id;
  std::string name;
  ToolRunStatus status = ToolRunStatus::running;
  std::optional<double> elapsed;
  bool isError = false;
  std::optional<std::string> args;
  std::optional<std::string> preview;
  std::optional<std::string> toolUseId;
  bool operator==(const ToolEntrySnapshot&) const = default;
};

struct CloudProgress {
  std::int64_t completed = 0;
  std::int64_t total = 0;
  bool operator==(const CloudProgress&) const = default;
};

struct ToolBlockSnapshot {
  std::string id;
  std::vector<ToolEntrySnapshot> tools;
  std::optional<Timestamp> startedAt;
  std::optional<Timestamp> endedAt;
  std::optional<CloudProgress> cloudProgress;
  bool operator==(const ToolBlockSnapshot&) const = default;
};

struct Attachment {
  enum class Kind { image, fileRef };
  std::string id;
  Kind kind = Kind::fileRef;
  std::string filename;
  std::optional<std::string> mimeType;
  std::optional<std::int64_t> byteSize;
  std::optional<std::string> filePath;
  std::optional<std::string> thumbnailData;
  bool operator==(const Attachment&) const = default;
};

struct SessionResource {
  enum class Kind { image, link, file };
  enum class Source { remoteURL, dataURL, attachmentImage, attachmentFile, deliverable };
  std::string id;
  Kind kind = Kind::file;
  Source source = Source::deliverable;
  std::optional<std::string> url;
  std::optional<std::string> thumbnailBase64;
  std::optional<std::string> filePath;
  std::optional<std::string> mimeType;
  std::optional<std::string> title;
  std::optional<std::string> messageID;
  std::optional<Timestamp> timestamp;
  bool operator==(const SessionResource&) const = default;
};

struct Message {
  std::string id;
  std::optional<std::string> channelID;
  std::string author;  // "user" or "assistant"
  std::string content;
  std::optional<Timestamp> timestamp;
  std::optional<JSON> threadReplies;
  std::optional<JSON> agentAction;
  std::vector<Attachment> attachments;
  std::optional<JSON> conversationAnnotations;
  std::optional<JSON> usage;
  std::optional<ToolBlockSnapshot> toolBlock;
  bool operator==(const Message&) const = default;
};

struct ApprovalInfo {
  std::string requestID;
  std::string tool;
  std::optional<std::string> args;
  std::vector<std::string> flags;
  bool operator==(const ApprovalInfo&) const = default;
};

const char* name(ToolRunStatus status);
const char* name(Attachment::Kind kind);

JSON toJSON(const ToolBlockSnapshot& block);
JSON toJSON(const Attachment& attachment);
JSON toJSON(const SessionResource& resource);

}  // namespace tamsel::kit
