#include "tamsel/desktop/chat/message_attachments.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

#include "tamsel/base/json.hpp"
#include "tamsel/base/uuid.hpp"

namespace tamsel::desktop {

namespace {

// What the drafts store keeps of one attachment.
struct ComposerAttachmentRecord {
  std::string id;
  std::string type;
  std::string filePath;
  std::string filename;
  std::optional<std::int64_t> byteSize;
  std::optional<std::string> mimeType;
};
BOOST_DESCRIBE_STRUCT(ComposerAttachmentRecord, (),
                      (id, type, filePath, filename, byteSize, mimeType))

const char* wireType(kit::Attachment::Kind kind) {
  return kind == kit::Attachment::Kind::image ? "image" : "file_ref";
}

std::string reason(int error) { return std::error_code(error, std::generic_category()).message(); }

}  // namespace

std::vector<boost::json::value> messageAttachmentPayloads(
    const std::vector<kit::Attachment>& attachments) {
  std::vector<boost::json::value> out;
  for (const auto& a : attachments) {
    if (!a.filePath || a.filePath->empty()) continue;
    out.push_back(base::json::encode(
        MessageAttachmentV1{wireType(a.kind), *a.filePath, a.filename, a.byteSize, a.mimeType}));
  }
  return out;
}

AttachmentCheck checkAttachedFiles(std::vector<kit::Attachment> attachments) {
  AttachmentCheck check;
  for (auto& a : attachments) {
    const std::string name = a.filename.empty() ? a.filePath.value_or("?") : a.filename;
    std::optional<std::string> problem;
    struct stat info {};
    if (!a.filePath || a.filePath->empty()) {
      problem = "it has no location on this computer";
    } else if (::stat(a.filePath->c_str(), &info) != 0) {
      problem = errno == ENOENT ? std::string("the file is gone") : reason(errno);
    } else if (!S_ISREG(info.st_mode)) {
      problem = "it is not a regular file";
    } else {
      // Permissions alone do not say (ACLs, another user's file on a shared disk): try it.
      const int fd = ::open(a.filePath->c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
      if (fd < 0)
        problem = reason(errno);
      else
        ::close(fd);
      a.byteSize = static_cast<std::int64_t>(info.st_size);
    }
    if (problem && !check.error) {
      check.error = "Cannot send " + name + ": " + *problem + " (" + a.filePath.value_or("") +
                    "). Remove it from the message or attach it again.";
    }
  }
  check.attachments = std::move(attachments);
  return check;
}

std::string encodeComposerAttachments(const std::vector<kit::Attachment>& attachments) {
  std::vector<ComposerAttachmentRecord> records;
  for (const auto& a : attachments)
    records.push_back(
        {a.id, wireType(a.kind), a.filePath.value_or(""), a.filename, a.byteSize, a.mimeType});
  return base::json::serialize(base::json::encode(records));
}

std::vector<kit::Attachment> decodeComposerAttachments(std::string_view text) {
  std::vector<kit::Attachment> out;
  if (text.empty()) return out;
  try {
    for (auto& r : base::json::decode<std::vector<ComposerAttachmentRecord>>(text)) {
      kit::Attachment a;
      a.id = r.id.empty() ? base::newUUIDString() : std::move(r.id);
      a.kind = r.type == "image" ? kit::Attachment::Kind::image : kit::Attachment::Kind::fileRef;
      a.filename = std::move(r.filename);
      a.mimeType = std::move(r.mimeType);
      a.byteSize = r.byteSize;
      if (!r.filePath.empty()) a.filePath = std::move(r.filePath);
      out.push_back(std::move(a));
    }
  } catch (const std::exception&) {
    out.clear();
  }
  return out;
}

}  // namespace tamsel::desktop
