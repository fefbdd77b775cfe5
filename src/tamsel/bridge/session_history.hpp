#pragma once
// Reads the engine's session files (never writes them) and folds their raw messages into the
// messages the chat shows.
//
// Files live under the engine home: "sessions/<id>.json" for the default agent and
// "agents/<agent>/sessions/<id>.json" for named agents ("agents/_builtin" is never searched).
// Decoding is lenient: a bad content block spoils only its own message, non-string tool inputs
// are skipped, and a file that does not decode is an empty history, never an error. A load given
// the fingerprint the caller saw last costs one stat() when the file is unchanged.
#include <boost/asio/any_io_executor.hpp>
#include <boost/asio/awaitable.hpp>
#include <cstdint>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tamsel/kit/transcript.hpp"

namespace tamsel::bridge {

using kit::Timestamp;

struct SessionFileFingerprint {
  std::filesystem::file_time_type modificationDate{};
  std::int64_t byteCount = 0;
  bool operator==(const SessionFileFingerprint&) const = default;
};

struct SessionMessage {
  std::string role;
  std::string content;
  std::optional<Timestamp> timestamp;
  std::int64_t rawIndex = 0;
  std::int64_t rawIndexEnd = 0;
  std::vector<kit::Attachment> attachments;
  std::optional<kit::JSON> conversationAnnotations;
  std::optional<kit::ToolBlockSnapshot> toolBlock;
  bool operator==(const SessionMessage&) const = default;
};
// {"role", "content", "timestamp", "rawIndex", "rawIndexEnd", "attachments",
//  "conversationAnnotations", "toolBlock"}
kit::JSON toJSON(const SessionMessage& message);

struct ToolUseExtract {
  std::string id;
  std::string name;
  std::optional<std::string> argsSummary;
};

struct ToolResultExtract {
  std::string toolUseId;
  std::string preview;
  bool isError = false;
};

struct ReloadedDeliverable {
  kit::SessionResource resource;
  std::string toolUseID;
};

// One content block of a raw message, as decoded.
struct ContentBlock {
  std::string type;
  std::optional<std::string> text;
  std::optional<std::string> name;
  std::optional<std::string> id;
  std::optional<std::map<std::string, std::string>> inputArgs;  // string members only
  std::optional<std::string> toolUseId;
  std::optional<std::string> resultText;
  std::optional<bool> isError;
  struct ImageSource {
    std::optional<std::string> type, mediaType, data;
  };
  std::optional<ImageSource> source;
  std::optional<std::string> filePath, filename;
  std::optional<std::int64_t> byteSize;
};

struct RawMessage {
  std::string role;
  // A plain string, or blocks; a message whose blocks did not decode has neither.
  std::optional<std::string> text;
  std::vector<ContentBlock> blocks;
};

struct MessageMeta {
  std::optional<Timestamp> timestamp;
  bool systemInjected = false;
  std::optional<kit::JSON> conversationAnnotations;
};

struct SessionFile {
  std::optional<std::string> id, title;
  std::vector<RawMessage> messages;
  std::vector<std::optional<MessageMeta>> messageMeta;
  std::optional<Timestamp> createdAt, updatedAt;
};

struct SessionLoadResult {
  bool unchanged = false;  // the caller's fingerprint still holds; nothing was read
  bool found = false;
  std::vector<SessionMessage> messages;
  std::optional<std::string> title;
  std::vector<ReloadedDeliverable> deliverables;
  std::optional<SessionFileFingerprint> fingerprint;
};

class SessionHistory {
 public:
  // `verdaneDir` is the engine home (~/.verdane). `worker` is where file work runs (never the main
  // executor); without one, load() does the work on the caller's executor.
  // A load in flight does not refer to the history: it may be destroyed meanwhile.
  explicit SessionHistory(std::filesystem::path verdaneDir,
                          std::optional<boost::asio::any_io_executor> worker = std::nullopt);
  ~SessionHistory();

  const std::filesystem::path& verdaneDir() const { return verdaneDir_; }

  std::optional<std::filesystem::path> locate(const std::string& sessionID,
                                              const std::optional<std::string>& agent) const;

  // Runs on the worker, one load at a time, and resumes on the caller's executor.
  boost::asio::awaitable<SessionLoadResult> load(std::string sessionID,
                                                 std::optional<std::string> agent,
                                                 std::optional<SessionFileFingerprint> lastSeen);
  // The same, blocking, on the calling thread.
  SessionLoadResult loadNow(const std::string& sessionID, const std::optional<std::string>& agent,
                            const std::optional<SessionFileFingerprint>& lastSeen) const;

  static std::optional<SessionFileFingerprint> fingerprint(const std::filesystem::path& file);

  // Decoding and folding, free of file access (images are still written when materialised).
  static std::optional<SessionFile> decode(std::string_view json);
  struct Folded {
    std::vector<SessionMessage> messages;
    std::vector<ReloadedDeliverable> deliverables;
  };
  static Folded fold(const SessionFile& file, bool materialiseImages = true);

  static std::vector<ToolUseExtract> toolUses(const RawMessage& assistant);
  static std::vector<ToolResultExtract> toolResults(const RawMessage& user);
  static std::optional<std::string> argsSummary(const std::string& toolName,
                                                const std::map<std::string, std::string>& input);
  // Newlines to spaces, trimmed, cut to 200 characters plus "…".
  static std::string normalisePreview(std::string_view text);
  static bool isSystemInjected(std::string_view text);
  // Writes the image to <user runtime folder>/quenlo-images/<uuid>.<ext>, a private folder
  // (see base::userRuntimeFolder), the uuid derived from the content so that the same image
  // reuses its file; nothing when it cannot.
  static std::optional<std::filesystem::path> materialiseImage(
      std::string_view base64, std::optional<std::string> mediaType);

 private:
  std::filesystem::path verdaneDir_;
  struct Worker;
  std::shared_ptr<Worker> worker_;
};

}  // namespace tamsel::bridge
