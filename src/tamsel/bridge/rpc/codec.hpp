#pragma once
// Framing of the RPC channel: a 4-byte big-endian body length, then the body. Bodies are at
// most 4 MiB on both sides. The read side rejects an empty frame while the write side encodes
// one (four zero bytes): the desktop never sends an empty body, so the asymmetry costs nothing.
//
// A bad prefix fails before any body byte is asked for, so a corrupt length can neither make
// the reader allocate 4 GiB nor swallow the next frame.
#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>
#include <variant>

#include "tamsel/base/error.hpp"

namespace tamsel::bridge::rpc {

struct CodecError {
  static constexpr std::string_view category = "rpc_codec";
  struct FrameTooLarge {
    std::uint32_t length = 0;  // as announced by the prefix
    bool operator==(const FrameTooLarge&) const = default;
  };
  struct BodyTooLarge {
    std::size_t length = 0;  // of the body given to encode
    bool operator==(const BodyTooLarge&) const = default;
  };
  struct ShortRead {
    std::size_t expected = 0;
    std::size_t got = 0;
    bool operator==(const ShortRead&) const = default;
  };
  struct EmptyFrame {
    bool operator==(const EmptyFrame&) const = default;
  };
  std::variant<FrameTooLarge, BodyTooLarge, ShortRead, EmptyFrame> value;

  std::string description() const;
  std::string code() const;
  bool operator==(const CodecError&) const = default;
};

using CodecException = base::ErrorOf<CodecError>;

namespace LengthPrefixedCodec {

inline constexpr std::uint32_t maxBodyLength = 4 * 1024 * 1024;
inline constexpr std::size_t prefixLength = 4;

// The prefix followed by the body; throws CodecException(bodyTooLarge).
std::string encode(std::string_view body);

// Checks what a read of the 4-byte prefix returned and gives the announced body length;
// throws CodecException(shortRead, emptyFrame or frameTooLarge).
std::uint32_t bodyLength(std::string_view prefix);
// Checks what a read of the body returned; throws CodecException(shortRead).
void checkBody(std::uint32_t expected, std::string_view body);

// One frame through a blocking `read(n)` that returns up to n bytes (fewer only when it could
// not get more). Throws CodecException or whatever `read` throws. The asynchronous reader of
// the socket client follows the same steps.
template <class Read>
std::string readFrameSync(Read&& read) {
  const std::string prefix = read(prefixLength);
  const std::uint32_t length = bodyLength(prefix);
  std::string body = read(length);
  checkBody(length, body);
  return body;
}

}  // namespace LengthPrefixedCodec

}  // namespace tamsel::bridge::rpc
