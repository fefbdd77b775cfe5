#pragma once
// Request and reply records of the engine's HTTP API. Members travel under their snake-case
// names ("msgCount" as "msg_count"); optional members are left out when absent.
#include <boost/describe/class.hpp>
#include <boost/json/value.hpp>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "tamsel/base/dates.hpp"

namespace tamsel::bridge {

using JSON = boost::json::value;
using base::Timestamp;

struct DaemonStatus {
  bool isConnected = false;
  std::optional<std::string> activeAgent;
  std::optional<double> uptime;
  std::optional<std::string> version;
  std::optional<JSON> memory;
  std::optional<std::vector<std::string>> capabilities;
};
BOOST_DESCRIBE_STRUCT(DaemonStatus, (),
                      (isConnected, activeAgent, uptime, version, memory, capabilities))

struct DaemonAgent {
  std::string name;
  std::optional<std::string> displayName;
  std::optional<std::string> avatar;
  std::optional<bool> builtin;
  std::optional<bool> isOverride;
  std::optional<bool> hasMemory;
  std::optional<bool> hasConfig;
  std::optional<std::int64_t> commandCount;
  std::optional<std::int64_t> skillCount;
};
BOOST_DESCRIBE_STRUCT(DaemonAgent, (),
                      (name, displayName, avatar, builtin, isOverride, hasMemory, hasConfig,
                       commandCount, skillCount))

struct DaemonSession {
  std::string id;
  std::optional<std::string> title;
  std::optional<std::string> cwd;
  std::optional<Timestamp> createdAt;
  std::optional<Timestamp> updatedAt;
  std::optional<std::int64_t> msgCount;
  std::optional<std::string> source;
  std::optional<std::string> scheduleId;
  std::optional<bool> inProgress;
  std::optional<bool> pinned;
  std::optional<bool> favorite;
  std::optional<std::string> kind;
  std::optional<std::string> agent;
  std::optional<std::string> projectId;
  // Search results only: the matching text, when the session matched by its messages.
  std::optional<std::string> snippet;
};
BOOST_DESCRIBE_STRUCT(DaemonSession, (),
                      (id, title, cwd, createdAt, updatedAt, msgCount, source, scheduleId,
                       inProgress, pinned, favorite, kind, agent, projectId, snippet))

struct SessionPage {
  std::vector<DaemonSession> sessions;
  std::optional<std::vector<JSON>> projects;
  std::int64_t total = 0;
  bool hasMore = false;
};
BOOST_DESCRIBE_STRUCT(SessionPage, (), (sessions, projects, total, hasMore))

struct SessionDetailMessage {
  std::string role;
  std::optional<JSON> content;
  std::optional<Timestamp> timestamp;
};
BOOST_DESCRIBE_STRUCT(SessionDetailMessage, (), (role, content, timestamp))

struct SessionDetail {
  std::string id;
  std::optional<std::string> title;
  std::optional<std::string> agent;
  std::vector<SessionDetailMessage> messages;
};
BOOST_DESCRIBE_STRUCT(SessionDetail, (), (id, title, agent, messages))

struct MessageReply {
  std::optional<std::string> reply;
  std::optional<std::string> sessionId;
  std::optional<std::string> agent;
  std::optional<JSON> usage;
  std::optional<bool> partial;
  std::optional<std::string> failureCode;
  std::optional<std::vector<JSON>> deliverables;
};
BOOST_DESCRIBE_STRUCT(MessageReply, (),
                      (reply, sessionId, agent, usage, partial, failureCode, deliverables))

struct QueueEnqueueReply {
  bool ok = false;
  std::optional<std::string> outcome;
  std::optional<std::string> messageId;
};
BOOST_DESCRIBE_STRUCT(QueueEnqueueReply, (), (ok, outcome, messageId))

struct ForkSessionReply {
  std::string sessionId;
  std::optional<std::string> title;
};
BOOST_DESCRIBE_STRUCT(ForkSessionReply, (), (sessionId, title))

enum class InjectRetractOutcome { retracted, alreadyCommitted, unknown };

// ---- requests ----

struct SessionListQuery {
  std::optional<std::string> agent;
  std::optional<std::string> projectCwd;
  std::optional<std::string> scheduleId;
  std::optional<std::string> projectId;
};

struct SessionPageQuery {
  std::optional<std::string> scope;
  std::optional<std::int64_t> limit;
  std::optional<std::int64_t> offset;
  std::optional<std::string> projectCwd;
  std::optional<std::string> projectId;
};

struct SessionSearchQuery {
  std::string query;
  std::optional<std::int64_t> limit;
  std::optional<std::int64_t> offset;
};

struct SendMessageRequest {
  std::string text;
  std::string channel = "quenlo";
  std::string source = "desktop";
  std::optional<std::string> agent;
  std::optional<std::string> sessionId;
  std::optional<bool> newSession;
  std::optional<std::string> projectId;
  std::optional<std::vector<JSON>> attachments;
  std::optional<std::string> clientMessageId;
};
BOOST_DESCRIBE_STRUCT(SendMessageRequest, (),
                      (text, channel, source, agent, sessionId, newSession, projectId, attachments,
                       clientMessageId))

struct EditMessageRequest {
  std::int64_t messageIndex = 0;
  std::string newContent;
  std::string channel = "quenlo";
  std::string source = "desktop";
  std::optional<std::string> agent;
  std::optional<std::string> clientMessageId;
};
BOOST_DESCRIBE_STRUCT(EditMessageRequest, (),
                      (messageIndex, newContent, channel, source, agent, clientMessageId))

struct InjectRequest {
  std::string text;  // already carries the injected-message prefix
  std::optional<std::string> sessionId;
  std::optional<std::string> agent;
  std::optional<std::string> routeKey;
  std::optional<std::string> clientMessageId;
};
BOOST_DESCRIBE_STRUCT(InjectRequest, (), (text, sessionId, agent, routeKey, clientMessageId))

struct QueueEnqueueRequest {
  std::string text;
  std::string source = "desktop";
  bool editable = true;
  std::optional<std::string> sessionId;
  std::optional<std::string> routeKey;
  std::optional<std::string> clientMessageId;
};
BOOST_DESCRIBE_STRUCT(QueueEnqueueRequest, (),
                      (text, source, editable, sessionId, routeKey, clientMessageId))

struct CancelRequest {
  std::optional<std::string> sessionId;
  std::optional<std::string> agent;
  std::optional<std::string> routeKey;
};
BOOST_DESCRIBE_STRUCT(CancelRequest, (), (sessionId, agent, routeKey))

struct ApprovalResponseBody {
  std::string requestId;
  std::string decision;
};
BOOST_DESCRIBE_STRUCT(ApprovalResponseBody, (), (requestId, decision))

struct AnswerBody {
  std::string id;
  std::vector<std::string> values;
};
BOOST_DESCRIBE_STRUCT(AnswerBody, (), (id, values))

struct QuestionResponseBody {
  std::string requestId;
  std::optional<std::string> action;
  std::optional<std::vector<AnswerBody>> answers;
};
BOOST_DESCRIBE_STRUCT(QuestionResponseBody, (), (requestId, action, answers))

}  // namespace tamsel::bridge
