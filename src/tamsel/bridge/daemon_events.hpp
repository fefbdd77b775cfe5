#pragma once
// Engine-wide events published on "/events", and their payload records (snake-case keys).
#include <boost/describe/class.hpp>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "tamsel/bridge/daemon_records.hpp"
#include "tamsel/bridge/reply_events.hpp"

namespace tamsel::bridge {

using OptText = std::optional<std::string>;
using OptBool = std::optional<bool>;
using OptInt = std::optional<std::int64_t>;
using OptNumber = std::optional<double>;

struct MessageReceivedPayload {
  OptText agent, source, sender, sessionId, messageId, text, textPreview;
  OptBool queued;
};
BOOST_DESCRIBE_STRUCT(MessageReceivedPayload, (),
                      (agent, source, sender, sessionId, messageId, text, textPreview, queued))

struct AgentReplyPayload {
  OptText agent, source, sessionId, text;
  OptBool partial;
  OptText failureCode;
};
BOOST_DESCRIBE_STRUCT(AgentReplyPayload, (), (agent, source, sessionId, text, partial, failureCode))

struct ApprovalRequestPayload {
  std::string requestId;
  OptText sessionId, agent, tool, title, source, channel;
  std::optional<JSON> args;
  std::optional<std::vector<std::string>> flags;
  std::optional<Timestamp> ts;
};
BOOST_DESCRIBE_STRUCT(ApprovalRequestPayload, (),
                      (requestId, sessionId, agent, tool, title, source, channel, args, flags, ts))

struct ApprovalResolvedPayload {
  std::string requestId;
  OptText decision, resolvedBy;
};
BOOST_DESCRIBE_STRUCT(ApprovalResolvedPayload, (), (requestId, decision, resolvedBy))

struct QuestionResolvedPayload {
  std::string requestId;
  OptText action, resolvedBy;
  std::optional<Timestamp> ts;
};
BOOST_DESCRIBE_STRUCT(QuestionResolvedPayload, (), (requestId, action, resolvedBy, ts))

struct ApprovalNoticePayload {
  OptText severity, code, tool, message;
};
BOOST_DESCRIBE_STRUCT(ApprovalNoticePayload, (), (severity, code, tool, message))

struct AgentErrorPayload {
  OptText agent, error, friendlyError, failureCode, source, sessionId;
};
BOOST_DESCRIBE_STRUCT(AgentErrorPayload, (),
                      (agent, error, friendlyError, failureCode, source, sessionId))

struct HeartbeatAlertPayload {
  OptText agent, text, sessionId;
};
BOOST_DESCRIBE_STRUCT(HeartbeatAlertPayload, (), (agent, text, sessionId))

struct ToolStatusPayload {
  OptText tool, status;
  OptNumber elapsed;
  OptBool isError;
  std::optional<JSON> args;
  OptText preview, toolUseId, sessionId;
};
BOOST_DESCRIBE_STRUCT(ToolStatusPayload, (),
                      (tool, status, elapsed, isError, args, preview, toolUseId, sessionId))

struct AssistantTextPayload {
  OptText text, agent, sessionId;
};
BOOST_DESCRIBE_STRUCT(AssistantTextPayload, (), (text, agent, sessionId))

struct SuggestionReadyPayload {
  OptText sessionId, agent, text;
};
BOOST_DESCRIBE_STRUCT(SuggestionReadyPayload, (), (sessionId, agent, text))

struct UsagePayload {
  OptInt inputTokens, outputTokens, cacheReadTokens, cacheWriteTokens;
  OptNumber costUsd;
  OptInt llmCalls;
  OptText model, sessionId;
};
BOOST_DESCRIBE_STRUCT(UsagePayload, (),
                      (inputTokens, outputTokens, cacheReadTokens, cacheWriteTokens, costUsd,
                       llmCalls, model, sessionId))

struct CloudAgentPayload {
  OptText agentId, status, message, sessionId;
};
BOOST_DESCRIBE_STRUCT(CloudAgentPayload, (), (agentId, status, message, sessionId))

struct CloudProgressPayload {
  OptInt completed, total;
  OptText sessionId;
};
BOOST_DESCRIBE_STRUCT(CloudProgressPayload, (), (completed, total, sessionId))

struct CloudPlanPayload {
  OptText planType, content;
  OptBool needsReview;
  OptText sessionId;
};
BOOST_DESCRIBE_STRUCT(CloudPlanPayload, (), (planType, content, needsReview, sessionId))

struct RunStatusPayload {
  OptText code, detail, sessionId;
};
BOOST_DESCRIBE_STRUCT(RunStatusPayload, (), (code, detail, sessionId))

struct NotificationPayload {
  OptText title, body, sessionId, agent, source;
  OptBool sound;
};
BOOST_DESCRIBE_STRUCT(NotificationPayload, (), (title, body, sessionId, agent, source, sound))

struct ScheduleRunPayload {
  OptText scheduleId, sessionId, agent, phase, error;
  OptBool partial;
  OptText failureCode;
  std::optional<Timestamp> ts;
};
BOOST_DESCRIBE_STRUCT(ScheduleRunPayload, (),
                      (scheduleId, sessionId, agent, phase, error, partial, failureCode, ts))

struct ShareProgressPayload {
  OptText taskId, sessionId, agent, phase, url, uploadId, error;
};
BOOST_DESCRIBE_STRUCT(ShareProgressPayload, (),
                      (taskId, sessionId, agent, phase, url, uploadId, error))

struct SessionTitleUpdatedPayload {
  std::string sessionId;
  OptText title;
};
BOOST_DESCRIBE_STRUCT(SessionTitleUpdatedPayload, (), (sessionId, title))

struct DeliverablePayload {
  OptText sessionId, id, path, filename, agent, source, title, mime;
  OptInt byteSize;
  std::optional<Timestamp> ts;
};
BOOST_DESCRIBE_STRUCT(DeliverablePayload, (),
                      (sessionId, id, path, filename, agent, source, title, mime, byteSize, ts))

struct WorkPlanStepPayload {
  std::string content;
  OptText status;
};
BOOST_DESCRIBE_STRUCT(WorkPlanStepPayload, (), (content, status))

struct WorkPlanUpdatedPayload {
  OptText sessionId, runId, planId;
  OptInt revision;
  OptText lifecycle, closeReason, explanation;
  std::optional<std::vector<WorkPlanStepPayload>> steps;
  OptInt completed, total;
  std::optional<Timestamp> updatedAt, ts;
};
BOOST_DESCRIBE_STRUCT(WorkPlanUpdatedPayload, (),
                      (sessionId, runId, planId, revision, lifecycle, closeReason, explanation,
                       steps, completed, total, updatedAt, ts))

// Events whose payloads belong to subsystems specified elsewhere travel as their JSON.
struct RawPayload {
  JSON value;
};

struct DaemonEvent {
  template <class P, int Tag>
  struct Case {
    P value;
  };
  using MessageReceived = Case<MessageReceivedPayload, 0>;
  using AgentReply = Case<AgentReplyPayload, 1>;
  using ApprovalRequest = Case<ApprovalRequestPayload, 2>;
  using ApprovalResolved = Case<ApprovalResolvedPayload, 3>;
  using QuestionRequest = Case<QuestionRequestPayload, 4>;
  using QuestionResolved = Case<QuestionResolvedPayload, 5>;
  using ApprovalNotice = Case<ApprovalNoticePayload, 6>;
  using AgentError = Case<AgentErrorPayload, 7>;
  using HeartbeatAlert = Case<HeartbeatAlertPayload, 8>;
  using ToolStatus = Case<ToolStatusPayload, 9>;
  using AssistantText = Case<AssistantTextPayload, 10>;
  using SuggestionReady = Case<SuggestionReadyPayload, 11>;
  using Usage = Case<UsagePayload, 12>;
  using CloudAgent = Case<CloudAgentPayload, 13>;
  using CloudProgress = Case<CloudProgressPayload, 14>;
  using CloudPlan = Case<CloudPlanPayload, 15>;
  using RunStatus = Case<RunStatusPayload, 16>;
  using Notification = Case<NotificationPayload, 17>;
  using ScheduleRun = Case<ScheduleRunPayload, 18>;
  using ShareProgress = Case<ShareProgressPayload, 19>;
  using AuthStateChanged = Case<RawPayload, 20>;
  using SessionTitleUpdated = Case<SessionTitleUpdatedPayload, 21>;
  using Deliverable = Case<DeliverablePayload, 22>;
  using ComputerUseActivity = Case<RawPayload, 23>;
  using SkillRecommendation = Case<RawPayload, 24>;
  using WorkPlanUpdated = Case<WorkPlanUpdatedPayload, 25>;
  using ComputerUseActivityInvalid = Case<RawPayload, 26>;

