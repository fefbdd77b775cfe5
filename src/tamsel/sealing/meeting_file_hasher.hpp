#pragma once
// SHA-256 of a file, read in fixed blocks so a large file never sits in memory.
#include <cstddef>
#include <filesystem>
#include <string>

namespace tamsel::sealing {

class MeetingFileHasher {
 public:
  explicit MeetingFileHasher(std::size_t blockSize = 1 << 20);
  // The lower-case hex digest. Throws std::system_error when the file cannot be read.
  std::string sha256Hex(const std::filesystem::path& file) const;
  std::size_t blockSize() const { return blockSize_; }

 private:
  std::size_t blockSize_;
};

}  // namespace tamsel::sealing
