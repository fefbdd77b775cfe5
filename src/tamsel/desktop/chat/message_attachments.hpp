#pragma once
// Files the user attaches to a message: how they travel to the engine on POST "/message", how
// they are looked at again just before sending, and how the composer keeps them with its draft.
//
// On the wire each file is named by its path, not sent inline: the engine runs on this computer
// and reads the file itself, and the session file it writes then holds a "file_ref" block (or,
// for an image, its bytes), which is what the history reader shows when the session is opened
// again. The keys are the ones of those blocks:
//   {"type": "file_ref" | "image", "file_path", "filename", "byte_size", "mime_type"}
#include <boost/describe/class.hpp>
#include <boost/json/value.hpp>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tamsel/kit/transcript.hpp"

namespace tamsel::desktop {

struct MessageAttachmentV1 {
  std::string type;  // "file_ref" or "image"
  std::string filePath;
  std::string filename;
  std::optional<std::int64_t> byteSize;
  std::optional<std::string> mimeType;
};
BOOST_DESCRIBE_STRUCT(MessageAttachmentV1, (), (type, filePath, filename, byteSize, mimeType))

// The engine's attachments of a message, in order. An attachment without a path cannot be read
// by the engine and is left out.
std::vector<boost::json::value> messageAttachmentPayloads(
    const std::vector<kit::Attachment>& attachments);

struct AttachmentCheck {
  // The attachments with their sizes as the files are now.
  std::vector<kit::Attachment> attachments;
  // Set when a file cannot be sent: names the first such file and why, for the user.
  std::optional<std::string> error;
};
// Looks at every attached file again (it may have gone or changed since it was attached): each
// must still be a readable regular file. Touches the file system; a stat and an open per file.
AttachmentCheck checkAttachedFiles(std::vector<kit::Attachment> attachments);

// The composer's attachments as text for the drafts store, and back. Text that does not decode
// gives no attachments: a damaged entry must not keep the composer from opening.
std::string encodeComposerAttachments(const std::vector<kit::Attachment>& attachments);
std::vector<kit::Attachment> decodeComposerAttachments(std::string_view text);

}  // namespace tamsel::desktop
