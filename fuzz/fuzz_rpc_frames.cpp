// Frame reading and decoding of the desktop RPC channel: arbitrary bytes from the engine must
// end in a body, a CodecError or a DataCorruptedError, and a decoded frame must survive its own
// encoding unchanged.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "tamsel/bridge/rpc/codec.hpp"
#include "tamsel/bridge/rpc/messages.hpp"

using namespace tamsel::bridge::rpc;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string input(reinterpret_cast<const char*>(data), size);
  std::size_t at = 0;
  const auto read = [&](std::size_t n) {
    std::string out = input.substr(at, n);
    at += out.size();
    return out;
  };
  // The whole input as a stream of frames, then the whole input as one body.
  while (at < input.size()) {
    std::string body;
    try {
      body = LengthPrefixedCodec::readFrameSync(read);
    } catch (const CodecException&) {
      break;
    }
    try {
      const Frame frame = Frame::decode(body);
      if (Frame::decode(frame.encode()) != frame) std::abort();
    } catch (const DataCorruptedError&) {
    }
  }
  try {
    const Frame frame = Frame::decode(input);
    if (Frame::decode(frame.encode()) != frame) std::abort();
  } catch (const DataCorruptedError&) {
  }
  return 0;
}
