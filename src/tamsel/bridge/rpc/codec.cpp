#include "tamsel/bridge/rpc/codec.hpp"

namespace tamsel::bridge::rpc {

std::string CodecError::description() const {
  return std::visit(
      [](const auto& e) -> std::string {
        using T = std::decay_t<decltype(e)>;
        if constexpr (std::is_same_v<T, FrameTooLarge>)
          return "frame too large: " + std::to_string(e.length) + " bytes announced, at most " +
                 std::to_string(LengthPrefixedCodec::maxBodyLength);
        else if constexpr (std::is_same_v<T, BodyTooLarge>)
          return "body too large: " + std::to_string(e.length) + " bytes, at most " +
                 std::to_string(LengthPrefixedCodec::maxBodyLength);
        else if constexpr (std::is_same_v<T, ShortRead>)
          return "short read: needed " + std::to_string(e.expected) + ", got " +
                 std::to_string(e.got);
        else
          return "empty frame";
      },
      value);
}

std::string CodecError::code() const {
  static const char* const names[] = {"frame_too_large", "body_too_large", "short_read",
                                      "empty_frame"};
  return base::caseName(value, names);
}

namespace LengthPrefixedCodec {

std::string encode(std::string_view body) {
  if (body.size() > maxBodyLength) throw CodecException({CodecError::BodyTooLarge{body.size()}});
  const auto n = static_cast<std::uint32_t>(body.size());
  std::string out;
  out.reserve(prefixLength + body.size());
  out.push_back(static_cast<char>(n >> 24));
  out.push_back(static_cast<char>(n >> 16));
  out.push_back(static_cast<char>(n >> 8));
  out.push_back(static_cast<char>(n));
  out.append(body);
  return out;
}

std::uint32_t bodyLength(std::string_view prefix) {
  if (prefix.size() != prefixLength)
    throw CodecException({CodecError::ShortRead{prefixLength, prefix.size()}});
  const auto byte = [&](std::size_t i) {
    return static_cast<std::uint32_t>(static_cast<unsigned char>(prefix[i]));
  };
  const std::uint32_t length = byte(0) << 24 | byte(1) << 16 | byte(2) << 8 | byte(3);
  if (length == 0) throw CodecException({CodecError::EmptyFrame{}});
  if (length > maxBodyLength) throw CodecException({CodecError::FrameTooLarge{length}});
  return length;
}

void checkBody(std::uint32_t expected, std::string_view body) {
  if (body.size() != expected) throw CodecException({CodecError::ShortRead{expected, body.size()}});
}

}  // namespace LengthPrefixedCodec

}  // namespace tamsel::bridge::rpc
