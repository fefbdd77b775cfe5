// Decoding of session files and the text rules of the displayed transcript: no file access
// besides writing materialised images, so they can be fuzzed and benchmarked alone.
#include <fcntl.h>
#include <openssl/evp.h>
#include <simdjson.h>
#include <sys/stat.h>

#include <boost/json/array.hpp>
#include <boost/json/object.hpp>
#include <boost/json/parse.hpp>
#include <charconv>
#include <limits>
#include <set>

#include "tamsel/base/atomic_file.hpp"
#include "tamsel/base/log.hpp"
#include "tamsel/base/mutex.hpp"
#include "tamsel/base/numbers.hpp"
#include "tamsel/base/private_folder.hpp"
#include "tamsel/base/strings.hpp"
#include "tamsel/base/uuid.hpp"
#include "tamsel/bridge/session_history.hpp"

namespace tamsel::bridge {

namespace fs = std::filesystem;
namespace bj = boost::json;
using simdjson::dom::element;
using simdjson::dom::element_type;

namespace {

constexpr const char* kSource = "SessionHistory";
constexpr std::size_t kPreviewLimit = 200;

// ---------------------------------------------------------------- decoding

// The engine writes snake-case keys; camel-case ones are accepted too.
simdjson::simdjson_result<element> member(const simdjson::dom::object& object,
                                          std::string_view snake, std::string_view camel = {}) {
  auto found = object[snake];
  if (found.error() == simdjson::NO_SUCH_FIELD && !camel.empty()) return object[camel];
  return found;
}

// Reads an optional string member: absent or null is fine, any other type spoils the block.
bool optionalString(const simdjson::dom::object& object, std::string_view snake,
                    std::string_view camel, std::optional<std::string>& out) {
  auto found = member(object, snake, camel);
  if (found.error()) return true;
  element value = found.value_unsafe();
  if (value.is_null()) return true;
  std::string_view text;
  if (value.get_string().get(text)) return false;
  out.emplace(text);
  return true;
}

bool optionalBool(const simdjson::dom::object& object, std::string_view snake,
                  std::string_view camel, std::optional<bool>& out) {
  auto found = member(object, snake, camel);
  if (found.error()) return true;
  element value = found.value_unsafe();
  if (value.is_null()) return true;
  bool flag = false;
  if (value.get_bool().get(flag)) return false;
  out = flag;
  return true;
}

bool optionalInt(const simdjson::dom::object& object, std::string_view snake,
                 std::string_view camel, std::optional<std::int64_t>& out) {
  auto found = member(object, snake, camel);
  if (found.error()) return true;
  element value = found.value_unsafe();
  if (value.is_null()) return true;
  std::int64_t number = 0;
  if (value.get_int64().get(number)) {
    // A whole number written as a double ("3.0", "3E2") counts; one past int64 (5E20) does not.
    double d = 0;
    if (value.get_double().get(d)) return false;
    const auto whole = base::exactInt64(d);
    if (!whole) return false;
    number = *whole;
  }
  out = number;
  return true;
}

std::optional<ContentBlock> decodeBlock(element value) {
  simdjson::dom::object object;
  if (value.get_object().get(object)) return std::nullopt;
  ContentBlock block;
  std::optional<std::string> type;
  if (!optionalString(object, "type", {}, type) || !type) return std::nullopt;
  block.type = std::move(*type);
  if (!optionalString(object, "text", {}, block.text) ||
      !optionalString(object, "name", {}, block.name) ||
      !optionalString(object, "id", {}, block.id) ||
      !optionalString(object, "tool_use_id", "toolUseId", block.toolUseId) ||
      !optionalBool(object, "is_error", "isError", block.isError) ||
      !optionalString(object, "file_path", "filePath", block.filePath) ||
      !optionalString(object, "filename", {}, block.filename) ||
      !optionalInt(object, "byte_size", "byteSize", block.byteSize))
    return std::nullopt;

  if (auto input = object["input"]; !input.error() && !input.value_unsafe().is_null()) {
    simdjson::dom::object args;
    if (input.value_unsafe().get_object().get(args)) return std::nullopt;
    std::map<std::string, std::string> strings;
    for (auto field : args) {
      std::string_view text;
      // Mixed-type inputs are normal; only the strings matter for summaries.
      if (!field.value.get_string().get(text))
        strings.emplace(std::string(field.key), std::string(text));
    }
    block.inputArgs = std::move(strings);
  }

  if (auto content = object["content"]; !content.error() && !content.value_unsafe().is_null()) {
    element c = content.value_unsafe();
    std::string_view text;
    simdjson::dom::array nested;
    if (!c.get_string().get(text)) {
      block.resultText.emplace(text);
    } else if (!c.get_array().get(nested)) {
      std::string joined;
      bool first = true;
      for (element item : nested) {
        simdjson::dom::object part;
        if (item.get_object().get(part)) return std::nullopt;
        std::optional<std::string> partType, partText;
        if (!optionalString(part, "type", {}, partType) ||
            !optionalString(part, "text", {}, partText))
          return std::nullopt;
        if (partType == "text" && partText) {
          if (!first) joined += "\n";
          joined += *partText;
          first = false;
        }
      }
      block.resultText = std::move(joined);
    } else {
      return std::nullopt;
    }
  }

  if (auto source = object["source"]; !source.error() && !source.value_unsafe().is_null()) {
    simdjson::dom::object src;
    if (source.value_unsafe().get_object().get(src)) return std::nullopt;
    ContentBlock::ImageSource image;
    if (!optionalString(src, "type", {}, image.type) ||
        !optionalString(src, "media_type", "mediaType", image.mediaType) ||
        !optionalString(src, "data", {}, image.data))
      return std::nullopt;
    block.source = std::move(image);
  }
  return block;
}

RawMessage decodeMessage(element value) {
  RawMessage message;
  simdjson::dom::object object;
  if (value.get_object().get(object)) return message;
  std::optional<std::string> role;
  if (optionalString(object, "role", {}, role) && role) message.role = std::move(*role);
  auto content = object["content"];
  if (content.error()) return message;
  element c = content.value_unsafe();
  std::string_view text;
  simdjson::dom::array blocks;
  if (!c.get_string().get(text)) {
    message.text.emplace(text);
  } else if (!c.get_array().get(blocks)) {
    for (element item : blocks) {
      auto block = decodeBlock(item);
      if (!block) {
        // One bad block spoils this message's content only.
        message.blocks.clear();
        return message;
      }
      message.blocks.push_back(std::move(*block));
    }
  }
  return message;
}

std::optional<MessageMeta> decodeMeta(element value) {
  simdjson::dom::object object;
  if (value.get_object().get(object)) return std::nullopt;
  MessageMeta meta;
  std::optional<std::string> stamp;
  if (!optionalString(object, "timestamp", {}, stamp)) return std::nullopt;
  if (stamp) {
    meta.timestamp = base::parseISO8601(*stamp);
    if (!meta.timestamp) return std::nullopt;
  }
  std::optional<bool> injected;
  if (!optionalBool(object, "system_injected", "systemInjected", injected)) return std::nullopt;
  meta.systemInjected = injected.value_or(false);
  if (auto annotations = member(object, "conversation_annotations", "conversationAnnotations");
      !annotations.error() && !annotations.value_unsafe().is_null()) {
    // Passed through unchanged: re-read as a JSON value of our own.
    boost::system::error_code ec;
    auto parsed = bj::parse(simdjson::minify(annotations.value_unsafe()), ec);
    if (!ec) meta.conversationAnnotations = std::move(parsed);
  }
  return meta;
}

std::optional<Timestamp> optionalDate(const simdjson::dom::object& object, std::string_view snake,
                                      std::string_view camel) {
  std::optional<std::string> text;
  if (!optionalString(object, snake, camel, text) || !text) return std::nullopt;
  return base::parseISO8601(*text);
}

// ---------------------------------------------------------------- text rules

// UTF-8 aware cut: at most `limit` characters, never inside a character.
std::string cutCharacters(std::string_view text, std::size_t limit, bool& cut) {
  std::size_t characters = 0, i = 0;
  while (i < text.size()) {
    if (characters == limit) {
      cut = true;
      return std::string(text.substr(0, i));
    }
    const unsigned char c = static_cast<unsigned char>(text[i]);
    i += c < 0x80 ? 1 : (c >> 5) == 0x6 ? 2 : (c >> 4) == 0xE ? 3 : (c >> 3) == 0x1E ? 4 : 1;
    ++characters;
  }
  cut = false;
  return std::string(text);
}

const std::map<std::string_view, std::string_view>& keyArguments() {
  static const std::map<std::string_view, std::string_view> table{
      {"bash", "command"},   {"file_read", "path"},      {"file_write", "path"},
      {"file_edit", "path"}, {"directory_list", "path"}, {"grep", "pattern"},
      {"glob", "pattern"},   {"web_search", "query"},    {"session_search", "query"},
      {"web_fetch", "url"},  {"web_crawl", "url"},       {"http", "url"},
      {"use_skill", "name"}, {"memory_append", "name"}};
  return table;
}

constexpr std::string_view kNudgePrefixes[] = {"You've used ",
                                               "You've called ",
                                               "You've completed ",
                                               "You have called ",
                                               "You described ",
                                               "Your previous ",
                                               "Multiple approaches have failed",
                                               "Do not poll or wait in loops",
                                               "Stop retrying",
                                               "STOP."};

// Text blocks the engine writes for attached files; shown as attachments, not as text.
bool isAttachmentMarker(std::string_view text) {
  return base::startsWith(text, "[File:") || base::startsWith(text, "[User attached") ||
         base::startsWith(text, "[Error: unable to read file") || text == "[Attached files]";
}

// "[User attached NAME (N bytes) at path: PATH]" or "[File: NAME (N bytes) at path: PATH]";
// only the first line counts (the file's text may follow it).
std::optional<kit::Attachment> attachmentFromMarker(std::string_view text) {
  std::size_t prefix = 0;
  if (base::startsWith(text, "[User attached"))
    prefix = 14;
  else if (base::startsWith(text, "[File:"))
    prefix = 6;
  else
    return std::nullopt;
  std::string_view line = text.substr(prefix);
  line = line.substr(0, line.find('\n'));
  const auto sizeEnd = line.find(" bytes)");
  if (sizeEnd == std::string_view::npos) return std::nullopt;
  const auto sizeStart = line.rfind('(', sizeEnd);
  if (sizeStart == std::string_view::npos) return std::nullopt;
  std::int64_t size = 0;
  const std::string_view digits = line.substr(sizeStart + 1, sizeEnd - sizeStart - 1);
  if (digits.empty() || digits.front() == '-' || digits.front() == '+') return std::nullopt;
  // A count that does not fit is no count.
  if (auto [end, ec] = std::from_chars(digits.data(), digits.data() + digits.size(), size);
      ec != std::errc() || end != digits.data() + digits.size())
    return std::nullopt;
  std::string_view name = base::trim(line.substr(0, sizeStart));
  if (!name.empty() && name.front() == ':') name = base::trim(name.substr(1));
  kit::Attachment attachment;
  attachment.kind = kit::Attachment::Kind::fileRef;
  attachment.filename = std::string(name);
  attachment.byteSize = size;
  const auto at = line.find("at path: ", sizeEnd);
  if (at != std::string_view::npos) {
    std::string_view path = base::trim(line.substr(at + 9));
    if (!path.empty() && path.back() == ']') path.remove_suffix(1);
    attachment.filePath = std::string(base::trim(path));
  }
  if (attachment.filename.empty() && attachment.filePath)
    attachment.filename = fs::path(*attachment.filePath).filename().string();
  return attachment;
}

std::optional<std::string> decodeBase64(std::string_view text) {
  std::string clean;
  clean.reserve(text.size());
  for (char c : text)
    if (c != '\n' && c != '\r' && c != ' ') clean.push_back(c);
  if (clean.empty() || clean.size() % 4 != 0) return std::nullopt;
  if (clean.size() > static_cast<std::size_t>(std::numeric_limits<int>::max())) return std::nullopt;
  std::string out(clean.size() / 4 * 3, '\0');
  const int n = EVP_DecodeBlock(reinterpret_cast<unsigned char*>(out.data()),
                                reinterpret_cast<const unsigned char*>(clean.data()),
                                static_cast<int>(clean.size()));
  if (n < 0) return std::nullopt;
  std::size_t size = static_cast<std::size_t>(n);
  // EVP_DecodeBlock counts the padding as zero bytes.
  if (clean.back() == '=') --size;
  if (clean[clean.size() - 2] == '=') --size;
  out.resize(size);
  return out;
}

std::string joinedText(const RawMessage& message, bool skipMarkers) {
  if (message.text) return *message.text;
  std::string out;
  for (const auto& block : message.blocks) {
    if (block.type != "text" || !block.text) continue;
    if (skipMarkers && isAttachmentMarker(*block.text)) continue;
    if (!out.empty()) out += "\n";
    out += *block.text;
  }
  return out;
}

bool hasToolResults(const RawMessage& message) {
  for (const auto& block : message.blocks)
    if (block.type == "tool_result") return true;
  return false;
}

}  // namespace

// ---------------------------------------------------------------- public text rules

std::string SessionHistory::normalisePreview(std::string_view text) {
  std::string flat(text);
  for (char& c : flat)
    if (c == '\n') c = ' ';
  bool cut = false;
  std::string out = cutCharacters(base::trim(flat), kPreviewLimit, cut);
  if (cut) out += "\u2026";
  return out;
}

std::optional<std::string> SessionHistory::argsSummary(
    const std::string& toolName, const std::map<std::string, std::string>& input) {
  std::optional<std::string> chosen;
  if (auto key = keyArguments().find(toolName); key != keyArguments().end()) {
    if (auto it = input.find(std::string(key->second)); it != input.end() && !it->second.empty())
      chosen = it->second;
  }
  if (!chosen) {
    for (const auto& [name, value] : input) {
      if (!value.empty()) {
        chosen = value;
        break;
      }
    }
  }
  if (!chosen) return std::nullopt;
  return normalisePreview(*chosen);
}

bool SessionHistory::isSystemInjected(std::string_view text) {
  std::string_view head = text.substr(0, 80 * 4);
  bool cut = false;
  const std::string first80 = cutCharacters(head, 80, cut);
  for (auto prefix : kNudgePrefixes)
    if (base::startsWith(first80, prefix)) return true;
  return false;
}

std::vector<ToolUseExtract> SessionHistory::toolUses(const RawMessage& assistant) {
  std::vector<ToolUseExtract> out;
  for (const auto& block : assistant.blocks) {
    if (block.type != "tool_use") continue;
    ToolUseExtract use{block.id.value_or(""), block.name.value_or(""), std::nullopt};
    if (block.inputArgs) use.argsSummary = argsSummary(use.name, *block.inputArgs);
    out.push_back(std::move(use));
  }
  return out;
}

std::vector<ToolResultExtract> SessionHistory::toolResults(const RawMessage& user) {
  std::vector<ToolResultExtract> out;
  for (const auto& block : user.blocks) {
    if (block.type != "tool_result" || !block.toolUseId) continue;
    out.push_back({*block.toolUseId, normalisePreview(block.resultText.value_or("")),
                   block.isError.value_or(false)});
  }
  return out;
}

namespace {
// The images' folder, made private once per folder and process; images older than a day are
// removed then, so the folder does not grow without end.
std::optional<fs::path> openImageFolder() {
  static base::Mutex mutex;
  static std::set<fs::path> swept;
  try {
    const fs::path folder = base::userRuntimeFolder() / "quenlo-images";
    base::ensurePrivateFolder(folder);
    base::MutexLock lock(mutex);
    if (swept.insert(folder).second) base::removeFilesOlderThan(folder, std::chrono::hours(24));
    return folder;
  } catch (const std::exception& e) {
    base::log::warn(kSource, "images are not written: {}", e.what());
    return std::nullopt;
  }
}
}  // namespace

std::optional<fs::path> SessionHistory::materialiseImage(std::string_view base64,
                                                         std::optional<std::string> mediaType) {
  auto bytes = decodeBase64(base64);
  if (!bytes) return std::nullopt;
  std::string type = mediaType.value_or("image/png");
  std::string extension = base::startsWith(type, "image/") ? type.substr(6) : type;
  for (char& c : extension)
    if (c == '/' || c == '.') c = '_';
  const auto folder = openImageFolder();
  if (!folder) return std::nullopt;
  // Named after the content, so every view of the same image finds the file written before.
  std::string name = type;
  name.push_back('\0');
  name.append(*bytes);
  const fs::path file = *folder / (base::nameUUIDString(name) + "." + extension);
  struct stat info {};
  if (::lstat(file.c_str(), &info) == 0 && S_ISREG(info.st_mode) && info.st_uid == ::geteuid() &&
      static_cast<std::size_t>(info.st_size) == bytes->size()) {
    // Still in use: keep it out of the next sweep of old images.
    ::utimensat(AT_FDCWD, file.c_str(), nullptr, AT_SYMLINK_NOFOLLOW);
    return file;
  }
  try {
    base::writeFileAtomically(file, *bytes, 0600);
  } catch (const std::exception& e) {
    base::log::warn(kSource, "could not write an attached image: {}", e.what());
    return std::nullopt;
  }
  return file;
}

// ---------------------------------------------------------------- decode and fold

std::optional<SessionFile> SessionHistory::decode(std::string_view json) {
  thread_local simdjson::dom::parser parser;
  simdjson::padded_string padded(json);
  element root;
  if (parser.parse(padded).get(root)) return std::nullopt;
  simdjson::dom::object object;
  if (root.get_object().get(object)) return std::nullopt;
  simdjson::dom::array messages;
  if (object["messages"].get_array().get(messages)) return std::nullopt;

  SessionFile file;
  optionalString(object, "id", {}, file.id);
  optionalString(object, "title", {}, file.title);
  file.createdAt = optionalDate(object, "created_at", "createdAt");
  file.updatedAt = optionalDate(object, "updated_at", "updatedAt");
  file.messages.reserve(messages.size());
  for (element message : messages) file.messages.push_back(decodeMessage(message));
  if (auto meta = member(object, "message_meta", "messageMeta"); !meta.error()) {
    simdjson::dom::array entries;
    if (!meta.value_unsafe().get_array().get(entries)) {
      for (element entry : entries)
        file.messageMeta.push_back(entry.is_null() ? std::nullopt : decodeMeta(entry));
    }
  }
  return file;
}

SessionHistory::Folded SessionHistory::fold(const SessionFile& file, bool materialiseImages) {
  Folded out;
  std::size_t blockCounter = 0;
  std::size_t toolCounter = 0;
  const auto metaAt = [&](std::size_t i) -> const MessageMeta* {
    return i < file.messageMeta.size() && file.messageMeta[i] ? &*file.messageMeta[i] : nullptr;
  };

  // The assistant reply being folded, and where its tool calls sit for pairing.
  std::optional<SessionMessage> reply;
  std::map<std::string, std::size_t> openTools;
  auto finishReply = [&] {
    if (!reply) return;
    if (!reply->content.empty() || reply->toolBlock) out.messages.push_back(std::move(*reply));
    reply.reset();
    openTools.clear();
  };

  for (std::size_t i = 0; i < file.messages.size(); ++i) {
    const RawMessage& raw = file.messages[i];
    const MessageMeta* meta = metaAt(i);
    const auto index = static_cast<std::int64_t>(i);

    if (raw.role == "assistant") {
      if (!reply) {
        reply = SessionMessage{};
        reply->role = "assistant";
        reply->rawIndex = index;
        if (meta) reply->timestamp = meta->timestamp;
      }
      reply->rawIndexEnd = index;
      const std::string text = joinedText(raw, false);
      if (!text.empty()) {
        if (!reply->content.empty()) reply->content += "\n\n";
        reply->content += text;
      }
      for (auto& use : toolUses(raw)) {
        // The work plan is shown elsewhere, never as a tool row.
        if (use.name == "set_work_plan") continue;
        if (!reply->toolBlock)
          reply->toolBlock = kit::ToolBlockSnapshot{
              "session-toolblock-" + std::to_string(blockCounter++), {}, {}, {}, {}};
        kit::ToolEntrySnapshot entry;
        entry.id = use.id.empty() ? "session-tool-" + std::to_string(toolCounter) : use.id;
        ++toolCounter;
        entry.name = use.name;
        entry.args = use.argsSummary;
        if (!use.id.empty()) {
          entry.toolUseId = use.id;
          openTools[use.id] = reply->toolBlock->tools.size();
        }
        reply->toolBlock->tools.push_back(std::move(entry));
      }
      continue;
    }

    if (raw.role == "user") {
      // Tool results complete the calls they answer and may carry delivered files.
      for (const auto& block : raw.blocks) {
        if (block.type != "tool_result" || !block.toolUseId) continue;
        if (reply && reply->toolBlock) {
          if (auto open = openTools.find(*block.toolUseId); open != openTools.end()) {
            auto& entry = reply->toolBlock->tools[open->second];
            entry.status = kit::ToolRunStatus::completed;
            entry.isError = block.isError.value_or(false);
            entry.preview = normalisePreview(block.resultText.value_or(""));
          }
        }
        if (block.resultText) {
          boost::system::error_code ec;
          auto parsed = bj::parse(*block.resultText, ec);
          const bj::object* result = ec ? nullptr : parsed.if_object();
          const bj::value* delivered = result ? result->if_contains("delivered") : nullptr;
          const bj::value* deliverable = result ? result->if_contains("deliverable") : nullptr;
          if (delivered && delivered->is_bool() && delivered->get_bool() && deliverable &&
              deliverable->is_object()) {
            const auto& d = deliverable->get_object();
            auto text = [&](const char* key) -> std::optional<std::string> {
              if (const auto* v = d.if_contains(key); v && v->is_string())
                return std::string(v->get_string());
              return std::nullopt;
            };
            kit::SessionResource resource;
            resource.id = text("id").value_or("deliverable-" + *block.toolUseId);
            resource.kind = kit::SessionResource::Kind::file;
            resource.source = kit::SessionResource::Source::deliverable;
            resource.filePath = text("path");
            resource.title = text("title") ? text("title") : text("filename");
            resource.mimeType = text("mime");
            if (meta) resource.timestamp = meta->timestamp;
            out.deliverables.push_back({std::move(resource), *block.toolUseId});
          }
        }
      }

      const std::string text = joinedText(raw, true);
      bool hasAttachments = false;
      for (const auto& block : raw.blocks) {
        if (block.type == "image" || block.type == "file_ref" ||
            (block.type == "text" && block.text && attachmentFromMarker(*block.text)))
          hasAttachments = true;
      }
      // A message of tool results alone belongs to the reply it answers.
      if (text.empty() && !hasAttachments && hasToolResults(raw)) {
        if (reply) reply->rawIndexEnd = index;
        continue;
      }
      finishReply();
      if ((meta && meta->systemInjected) || isSystemInjected(text)) continue;

      SessionMessage message;
      message.role = "user";
      message.content = text;
      message.rawIndex = message.rawIndexEnd = index;
      if (meta) {
        message.timestamp = meta->timestamp;
        message.conversationAnnotations = meta->conversationAnnotations;
      }
      std::size_t attachmentCounter = 0;
      auto nextId = [&] {
        return "session-attachment-" + std::to_string(i) + "-" +
               std::to_string(attachmentCounter++);
      };
      for (const auto& block : raw.blocks) {
        if (block.type == "image" && block.source && block.source->data) {
          if (!materialiseImages) continue;
          auto path = materialiseImage(*block.source->data, block.source->mediaType);
          if (!path) continue;
          kit::Attachment a;
          a.id = nextId();
          a.kind = kit::Attachment::Kind::image;
          a.filename = path->filename().string();
          a.mimeType = block.source->mediaType.value_or("image/png");
          std::error_code ec;
          a.byteSize = static_cast<std::int64_t>(fs::file_size(*path, ec));
          a.filePath = path->string();
          message.attachments.push_back(std::move(a));
        } else if (block.type == "file_ref" && (block.filePath || block.filename)) {
          kit::Attachment a;
          a.id = nextId();
          a.kind = kit::Attachment::Kind::fileRef;
          a.filePath = block.filePath;
          a.filename = block.filename.value_or(
              block.filePath ? fs::path(*block.filePath).filename().string() : "");
          a.byteSize = block.byteSize;
          message.attachments.push_back(std::move(a));
        }
      }
      for (const auto& block : raw.blocks) {
        if (block.type != "text" || !block.text) continue;
        auto marker = attachmentFromMarker(*block.text);
        if (!marker) continue;
        // A structured file reference names the same file better than its marker text.
        bool known = false;
        for (const auto& a : message.attachments)
          if (a.filePath && marker->filePath && *a.filePath == *marker->filePath) known = true;
        if (known) continue;
        marker->id = nextId();
        message.attachments.push_back(std::move(*marker));
      }
      if (message.content.empty() && message.attachments.empty()) continue;
      out.messages.push_back(std::move(message));
      continue;
    }
    // Other roles are kept in the file but not shown; they end a reply.
    finishReply();
  }
  finishReply();
  return out;
}

kit::JSON toJSON(const SessionMessage& m) {
  bj::array attachments;
  for (const auto& a : m.attachments) attachments.push_back(kit::toJSON(a));
  return bj::object{{"role", m.role},
                    {"content", m.content},
                    {"timestamp", m.timestamp ? bj::value(base::formatISO8601(*m.timestamp))
                                              : bj::value(nullptr)},
                    {"rawIndex", m.rawIndex},
                    {"rawIndexEnd", m.rawIndexEnd},
                    {"attachments", std::move(attachments)},
                    {"conversationAnnotations",
                     m.conversationAnnotations ? *m.conversationAnnotations : bj::value(nullptr)},
                    {"toolBlock", m.toolBlock ? kit::toJSON(*m.toolBlock) : bj::value(nullptr)}};
}

}  // namespace tamsel::bridge
