#pragma once
// The one error type of engine calls, and the mapping of the engine's error bodies onto it.
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <variant>

#include "tamsel/base/dates.hpp"
#include "tamsel/base/error.hpp"

namespace tamsel::bridge {

// The engine's error body (any status of 400 or more).
struct DaemonError {
  std::string error;
  std::optional<std::string> code;
  std::optional<std::string> message;
  std::optional<std::string> currentPlan;
  std::optional<std::string> resetAt;
  std::optional<bool> autoRefillStarted;
  std::optional<double> retryAfterSeconds;
};

struct QuotaDetails {
  std::string code;
  std::optional<std::string> currentPlan;
  std::optional<base::Timestamp> resetAt;
};

struct CreditsDetails {
  std::string code;
  bool autoRefillStarted = false;
  std::optional<double> retryAfterSeconds;
};

struct DaemonClientError {
  static constexpr std::string_view category = "engine";
  struct ServerError {
    int status = 0;
    std::string message;
  };
  struct Validation {
    std::string message;
    std::optional<std::string> code;  // the engine's code, for texts the interface words itself
  };
  struct QuotaExceeded {
    QuotaDetails details;
  };
  struct CreditsExhausted {
    CreditsDetails details;
  };
  struct WindowNotFound {};
  struct CaptureFailed {
    std::string message;
  };
  struct QueueFull {};
  struct ScreenshotEndpointUnavailable {};
  struct ScreenRecordingDenied {};
  struct IdempotentRequestFailed {};
  struct IdempotentRequestInProgress {};

  using Case =
      std::variant<ServerError, Validation, QuotaExceeded, CreditsExhausted, WindowNotFound,
                   CaptureFailed, QueueFull, ScreenshotEndpointUnavailable, ScreenRecordingDenied,
                   IdempotentRequestFailed, IdempotentRequestInProgress>;
  Case value;

  std::string description() const;
  std::string code() const;

  template <class T>
  bool is() const {
    return std::holds_alternative<T>(value);
  }
  template <class T>
  const T& as() const {
    return std::get<T>(value);
  }

  // The codes billing problems arrive with; shared with the cloud account client.
  static bool isBillingCode(std::string_view code);

  // The response check for a status of 400 or more. `body` is the raw response body.
  static DaemonClientError fromResponse(int status, std::string_view body);
  // Reads an error body leniently; nothing when the text is not a JSON object.
  static std::optional<DaemonError> parseErrorBody(std::string_view body);
  // The same mapping for an already decoded error body (a reply stream's error event).
  static DaemonClientError fromErrorBody(int status, const DaemonError& body);
};

// What engine calls throw.
using DaemonClientException = base::ErrorOf<DaemonClientError>;

// A transport failure (no connection, time limit, broken stream), passed to callers as is.
class TransportError : public base::Error {
 public:
  static constexpr std::string_view category = "transport";
  explicit TransportError(const std::string& message) : Error(category, "failed", message) {}
};

}  // namespace tamsel::bridge
