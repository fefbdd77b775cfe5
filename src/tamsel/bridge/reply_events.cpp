#include "tamsel/bridge/reply_events.hpp"

#include "tamsel/base/json.hpp"

namespace tamsel::bridge {

namespace json = base::json;

namespace {

template <class Case, class Record>
std::optional<SSEEvent> as(const JSON& data, const std::string& name) {
  try {
    return SSEEvent{Case{json::decode<Record>(data)}, name, data};
  } catch (const json::DecodeError&) {
    return std::nullopt;
  }
}

std::optional<SSEEvent> decodeError(const JSON& data, const std::string& name) {
  const auto* object = data.if_object();
  if (!object) return std::nullopt;
  const auto body = DaemonClientError::parseErrorBody(json::serialize(data));
  if (!body) return std::nullopt;
  const std::string code = body->code.value_or("");
  auto mapped = DaemonClientError::fromErrorBody(200, *body);
  if (mapped.is<DaemonClientError::IdempotentRequestInProgress>())
    throw DaemonClientException(std::move(mapped));
  if (!mapped.is<DaemonClientError::ServerError>())
    return SSEEvent{SSEEvent::Failure{{std::move(mapped)}}, name, data};
  if (body->error.empty() && !body->message) return std::nullopt;
  return SSEEvent{SSEEvent::Error{{body->error.empty() ? *body->message : body->error, body->code}},
                  name, data};
}

}  // namespace

std::optional<SSEEvent> decodeReplyEvent(const SSEMessage& message) {
  const std::string& name = message.event;
  JSON data;
  try {
    data = json::parse(message.data);
  } catch (const json::DecodeError&) {
    return std::nullopt;
  }
  // Compared in the order the events are listed for the reply stream.
  if (name == "tool") return as<SSEEvent::Tool, ToolEvent>(data, name);
  if (name == "delta") return as<SSEEvent::Delta, DeltaEvent>(data, name);
  if (name == "assistant_text") return as<SSEEvent::AssistantText, AssistantTextEvent>(data, name);
  if (name == "approval") return as<SSEEvent::Approval, ApprovalEvent>(data, name);
  if (name == "question") return as<SSEEvent::Question, QuestionRequestPayload>(data, name);
  if (name == "error") return decodeError(data, name);
  if (name == "done") return as<SSEEvent::Done, MessageReply>(data, name);
  if (name == "injected") return as<SSEEvent::Injected, InjectedEvent>(data, name);
  if (name == "injected_committed")
    return as<SSEEvent::InjectedCommitted, InjectedCommittedEvent>(data, name);
  if (name == "session_started")
    return as<SSEEvent::SessionStarted, SessionStartedEvent>(data, name);
  if (name == "cloud_agent") return as<SSEEvent::CloudAgent, CloudAgentEvent>(data, name);
  if (name == "cloud_progress") return as<SSEEvent::CloudProgress, CloudProgressEvent>(data, name);
  if (name == "cloud_plan") return as<SSEEvent::CloudPlan, CloudPlanEvent>(data, name);
  return std::nullopt;
}

}  // namespace tamsel::bridge
