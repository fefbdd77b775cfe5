#include "tamsel/calendar/calendar_error.hpp"

#include "tamsel/base/overloaded.hpp"
#include "tamsel/bridge/rpc/protocol_constants.hpp"
#include "tamsel/calendar/calendar_protocol.hpp"

namespace tamsel::calendar {

namespace ErrorCode = bridge::rpc::ProtocolConstants::ErrorCode;
namespace CalendarErrorCode = CalendarProtocol::ErrorCode;

using base::Overloaded;

std::string CalendarRPCError::code() const {
  return std::string(std::visit(
      Overloaded{
          [](const PermissionDenied&) { return CalendarErrorCode::calendarPermissionDenied; },
          [](const NotFound&) { return ErrorCode::notFound; },
          [](const InvalidArgument&) { return ErrorCode::invalidArgument; },
          [](const ReadOnlyCalendar&) { return CalendarErrorCode::readOnlyCalendar; },
          [](const InternalError&) { return ErrorCode::internalError; },
          [](const PermissionNotDetermined&) {
            return CalendarErrorCode::calendarPermissionNotDetermined;
          },
          [](const Timeout&) { return ErrorCode::timeout; }},
      value));
}

std::string CalendarRPCError::message() const {
  return std::visit(
      Overloaded{[](const PermissionDenied& e) {
                   return "Calendar access " + std::string(toWire(e.status)) +
                          "; user must grant full access in Tamsel Desktop settings.";
                 },
                 [](const NotFound& e) { return "Calendar or event not found: " + e.id; },
                 [](const InvalidArgument& e) {
                   return "Invalid argument for `" + e.field + "`: " + e.reason;
                 },
                 [](const ReadOnlyCalendar& e) {
                   return "Calendar " + e.name + " is read-only (subscription / birthdays / feed).";
                 },
                 [](const InternalError& e) { return e.message; },
                 [](const PermissionNotDetermined&) {
                   return std::string(
                       "Calendar permission has not been requested yet; call "
                       "calendar.request_permission first.");
                 },
                 [](const Timeout&) { return std::string("Operation timed out."); }},
      value);
}

bridge::rpc::RPCError CalendarRPCError::toRPCError() const {
  bridge::rpc::RPCError error{code(), message(), false, std::nullopt};
  if (const auto* invalid = std::get_if<InvalidArgument>(&value))
    error.details = JSONValue::object({{"field", invalid->field}});
  // A timed-out store may answer the same call later.
  if (std::holds_alternative<Timeout>(value)) error.retriable = true;
  return error;
}

}  // namespace tamsel::calendar
