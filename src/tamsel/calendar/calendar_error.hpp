#pragma once
// Every way a calendar method can fail, with the code and text the engine receives.
#include <stdexcept>
#include <string>
#include <variant>

#include "tamsel/bridge/rpc/messages.hpp"
#include "tamsel/calendar/calendar_records.hpp"

namespace tamsel::calendar {

struct CalendarRPCError {
  // The wording for an update with scope "all", kept in this one place: agents read it and act on
  // it, so it names the calls that do what was asked.
  static constexpr const char* updateScopeAllRefusal =
      "update_event does not accept scope=\"all\"; use \"this\" or \"this_and_future\". To replace "
      "an entire "
      "series, call delete_event(scope=all) followed by create_event.";

  struct PermissionDenied {
    CalendarPermissionStatus status;
  };
  struct NotFound {
    std::string id;
  };
  struct InvalidArgument {
    std::string field;
    std::string reason;
  };
  struct ReadOnlyCalendar {
    std::string name;
  };
  struct InternalError {
    std::string message;
  };
  struct PermissionNotDetermined {};
  struct Timeout {};
  std::variant<PermissionDenied, NotFound, InvalidArgument, ReadOnlyCalendar, InternalError,
               PermissionNotDetermined, Timeout>
      value;

  static CalendarRPCError invalidArgument(std::string field, std::string reason) {
    return {InvalidArgument{std::move(field), std::move(reason)}};
  }
  static CalendarRPCError notFound(std::string id) { return {NotFound{std::move(id)}}; }
  static CalendarRPCError internalError(std::string message) {
    return {InternalError{std::move(message)}};
  }

  // The wire code (CalendarErrorWireCodes).
  std::string code() const;
  std::string message() const;
  // `invalid_argument` carries {"field": ...}; nothing else has details.
  bridge::rpc::RPCError toRPCError() const;
};

class CalendarException : public std::runtime_error {
 public:
  explicit CalendarException(CalendarRPCError error)
      : std::runtime_error(error.message()), error_(std::move(error)) {}
  const CalendarRPCError& error() const { return error_; }

 private:
  CalendarRPCError error_;
};

}  // namespace tamsel::calendar
