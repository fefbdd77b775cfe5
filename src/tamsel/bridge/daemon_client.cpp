#include "tamsel/bridge/daemon_client.hpp"

#include <boost/asio/use_awaitable.hpp>
#include <boost/url/url.hpp>

#include "tamsel/base/json.hpp"
#include "tamsel/base/strings.hpp"
#include "tamsel/base/uuid.hpp"
#include "tamsel/bridge/daemon_client_error.hpp"
#include "tamsel/bridge/daemon_local_presence.hpp"

namespace tamsel::bridge {

namespace asio = boost::asio;
namespace json = base::json;

// g++ 12 can destroy a temporary inside a co_await expression twice; every argument of an
// awaited call in this project is therefore a named local, never a temporary.

namespace {
constexpr const char* kJSONType = "application/json";

template <class Reply>
Reply decodeReply(const std::string& body) {
  try {
    return json::decode<Reply>(body);
  } catch (const json::DecodeError& e) {
    // An undecodable 2xx reply is the engine's fault, reported like any other server error.
    throw DaemonClientException(
        {DaemonClientError::ServerError{200, std::string("Invalid reply: ") + e.what()}});
  }
}

JSON decodeGeneric(const std::string& body) {
  if (base::trim(body).empty()) return nullptr;
  try {
    return json::parse(body);
  } catch (const json::DecodeError& e) {
    throw DaemonClientException(
        {DaemonClientError::ServerError{200, std::string("Invalid reply: ") + e.what()}});
  }
}
}  // namespace

DaemonClient::DaemonClient(Config config) : config_(std::move(config)) {
  if (!config_.sessions) config_.sessions = std::make_shared<HttpSessions>();
}

std::string DaemonClient::buildTarget(const std::vector<std::string>& segments,
                                      const Query& query) {
  boost::urls::url url;
  url.set_path_absolute(true);
  for (const auto& segment : segments) url.segments().push_back(segment);
  for (const auto& [key, value] : query) url.params().append({key, value});
  std::string target(url.encoded_path());
  if (target.empty()) target = "/";
  if (url.has_query()) target += "?" + std::string(url.encoded_query());
  return target;
}

HttpSessionKind DaemonClient::sessionFor(const std::vector<std::string>& segments) {
  if (segments.empty()) return HttpSessionKind::control;
  const std::string& first = segments.front();
  if (first == "config" || first == "instructions" || first == "skills" || first == "schedules" ||
      first == "mcp" || first == "migrate" || first == "projects")
    return HttpSessionKind::config;
  if (first == "local" && segments.size() > 1 && segments[1] == "screenshot")
    return HttpSessionKind::capture;
  return HttpSessionKind::control;
}

const std::string& DaemonClient::check(const HttpResponse& response) {
  if (response.status >= 400)
    throw DaemonClientException(DaemonClientError::fromResponse(response.status, response.body));
  return response.body;
}

HttpRequest DaemonClient::makeRequest(std::string method, std::string target,
                                      bool identifiesWork) const {
  HttpRequest request;
  request.method = std::move(method);
  request.target = std::move(target);
  request.headers.emplace_back(DaemonLocalPresence::headerName, config_.presenceToken);
  if (identifiesWork) {
    request.headers.emplace_back("X-Tamsel-Desktop-Device-ID", config_.deviceID);
    request.headers.emplace_back("X-Tamsel-Consumer-Capabilities",
                                 base::join(config_.consumerCapabilities, ","));
  }
  return request;
}

asio::awaitable<HttpResponse> DaemonClient::exchange(HttpSessionKind kind, HttpRequest request) {
  // The session is held here, not through the client, which may go while the request runs.
  const std::shared_ptr<HttpSession> session = config_.sessions->of(kind);
  const std::uint16_t port = config_.port;
  co_return co_await session->send(port, std::move(request));
}

template <class Reply>
asio::awaitable<Reply> DaemonClient::getJSON(std::string target, HttpSessionKind kind) {
  auto request = makeRequest("GET", std::move(target), false);
  auto response = co_await exchange(kind, std::move(request));
  co_return decodeReply<Reply>(check(response));
}

asio::awaitable<bool> DaemonClient::health() {
  auto request = makeRequest("GET", "/health", false);
  auto response = co_await exchange(HttpSessionKind::liveness, std::move(request));
  co_return response.status < 400;
}

asio::awaitable<DaemonStatus> DaemonClient::status() {
  co_return co_await getJSON<DaemonStatus>("/status", HttpSessionKind::control);
}

asio::awaitable<void> DaemonClient::shutdown() {
  auto request = makeRequest("POST", "/shutdown", false);
  auto response = co_await exchange(HttpSessionKind::control, std::move(request));
  check(response);
}

asio::awaitable<std::vector<DaemonAgent>> DaemonClient::agents() {
  co_return co_await getJSON<std::vector<DaemonAgent>>("/agents", HttpSessionKind::control);
}

asio::awaitable<std::vector<DaemonSession>> DaemonClient::sessions(SessionListQuery q) {
  Query query;
  if (q.agent) query.emplace_back("agent", *q.agent);
  if (q.projectCwd) query.emplace_back("project_cwd", *q.projectCwd);
  if (q.scheduleId) query.emplace_back("schedule_id", *q.scheduleId);
  if (q.projectId) query.emplace_back("project_id", *q.projectId);
  std::string target = buildTarget(std::vector<std::string>{std::string("sessions")}, query);
  co_return co_await getJSON<std::vector<DaemonSession>>(std::move(target),
                                                         HttpSessionKind::control);
}

asio::awaitable<SessionPage> DaemonClient::sessionPage(SessionPageQuery q) {
  Query query;
  if (q.scope) query.emplace_back("scope", *q.scope);
  if (q.limit) query.emplace_back("limit", std::to_string(*q.limit));
  if (q.offset) query.emplace_back("offset", std::to_string(*q.offset));
  if (q.projectCwd) query.emplace_back("project_cwd", *q.projectCwd);
  if (q.projectId) query.emplace_back("project_id", *q.projectId);
  std::string target = buildTarget(std::vector<std::string>{std::string("sessions")}, query);
  co_return co_await getJSON<SessionPage>(std::move(target), HttpSessionKind::control);
}

asio::awaitable<SessionPage> DaemonClient::searchSessions(SessionSearchQuery q) {
  Query query{{"q", q.query}};
  if (q.limit) query.emplace_back("limit", std::to_string(*q.limit));
  if (q.offset) query.emplace_back("offset", std::to_string(*q.offset));
  std::string target =
      buildTarget(std::vector<std::string>{std::string("sessions"), std::string("search")}, query);
  co_return co_await getJSON<SessionPage>(std::move(target), HttpSessionKind::control);
}

asio::awaitable<SessionDetail> DaemonClient::sessionDetail(std::string sessionId,
                                                           std::optional<std::string> agent) {
  Query query;
  if (agent) query.emplace_back("agent", *agent);
  std::string target =
      buildTarget(std::vector<std::string>{std::string("sessions"), sessionId}, query);
  co_return co_await getJSON<SessionDetail>(std::move(target), HttpSessionKind::control);
}

asio::awaitable<ReplyStream> DaemonClient::openStream(std::string target, std::string body,
                                                      const char* failureText) {
  auto request = makeRequest("POST", std::move(target), true);
  request.headers.emplace_back("Accept", "text/event-stream");
  request.contentType = kJSONType;
  request.body = std::move(body);
  const std::shared_ptr<HttpSession> session = config_.sessions->of(HttpSessionKind::longLived);
  const std::uint16_t port = config_.port;
  auto stream = co_await session->open(port, std::move(request));
  if (stream->status() >= 400) {
    const int status = stream->status();
    const std::string errorBody = co_await stream->readAll();
    auto mapped = DaemonClientError::fromResponse(status, errorBody);
    // The request's own words first, then the engine's, so neither is lost.
    if (auto* server = std::get_if<DaemonClientError::ServerError>(&mapped.value))
      server->message = std::string(failureText) + ": " + server->message;
    throw DaemonClientException(std::move(mapped));
  }
  co_return ReplyStream(std::move(stream));
}

asio::awaitable<ReplyStream> DaemonClient::sendMessage(SendMessageRequest request) {
  std::string target = "/message";
  std::string body = json::serialize(json::encode(request));
  co_return co_await openStream(std::move(target), std::move(body), "SSE request failed");
}

asio::awaitable<ReplyStream> DaemonClient::editAndResend(std::string sessionId,
                                                         EditMessageRequest request) {
  std::string target = buildTarget(
      std::vector<std::string>{std::string("sessions"), sessionId, std::string("edit")}, {});
  std::string body = json::serialize(json::encode(request));
  co_return co_await openStream(std::move(target), std::move(body), "Edit request failed");
}

asio::awaitable<ReplyStream> DaemonClient::inject(InjectRequest request) {
  InjectRequest withId = request;
  if (!withId.clientMessageId) withId.clientMessageId = base::newUUIDString();
  std::string target = "/inject";
  std::string body = json::serialize(json::encode(withId));
  co_return co_await openStream(std::move(target), std::move(body), "inject request failed");
}

asio::awaitable<InjectRetractOutcome> DaemonClient::retractInjected(std::string messageId) {
  std::string target = buildTarget(std::vector<std::string>{std::string("inject"), messageId}, {});
  auto request = makeRequest("DELETE", std::move(target), false);
  auto response = co_await exchange(HttpSessionKind::control, std::move(request));
  if (response.status < 400) {
    try {
      const auto reply = json::parse(response.body);
      if (const auto* outcome =
              reply.is_object() ? reply.as_object().if_contains("outcome") : nullptr;
          outcome && outcome->is_string() && outcome->as_string() == "retracted")
        co_return InjectRetractOutcome::retracted;
    } catch (const json::DecodeError&) {
    }
    co_return InjectRetractOutcome::unknown;
  }
  const auto body = DaemonClientError::parseErrorBody(response.body);
  if (body && body->code == "already_committed") co_return InjectRetractOutcome::alreadyCommitted;
  co_return InjectRetractOutcome::unknown;
}

asio::awaitable<QueueEnqueueReply> DaemonClient::enqueue(QueueEnqueueRequest body) {
  QueueEnqueueRequest withId = body;
  // The engine dedupes a repeated enqueue by this id, so a retry never queues twice.
  if (!withId.clientMessageId) withId.clientMessageId = base::newUUIDString();
  auto request = makeRequest("POST", "/queue", false);
  request.contentType = kJSONType;
  request.body = json::serialize(json::encode(withId));
  auto response = co_await exchange(HttpSessionKind::control, std::move(request));
  auto reply = decodeReply<QueueEnqueueReply>(check(response));
  if (!reply.messageId && reply.outcome != "deduped") {
    throw DaemonClientException(
        {DaemonClientError::ServerError{200, "enqueue: missing message_id"}});
  }
  co_return reply;
}

asio::awaitable<void> DaemonClient::cancel(CancelRequest body) {
  const std::vector<std::string> path{std::string("cancel")};
  const std::optional<JSON> encoded = json::encode(body);
  const std::string method = "POST";
  co_await call(method, path, encoded);
}

asio::awaitable<void> DaemonClient::answerApproval(ApprovalResponseBody body) {
  const std::vector<std::string> path{std::string("approval")};
  const std::optional<JSON> encoded = json::encode(body);
  const std::string method = "POST";
  co_await call(method, path, encoded);
}

asio::awaitable<void> DaemonClient::answerQuestion(QuestionResponseBody body) {
  const std::vector<std::string> path{std::string("question")};
  const std::optional<JSON> encoded = json::encode(body);
  const std::string method = "POST";
  co_await call(method, path, encoded);
}

asio::awaitable<JSON> DaemonClient::permissions() {
  std::vector<std::string> path{std::string("permissions")};
  std::string method = "GET";
  co_return co_await call(std::move(method), std::move(path));
}

asio::awaitable<JSON> DaemonClient::requestPermission(JSON body) {
  const std::vector<std::string> path{std::string("permissions"), std::string("request")};
  const std::optional<JSON> encoded = body;
  const std::string method = "POST";
  co_return co_await call(method, path, encoded);
}

asio::awaitable<JSON> DaemonClient::alwaysAllow(std::string method, std::optional<JSON> body) {
  const std::vector<std::string> path{std::string("permissions"), std::string("always-allow")};
  co_return co_await call(method, path, body);
}

asio::awaitable<JSON> DaemonClient::call(std::string method, std::vector<std::string> segments,
                                         std::optional<JSON> body, Query query,
                                         std::optional<HttpSessionKind> session) {
  auto request = makeRequest(std::move(method), buildTarget(segments, query), false);
  if (body) {
    request.contentType = kJSONType;
    request.body = json::serialize(*body);
  }
  auto response = co_await exchange(session.value_or(sessionFor(segments)), std::move(request));
  co_return decodeGeneric(check(response));
}

asio::awaitable<JSON> DaemonClient::uploadSkillPackage(std::string filename, std::string zipBytes) {
  const std::string boundary = "tamsel-" + base::newUUIDString();
  std::string body;
  body.reserve(zipBytes.size() + 256);
  body += "--" + boundary + "\r\n";
  body += "Content-Disposition: form-data; name=\"file\"; filename=\"" + filename + "\"\r\n";
  body += "Content-Type: application/zip\r\n\r\n";
  body += zipBytes;
  body += "\r\n--" + boundary + "--\r\n";
  auto request = makeRequest("POST", "/skills/upload", false);
  request.contentType = "multipart/form-data; boundary=" + boundary;
  request.body = std::move(body);
  auto response = co_await exchange(HttpSessionKind::config, std::move(request));
  co_return decodeGeneric(check(response));
}

}  // namespace tamsel::bridge
