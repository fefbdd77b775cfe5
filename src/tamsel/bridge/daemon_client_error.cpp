#include "tamsel/bridge/daemon_client_error.hpp"

#include "tamsel/base/json.hpp"
#include "tamsel/base/strings.hpp"

namespace tamsel::bridge {

namespace {
constexpr std::string_view kCreditsExhausted = "credits_exhausted";

std::string quotaText(const QuotaDetails& details) {
  std::string text = "Usage limit reached";
  if (details.currentPlan) text += " on the " + *details.currentPlan + " plan";
  if (details.resetAt) text += "; resets at " + base::formatISO8601(*details.resetAt);
  return text;
}
}  // namespace

bool DaemonClientError::isBillingCode(std::string_view code) {
  return code == "quota_exceeded" || code == kCreditsExhausted || code == "plan_limit_reached" ||
         code == "payment_required";
}

std::string DaemonClientError::description() const {
  struct Visitor {
    std::string operator()(const ServerError& e) const {
      return "Engine error " + std::to_string(e.status) + ": " + e.message;
    }
    std::string operator()(const Validation& e) const { return e.message; }
    std::string operator()(const QuotaExceeded& e) const { return quotaText(e.details); }
    std::string operator()(const CreditsExhausted& e) const {
      return e.details.autoRefillStarted ? "Credits exhausted; an automatic refill has started"
                                         : "Credits exhausted";
    }
    std::string operator()(const WindowNotFound&) const {
      return "The window is no longer available";
    }
    std::string operator()(const CaptureFailed& e) const { return "Capture failed: " + e.message; }
    std::string operator()(const QueueFull&) const { return "The message queue is full"; }
    std::string operator()(const ScreenshotEndpointUnavailable&) const {
      return "The engine has no screenshot endpoint";
    }
    std::string operator()(const ScreenRecordingDenied&) const {
      return "Screen recording permission was denied";
    }
    std::string operator()(const IdempotentRequestFailed&) const {
      return "The engine already failed this request";
    }
    std::string operator()(const IdempotentRequestInProgress&) const {
      return "The engine is still working on this request";
    }
  };
  return std::visit(Visitor{}, value);
}

std::string DaemonClientError::code() const {
  static const char* const names[] = {"server_error",
                                      "validation",
                                      "quota_exceeded",
                                      "credits_exhausted",
                                      "window_not_found",
                                      "capture_failed",
                                      "queue_full",
                                      "screenshot_endpoint_unavailable",
                                      "screen_recording_denied",
                                      "idempotent_request_failed",
                                      "idempotent_request_in_progress"};
  return base::caseName(value, names);
}

DaemonClientError DaemonClientError::fromErrorBody(int status, const DaemonError& body) {
  const std::string code = body.code.value_or("");
  if (!code.empty() && isBillingCode(code)) {
    if (code == kCreditsExhausted) {
      return {
          CreditsExhausted{{code, body.autoRefillStarted.value_or(false), body.retryAfterSeconds}}};
    }
    std::optional<base::Timestamp> resetAt;
    if (body.resetAt) resetAt = base::parseISO8601(*body.resetAt);
    return {QuotaExceeded{{code, body.currentPlan, resetAt}}};
  }
  const std::string text = !body.error.empty() ? body.error
                           : body.message      ? *body.message
                                               : std::string("Unknown error");
  if (base::startsWith(code, "display_name_") || base::startsWith(code, "skill_recommendation_") ||
      base::startsWith(code, "conversation_repl") || code == "agent_not_found") {
    // The longer message explains a validation problem best when the engine gives one.
    return {Validation{body.message && !body.message->empty() ? *body.message : text, body.code}};
  }
  if (code == "idempotent_request_failed") return {IdempotentRequestFailed{}};
  if (code == "idempotent_request_in_progress") return {IdempotentRequestInProgress{}};
  return {ServerError{status, text}};
}

std::optional<DaemonError> DaemonClientError::parseErrorBody(std::string_view body) {
  base::json::bj::value value;
  try {
    value = base::json::parse(body);
  } catch (const base::json::DecodeError&) {
    return std::nullopt;
  }
  const auto* object = value.if_object();
  if (!object) return std::nullopt;
  // Read member by member: one malformed optional must not hide the code.
  auto text = [&](const char* key) -> std::optional<std::string> {
    if (const auto* v = object->if_contains(key); v && v->is_string())
      return std::string(v->get_string());
    return std::nullopt;
  };
  DaemonError decoded;
  decoded.error = text("error").value_or("");
  decoded.code = text("code");
  decoded.message = text("message");
  decoded.currentPlan = text("current_plan");
  decoded.resetAt = text("reset_at");
  if (const auto* v = object->if_contains("auto_refill_started"); v && v->is_bool())
    decoded.autoRefillStarted = v->get_bool();
  if (const auto* v = object->if_contains("retry_after_seconds"); v && v->is_number())
    decoded.retryAfterSeconds = v->to_number<double>();
  return decoded;
}

DaemonClientError DaemonClientError::fromResponse(int status, std::string_view body) {
  const auto decoded = parseErrorBody(body);
  if (!decoded) return {ServerError{status, "Unknown error"}};
  return fromErrorBody(status, *decoded);
}

}  // namespace tamsel::bridge