  using Value =
      std::variant<MessageReceived, AgentReply, ApprovalRequest, ApprovalResolved, QuestionRequest,
                   QuestionResolved, ApprovalNotice, AgentError, HeartbeatAlert, ToolStatus,
                   AssistantText, SuggestionReady, Usage, CloudAgent, CloudProgress, CloudPlan,
                   RunStatus, Notification, ScheduleRun, ShareProgress, AuthStateChanged,
                   SessionTitleUpdated, Deliverable, ComputerUseActivity, SkillRecommendation,
                   WorkPlanUpdated, ComputerUseActivityInvalid>;
  Value value;
  std::optional<std::string> id;  // the stream's event id, when it gave one
  JSON data;                      // the payload as it arrived

  template <class T>
  const T* get() const {
    return std::get_if<T>(&value);
  }
  // The wire name ("message_received", "tool_status", ...).
  std::string_view wireName() const;
  // Approval and question requests and their resolutions: losing one leaves a card that never
  // appears (and an agent waiting forever) or one that never goes away, so a subscriber that
  // cannot keep up with these must start over rather than carry on with a wrong picture.
  bool isCritical() const;
};

using DaemonEventPtr = std::shared_ptr<const DaemonEvent>;

// Nothing for an unknown name or data that does not decode as its record.
std::optional<DaemonEvent> decodeDaemonEvent(const SSEMessage& message);

}  // namespace tamsel::bridge
