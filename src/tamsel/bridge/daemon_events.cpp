#include "tamsel/bridge/daemon_events.hpp"

#include <array>

#include "tamsel/base/json.hpp"

namespace tamsel::bridge {

namespace json = base::json;

namespace {

// Wire names in the order of the cases: the snake-case forms of the case names.
constexpr std::array<std::string_view, std::variant_size_v<DaemonEvent::Value>> kWireNames{
    "message_received",
    "agent_reply",
    "approval_request",
    "approval_resolved",
    "question_request",
    "question_resolved",
    "approval_notice",
    "agent_error",
    "heartbeat_alert",
    "tool_status",
    "assistant_text",
    "suggestion_ready",
    "usage",
    "cloud_agent",
    "cloud_progress",
    "cloud_plan",
    "run_status",
    "notification",
    "schedule_run",
    "share_progress",
    "auth_state_changed",
    "session_title_updated",
    "deliverable",
    "computer_use_activity",
    "skill_recommendation",
    "work_plan_updated",
    "computer_use_activity_invalid"};

template <class Case>
DaemonEvent::Value decodeCase(const JSON& data) {
  using Payload = decltype(Case::value);
  if constexpr (std::is_same_v<Payload, RawPayload>) {
    return Case{RawPayload{data}};
  } else {
    return Case{json::decode<Payload>(data)};
  }
}

template <std::size_t... I>
std::optional<DaemonEvent::Value> decodeByIndex(std::size_t index, const JSON& data,
                                                std::index_sequence<I...>) {
  std::optional<DaemonEvent::Value> out;
  ((I == index ? (out = decodeCase<std::variant_alternative_t<I, DaemonEvent::Value>>(data), 0)
               : 0),
   ...);
  return out;
}

}  // namespace

std::string_view DaemonEvent::wireName() const { return kWireNames[value.index()]; }

bool DaemonEvent::isCritical() const {
  return get<ApprovalRequest>() || get<ApprovalResolved>() || get<QuestionRequest>() ||
         get<QuestionResolved>();
}

std::optional<DaemonEvent> decodeDaemonEvent(const SSEMessage& message) {
  std::size_t index = 0;
  while (index < kWireNames.size() && kWireNames[index] != message.event) ++index;
  if (index == kWireNames.size()) return std::nullopt;
  try {
    JSON data = json::parse(message.data);
    auto value = decodeByIndex(index, data, std::make_index_sequence<kWireNames.size()>{});
    if (!value) return std::nullopt;
    return DaemonEvent{std::move(*value), message.id, std::move(data)};
  } catch (const json::DecodeError&) {
    return std::nullopt;
  }
}

}  // namespace tamsel::bridge
