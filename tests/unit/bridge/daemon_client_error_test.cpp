#include "tamsel/bridge/daemon_client_error.hpp"

#include <gtest/gtest.h>

namespace tamsel::bridge {
namespace {

using E = DaemonClientError;

TEST(DaemonClientErrorMapping, CreditsExhaustedWhateverTheStatus) {
  for (int status : {402, 429, 500}) {
    auto e = E::fromResponse(
        status,
        R"({"error":"out of credits","code":"credits_exhausted","auto_refill_started":true,"retry_after_seconds":30})");
    ASSERT_TRUE(e.is<E::CreditsExhausted>()) << status;
    EXPECT_TRUE(e.as<E::CreditsExhausted>().details.autoRefillStarted);
    EXPECT_EQ(e.as<E::CreditsExhausted>().details.retryAfterSeconds, 30.0);
  }
}

TEST(DaemonClientErrorMapping, QuotaKeepsPlanAndToleratesABadResetTime) {
  auto e = E::fromResponse(
      429,
      R"({"error":"limit","code":"quota_exceeded","current_plan":"pro","reset_at":"2026-12-01T00:00:00Z"})");
  ASSERT_TRUE(e.is<E::QuotaExceeded>());
  EXPECT_EQ(e.as<E::QuotaExceeded>().details.currentPlan, "pro");
  EXPECT_TRUE(e.as<E::QuotaExceeded>().details.resetAt.has_value());
  e = E::fromResponse(429,
                      R"({"error":"limit","code":"quota_exceeded","reset_at":"next tuesday"})");
  ASSERT_TRUE(e.is<E::QuotaExceeded>());
  EXPECT_FALSE(e.as<E::QuotaExceeded>().details.resetAt.has_value());
}

TEST(DaemonClientErrorMapping, ValidationCodes) {
  for (const char* code : {"display_name_taken", "skill_recommendation_invalid",
                           "conversation_replay_missing", "agent_not_found"}) {
    auto e = E::fromResponse(
        400,
        std::string(R"({"error":"bad","message":"Name already used","code":")") + code + "\"}");
    ASSERT_TRUE(e.is<E::Validation>()) << code;
    EXPECT_EQ(e.description(), "Name already used");
  }
  // Near misses stay server errors.
  EXPECT_TRUE(
      E::fromResponse(400, R"({"error":"x","code":"agent_not_found_here"})").is<E::ServerError>());
  EXPECT_TRUE(
      E::fromResponse(400, R"({"error":"x","code":"my_display_name_"})").is<E::ServerError>());
}

TEST(DaemonClientErrorMapping, IdempotencyCodes) {
  EXPECT_TRUE(E::fromResponse(409, R"({"error":"x","code":"idempotent_request_failed"})")
                  .is<E::IdempotentRequestFailed>());
  EXPECT_TRUE(E::fromResponse(409, R"({"error":"x","code":"idempotent_request_in_progress"})")
                  .is<E::IdempotentRequestInProgress>());
}

TEST(DaemonClientErrorMapping, ServerErrorTexts) {
  auto e = E::fromResponse(500, "");
  ASSERT_TRUE(e.is<E::ServerError>());
  EXPECT_EQ(e.as<E::ServerError>().status, 500);
  EXPECT_EQ(e.as<E::ServerError>().message, "Unknown error");
  EXPECT_EQ(E::fromResponse(502, "<html>bad gateway</html>").as<E::ServerError>().message,
            "Unknown error");
  EXPECT_EQ(E::fromResponse(500, R"({"code":"x"})").as<E::ServerError>().message, "Unknown error");
  EXPECT_EQ(E::fromResponse(500, R"({"message":"disk full"})").as<E::ServerError>().message,
            "disk full");
  EXPECT_EQ(E::fromResponse(404, R"({"error":"session not found","message":"longer"})")
                .as<E::ServerError>()
                .message,
            "session not found");
  // A malformed optional member does not hide the code.
  EXPECT_TRUE(
      E::fromResponse(402, R"({"error":1,"code":"credits_exhausted","auto_refill_started":"yes"})")
          .is<E::CreditsExhausted>());
}

}  // namespace
}  // namespace tamsel::bridge
