#pragma once
// The events of a message's reply stream and their payload records (snake-case keys on the wire).
#include <boost/describe/class.hpp>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "tamsel/bridge/daemon_client_error.hpp"
#include "tamsel/bridge/daemon_records.hpp"
#include "tamsel/bridge/sse_parser.hpp"

namespace tamsel::bridge {

struct ToolEvent {
  std::string tool;
  std::optional<std::string> status;
  std::optional<double> elapsed;
  std::optional<bool> isError;
  std::optional<JSON> args;
  std::optional<std::string> preview;
  std::optional<std::string> toolUseId;
};
BOOST_DESCRIBE_STRUCT(ToolEvent, (), (tool, status, elapsed, isError, args, preview, toolUseId))

struct DeltaEvent {
  std::string text;
};
BOOST_DESCRIBE_STRUCT(DeltaEvent, (), (text))

struct AssistantTextEvent {
  std::string text;
};
BOOST_DESCRIBE_STRUCT(AssistantTextEvent, (), (text))

struct ApprovalEvent {
  std::string requestId;
  std::optional<std::string> tool;
  std::optional<JSON> args;
  std::optional<std::vector<std::string>> flags;
};
BOOST_DESCRIBE_STRUCT(ApprovalEvent, (), (requestId, tool, args, flags))

struct QuestionOptionPayload {
  std::string label;
  std::optional<std::string> description;
  std::optional<std::string> preview;
  std::optional<bool> recommended;
};
BOOST_DESCRIBE_STRUCT(QuestionOptionPayload, (), (label, description, preview, recommended))

struct QuestionEntryPayload {
  std::string id;
  std::optional<std::string> header;
  std::string question;
  std::optional<bool> multiSelect;
  std::optional<bool> allowOther;
  std::optional<std::vector<QuestionOptionPayload>> options;
};
BOOST_DESCRIBE_STRUCT(QuestionEntryPayload, (),
                      (id, header, question, multiSelect, allowOther, options))

struct QuestionRequestPayload {
  std::string requestId;
  std::optional<std::string> sessionId;
  std::optional<std::string> agent;
  std::optional<std::string> source;
  std::optional<std::string> channel;
  std::optional<std::string> threadId;
  std::vector<QuestionEntryPayload> questions;
  std::optional<std::int64_t> autoResolutionMs;
  std::optional<Timestamp> ts;
};
BOOST_DESCRIBE_STRUCT(QuestionRequestPayload, (),
                      (requestId, sessionId, agent, source, channel, threadId, questions,
                       autoResolutionMs, ts))

// A non-fatal error reported inside the stream.
struct ErrorEvent {
  std::string error;
  std::optional<std::string> code;
};
BOOST_DESCRIBE_STRUCT(ErrorEvent, (), (error, code))

struct InjectedEvent {
  std::optional<std::string> messageId;
  std::optional<std::string> text;
};
BOOST_DESCRIBE_STRUCT(InjectedEvent, (), (messageId, text))

struct InjectedCommittedEvent {
  std::string messageId;
  std::optional<std::string> text;
};
BOOST_DESCRIBE_STRUCT(InjectedCommittedEvent, (), (messageId, text))

struct SessionStartedEvent {
  std::string sessionId;
};
BOOST_DESCRIBE_STRUCT(SessionStartedEvent, (), (sessionId))

struct CloudAgentEvent {
  std::optional<std::string> agentId;
  std::optional<std::string> status;
  std::optional<std::string> message;
};
BOOST_DESCRIBE_STRUCT(CloudAgentEvent, (), (agentId, status, message))

struct CloudProgressEvent {
  std::int64_t completed = 0;
  std::int64_t total = 0;
};
BOOST_DESCRIBE_STRUCT(CloudProgressEvent, (), (completed, total))

struct CloudPlanEvent {
  std::optional<std::string> type;
  std::optional<std::string> content;
  std::optional<bool> needsReview;
};
BOOST_DESCRIBE_STRUCT(CloudPlanEvent, (), (type, content, needsReview))

// An error event whose code the desktop handles specially (billing, validation, an idempotent
// request that already failed): mapped exactly as an HTTP error body would be, so the interface
// shows quota and credit problems the same wherever they arise.
struct FailureEvent {
  DaemonClientError error;
};

struct SSEEvent {
  struct Tool {
    ToolEvent value;
  };
  struct Delta {
    DeltaEvent value;
  };
  struct AssistantText {
    AssistantTextEvent value;
  };
  struct Approval {
    ApprovalEvent value;
  };
  struct Question {
    QuestionRequestPayload value;
  };
  struct Error {
    ErrorEvent value;
  };
  struct Failure {
    FailureEvent value;
  };
  struct Done {
    MessageReply value;
  };
  struct InjectedCommitted {
    InjectedCommittedEvent value;
  };
  struct SessionStarted {
    SessionStartedEvent value;
  };
  struct CloudAgent {
    CloudAgentEvent value;
  };
  struct CloudProgress {
    CloudProgressEvent value;
  };
  struct CloudPlan {
    CloudPlanEvent value;
  };
  struct Injected {
    InjectedEvent value;
  };

  using Case = std::variant<Tool, Delta, AssistantText, Approval, Question, Error, Failure, Done,
                            InjectedCommitted, SessionStarted, CloudAgent, CloudProgress, CloudPlan,
                            Injected>;
  Case value;
  // The wire name the event arrived under ("tool", "assistant_text", ...).
  std::string wireName;
  // The payload as it arrived, for consumers that pass events on.
  JSON data;

  template <class T>
  const T* get() const {
    return std::get_if<T>(&value);
  }
};

// Decodes one dispatched message of a reply stream. Nothing for an unknown event name or for data
// that does not decode as its record (the stream goes on). Throws DaemonClientException
// (idempotentRequestInProgress) for that code inside an error event.
std::optional<SSEEvent> decodeReplyEvent(const SSEMessage& message);

}  // namespace tamsel::bridge
