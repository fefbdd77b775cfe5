#include "tamsel/kit/transcript.hpp"

#include <boost/json/array.hpp>
#include <boost/json/object.hpp>

namespace tamsel::kit {

namespace bj = boost::json;

namespace {
template <class T>
bj::value optional(const std::optional<T>& value) {
  if (!value) return nullptr;
  return bj::value(*value);
}
bj::value optionalDate(const std::optional<Timestamp>& value) {
  if (!value) return nullptr;
  return bj::value(base::formatISO8601(*value));
}
}  // namespace

const char* name(ToolRunStatus status) {
  switch (status) {
    case ToolRunStatus::running:
      return "running";
    case ToolRunStatus::completed:
      return "completed";
    case ToolRunStatus::denied:
      return "denied";
  }
  return "running";
}

const char* name(Attachment::Kind kind) {
  return kind == Attachment::Kind::image ? "image" : "fileRef";
}

JSON toJSON(const ToolBlockSnapshot& block) {
  bj::array tools;
  for (const auto& t : block.tools) {
    tools.push_back(bj::object{{"id", t.id},
                               {"name", t.name},
                               {"status", name(t.status)},
                               {"elapsed", optional(t.elapsed)},
                               {"isError", t.isError},
                               {"args", optional(t.args)},
                               {"preview", optional(t.preview)},
                               {"toolUseId", optional(t.toolUseId)}});
  }
  bj::value progress = nullptr;
  if (block.cloudProgress)
    progress = bj::object{{"completed", block.cloudProgress->completed},
                          {"total", block.cloudProgress->total}};
  return bj::object{{"id", block.id},
                    {"tools", std::move(tools)},
                    {"startedAt", optionalDate(block.startedAt)},
                    {"endedAt", optionalDate(block.endedAt)},
                    {"cloudProgress", std::move(progress)}};
}

JSON toJSON(const Attachment& a) {
  return bj::object{{"id", a.id},
                    {"kind", name(a.kind)},
                    {"filename", a.filename},
                    {"mimeType", optional(a.mimeType)},
                    {"byteSize", optional(a.byteSize)},
                    {"filePath", optional(a.filePath)},
                    {"thumbnailData", optional(a.thumbnailData)}};
}

JSON toJSON(const SessionResource& r) {
  static const char* kinds[] = {"image", "link", "file"};
  static const char* sources[] = {"remoteURL", "dataURL", "attachmentImage", "attachmentFile",
                                  "deliverable"};
  return bj::object{{"id", r.id},
                    {"kind", kinds[static_cast<int>(r.kind)]},
                    {"source", sources[static_cast<int>(r.source)]},
                    {"url", optional(r.url)},
                    {"filePath", optional(r.filePath)},
                    {"mimeType", optional(r.mimeType)},
                    {"title", optional(r.title)},
                    {"messageID", optional(r.messageID)},
                    {"timestamp", optionalDate(r.timestamp)}};
}

}  // namespace tamsel::kit
