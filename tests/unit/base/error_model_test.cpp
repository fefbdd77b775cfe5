// Every error family throws through one base: callers branch on category and code, and still
// read the family's own case and its message.
#include <gtest/gtest.h>

#include <functional>

#include "tamsel/base/json.hpp"
#include "tamsel/bridge/daemon_client_error.hpp"
#include "tamsel/bridge/event_stream_client.hpp"
#include "tamsel/bridge/rpc/codec.hpp"
#include "tamsel/bridge/rpc/desktop_rpc_service.hpp"
#include "tamsel/bridge/rpc/unix_socket_client.hpp"
#include "tamsel/calendar/calendar_error.hpp"
#include "tamsel/desktop/daemon_manager.hpp"

namespace tamsel {
namespace {

struct Expected {
  std::string_view category;
  std::string code;
  std::string message;
};

Expected caught(const std::function<void()>& raise) {
  try {
    raise();
  } catch (const base::Error& e) {
    return {e.category(), e.code(), e.what()};
  }
  ADD_FAILURE() << "nothing thrown";
  return {};
}

TEST(ErrorModel, EachFamilyNamesItsCaseBesideItsMessage) {
  using bridge::DaemonClientError;
  auto engine = caught([] {
    throw bridge::DaemonClientException(
        DaemonClientError{DaemonClientError::ServerError{500, "x"}});
  });
  EXPECT_EQ(engine.category, "engine");
  EXPECT_EQ(engine.code, "server_error");
  EXPECT_EQ(engine.message, "Engine error 500: x");
  EXPECT_EQ(caught([] {
              throw bridge::DaemonClientException(
                  DaemonClientError{DaemonClientError::IdempotentRequestInProgress{}});
            }).code,
            "idempotent_request_in_progress")
      << "the last case's name, so the table is in the variant's order";

  auto codec = caught([] {
    throw bridge::rpc::CodecException(
        bridge::rpc::CodecError{bridge::rpc::CodecError::ShortRead{4, 1}});
  });
  EXPECT_EQ(codec.category, "rpc_codec");
  EXPECT_EQ(codec.code, "short_read");

  auto socket = caught([] {
    throw bridge::rpc::TransportException(
        bridge::rpc::TransportError{bridge::rpc::TransportError::UnexpectedEOF{}});
  });
  EXPECT_EQ(socket.code, "unexpected_eof");

  auto service = caught([] {
    throw bridge::rpc::ServiceException(
        bridge::rpc::ServiceError{bridge::rpc::ServiceError::ProtocolMismatch{"1", "2"}});
  });
  EXPECT_EQ(service.category, "rpc_service");
  EXPECT_EQ(service.code, "protocol_mismatch");

  auto calendar =
      caught([] { throw calendar::CalendarException(calendar::CalendarRPCError::notFound("e1")); });
  EXPECT_EQ(calendar.category, "calendar");
  EXPECT_EQ(calendar.code, calendar::CalendarRPCError::notFound("e1").code());
  EXPECT_EQ(calendar.message, calendar::CalendarRPCError::notFound("e1").message());

  auto supervisor = caught([] {
    throw desktop::DaemonManagerException(
        desktop::DaemonManagerError{desktop::DaemonManagerError::BinaryNotFound{}});
  });
  EXPECT_EQ(supervisor.category, "supervisor");
  EXPECT_EQ(supervisor.code, "binary_not_found");

  EXPECT_EQ(caught([] { throw bridge::TransportError("reset"); }).category, "transport");
  EXPECT_EQ(caught([] { throw bridge::SSEBufferOverflowError(); }).code, "buffer_overflow");
  EXPECT_EQ(caught([] { base::json::parse("{"); }).category, "decode");
}

TEST(ErrorModel, TheFamilysCaseSurvivesTheThrow) {
  try {
    throw bridge::DaemonClientException(bridge::DaemonClientError{
        bridge::DaemonClientError::QuotaExceeded{{"daily_limit", std::nullopt, {}}}});
  } catch (const base::Error& e) {
    ASSERT_TRUE(e.is("engine", "quota_exceeded"));
    const auto* family = dynamic_cast<const bridge::DaemonClientException*>(&e);
    ASSERT_NE(family, nullptr);
    EXPECT_EQ(family->error().as<bridge::DaemonClientError::QuotaExceeded>().details.code,
              "daily_limit");
  }
  // Equality of codec errors compares the cases' fields, not their wording.
  using bridge::rpc::CodecError;
  const CodecError shortOf1{CodecError::ShortRead{4, 1}}, shortOf2{CodecError::ShortRead{4, 2}};
  EXPECT_EQ(shortOf1, (CodecError{CodecError::ShortRead{4, 1}}));
  EXPECT_NE(shortOf1, shortOf2);
  EXPECT_NE((CodecError{CodecError::FrameTooLarge{4}}), (CodecError{CodecError::BodyTooLarge{4}}));
}

}  // namespace
}  // namespace tamsel
