#pragma once
// Every way a calendar method can fail, with the code and text the engine receives.
#include <stdexcept>
#include <string>
#include <variant>

#include "tamsel/base/error.hpp"
#include "tamsel/bridge/rpc/messages.hpp"
#include "tamsel/calendar/calendar_records.hpp"

namespace tamsel::calendar {

struct CalendarRPCError {
  static constexpr std::string_view category = "calendar";
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
  std::string description() const { return message(); }
  // `invalid_argument` carries {"field": ...}; nothing else has details.
  bridge::rpc::RPCError toRPCError() const;
};

using CalendarException = base::ErrorOf<CalendarRPCError>;

}  // namespace tamsel::calendar
