#include "tamsel/sealing/meeting_file_hasher.hpp"

#include <fcntl.h>
#include <openssl/evp.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <stdexcept>
#include <system_error>
#include <vector>

namespace tamsel::sealing {

MeetingFileHasher::MeetingFileHasher(std::size_t blockSize)
    : blockSize_(blockSize == 0 ? 1 : blockSize) {}

std::string MeetingFileHasher::sha256Hex(const std::filesystem::path& file) const {
  const int fd = ::open(file.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0)
    throw std::system_error(errno, std::generic_category(), "cannot read " + file.string());
  struct CloseFd {
    int fd;
    ~CloseFd() { ::close(fd); }
  } closer{fd};
  std::unique_ptr<EVP_MD_CTX, void (*)(EVP_MD_CTX*)> ctx(EVP_MD_CTX_new(), EVP_MD_CTX_free);
  if (!ctx || EVP_DigestInit_ex(ctx.get(), EVP_sha256(), nullptr) != 1)
    throw std::runtime_error("cannot start SHA-256");
  std::vector<unsigned char> block(blockSize_);
  for (;;) {
    const ssize_t n = ::read(fd, block.data(), block.size());
    if (n < 0) {
      if (errno == EINTR) continue;
      throw std::system_error(errno, std::generic_category(), "cannot read " + file.string());
    }
    if (n == 0) break;
    EVP_DigestUpdate(ctx.get(), block.data(), static_cast<std::size_t>(n));
  }
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  if (EVP_DigestFinal_ex(ctx.get(), digest, &length) != 1)
    throw std::runtime_error("cannot finish SHA-256");
  static constexpr char kHex[] = "0123456789abcdef";
  std::string hex;
  hex.reserve(length * 2);
  for (unsigned int i = 0; i < length; ++i) {
    hex.push_back(kHex[digest[i] >> 4]);
    hex.push_back(kHex[digest[i] & 0xF]);
  }
  return hex;
}

}  // namespace tamsel::sealing
