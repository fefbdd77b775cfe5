// Framing: the limits on both sides, short reads, and that a bad prefix never costs a body read.
#include "tamsel/bridge/rpc/codec.hpp"

#include <gtest/gtest.h>

#include <boost/asio/awaitable.hpp>

#include "../test_support.hpp"
#include "tamsel/bridge/rpc/unix_socket_client.hpp"

namespace tamsel::bridge::rpc {
namespace {

namespace asio = boost::asio;

std::string prefix(std::uint32_t n) {
  return {static_cast<char>(n >> 24), static_cast<char>(n >> 16), static_cast<char>(n >> 8),
          static_cast<char>(n)};
}

// A stream fake: serves `data` and remembers every size asked for. Returns fewer bytes only
// when the data runs out.
struct FakeStream {
  std::string data;
  std::size_t at = 0;
  std::vector<std::size_t> asked;
  std::string read(std::size_t n) {
    asked.push_back(n);
    const std::size_t count = std::min(n, data.size() - at);
    std::string out = data.substr(at, count);
    at += count;
    return out;
  }
};

CodecError readError(FakeStream& stream) {
  // The asynchronous reader the socket client uses.
  const LengthPrefixedCodec::AsyncRead read =
      [&stream](std::size_t n) -> asio::awaitable<std::string> { co_return stream.read(n); };
  try {
    test::runAsync(LengthPrefixedCodec::readFrame(read));
  } catch (const CodecException& e) {
    return e.error();
  }
  ADD_FAILURE() << "the frame was accepted";
  return CodecError{CodecError::EmptyFrame{}};
}

TEST(LengthPrefixedCodec, EncodesBigEndianLengthThenBody) {
  EXPECT_EQ(LengthPrefixedCodec::encode("{}"), std::string("\0\0\0\2{}", 6));
  EXPECT_EQ(LengthPrefixedCodec::encode(std::string(0x010203, 'x')).substr(0, 4), prefix(0x010203));
  // Deliberately accepted here although the reader refuses it.
  EXPECT_EQ(LengthPrefixedCodec::encode(""), std::string(4, '\0'));
}

TEST(LengthPrefixedCodec, WriteLimitIsFourMebibytes) {
  const std::string largest(LengthPrefixedCodec::maxBodyLength, 'a');
  const auto framed = LengthPrefixedCodec::encode(largest);
  EXPECT_EQ(framed.size(), largest.size() + 4);
  EXPECT_EQ(framed.substr(0, 4), std::string("\x00\x40\x00\x00", 4));
  try {
    LengthPrefixedCodec::encode(largest + "b");
    FAIL() << "an oversized body was encoded";
  } catch (const CodecException& e) {
    EXPECT_EQ(e.error(), CodecError{CodecError::BodyTooLarge{4194305}});
  }
}

TEST(LengthPrefixedCodec, ReadsExactlyFourMebibytes) {
  FakeStream stream{prefix(0x400000) + std::string(0x400000, 'z') + "next"};
  const LengthPrefixedCodec::AsyncRead read =
      [&stream](std::size_t n) -> asio::awaitable<std::string> { co_return stream.read(n); };
  const auto body = test::runAsync(LengthPrefixedCodec::readFrame(read));
  EXPECT_EQ(body.size(), 0x400000u);
  EXPECT_EQ(stream.asked, (std::vector<std::size_t>{4, 0x400000}));
  EXPECT_EQ(stream.at, stream.data.size() - 4) << "read past the frame";
}

TEST(LengthPrefixedCodec, BadPrefixesFailWithoutReadingTheBody) {
  {
    FakeStream stream{prefix(0x400001) + std::string(16, 'z')};
    EXPECT_EQ(readError(stream), CodecError{CodecError::FrameTooLarge{4194305}});
    EXPECT_EQ(stream.asked, std::vector<std::size_t>{4});
  }
  {
    FakeStream stream{prefix(0xFFFFFFFF)};  // compared unsigned: never read as negative
    EXPECT_EQ(readError(stream), CodecError{CodecError::FrameTooLarge{0xFFFFFFFF}});
    EXPECT_EQ(stream.asked, std::vector<std::size_t>{4});
  }
  {
    FakeStream stream{prefix(0) + "{}"};
    EXPECT_EQ(readError(stream), CodecError{CodecError::EmptyFrame{}});
    EXPECT_EQ(stream.asked, std::vector<std::size_t>{4});
  }
}

TEST(LengthPrefixedCodec, ShortReadsNameBothCounts) {
  FakeStream cutPrefix{std::string("\0\0", 2)};
  EXPECT_EQ(readError(cutPrefix), (CodecError{CodecError::ShortRead{4, 2}}));
  FakeStream cutBody{prefix(10) + "123456"};
  const auto error = readError(cutBody);
  EXPECT_EQ(error, (CodecError{CodecError::ShortRead{10, 6}}));
  EXPECT_EQ(error.description(), "short read: needed 10, got 6");
}

TEST(LengthPrefixedCodec, BlockingReaderFollowsTheSameRules) {
  FakeStream ok{prefix(3) + "abc"};
  EXPECT_EQ(LengthPrefixedCodec::readFrameSync([&](std::size_t n) { return ok.read(n); }), "abc");
  FakeStream tooLarge{prefix(0x400001)};
  EXPECT_THROW(LengthPrefixedCodec::readFrameSync([&](std::size_t n) { return tooLarge.read(n); }),
               CodecException);
  EXPECT_EQ(tooLarge.asked, std::vector<std::size_t>{4});
}

}  // namespace
}  // namespace tamsel::bridge::rpc
