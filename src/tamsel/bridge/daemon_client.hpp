#pragma once
// The desktop's only door to the engine's HTTP API on 127.0.0.1.
//
// Every call carries the presence header; the calls that start or stream work also carry the
// device identifier and the consumer capabilities. Replies are checked and decoded into their
// records; a status of 400 or more becomes a DaemonClientException (see DaemonClientError), a
// transport failure a TransportError. The client keeps no error state and never retries.
//
// Operations run on the caller's executor; any number may be in flight at once, each on the
// shared HTTP session of its kind, so a long reply stream never holds up a control call. A
// request is cancelled by the caller's cancellation (its task scope closing) or, for a stream,
// by dropping the ReplyStream. Requests in flight do not refer to the client: it may be
// destroyed while they run.
#include <boost/asio/awaitable.hpp>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "tamsel/bridge/daemon_records.hpp"
#include "tamsel/bridge/http_transport.hpp"
#include "tamsel/bridge/reply_stream.hpp"

namespace tamsel::bridge {

class DaemonClient {
 public:
  static constexpr std::uint16_t defaultPort = 7533;

  struct Config {
    std::uint16_t port = defaultPort;
    std::string presenceToken;  // secret: never logged
    std::string deviceID;
    std::vector<std::string> consumerCapabilities;
    // The application's sessions; a client made without them gets a set of its own.
    std::shared_ptr<HttpSessions> sessions;
  };

  using Query = std::vector<std::pair<std::string, std::string>>;

  explicit DaemonClient(Config config);

  std::uint16_t port() const { return config_.port; }
  std::string baseURL() const { return "http://127.0.0.1:" + std::to_string(config_.port); }

  // Liveness: true when "/health" answers below 400. Outside the other sessions' limits.
  boost::asio::awaitable<bool> health();
  boost::asio::awaitable<DaemonStatus> status();
  boost::asio::awaitable<void> shutdown();

  boost::asio::awaitable<std::vector<DaemonAgent>> agents();
  boost::asio::awaitable<std::vector<DaemonSession>> sessions(SessionListQuery query = {});
  boost::asio::awaitable<SessionPage> sessionPage(SessionPageQuery query);
  boost::asio::awaitable<SessionPage> searchSessions(SessionSearchQuery query);
  boost::asio::awaitable<SessionDetail> sessionDetail(std::string sessionId,
                                                      std::optional<std::string> agent);

  // Streamed replies. A request that fails before its stream starts throws the mapped error
  // ("SSE request failed", "Edit request failed", "inject request failed" for plain failures).
  boost::asio::awaitable<ReplyStream> sendMessage(SendMessageRequest request);
  boost::asio::awaitable<ReplyStream> editAndResend(std::string sessionId,
                                                    EditMessageRequest request);
  // Sends text into the reply running in a session; its stream reports "injected", then
  // "injected_committed" once the running turn took it.
  boost::asio::awaitable<ReplyStream> inject(InjectRequest request);
  // Withdraws an injected message the running turn has not taken yet.
  boost::asio::awaitable<InjectRetractOutcome> retractInjected(std::string messageId);

  // A reply without a message id fails with "enqueue: missing message_id" unless "deduped".
  boost::asio::awaitable<QueueEnqueueReply> enqueue(QueueEnqueueRequest request);
  boost::asio::awaitable<void> cancel(CancelRequest request);
  boost::asio::awaitable<void> answerApproval(ApprovalResponseBody body);
  boost::asio::awaitable<void> answerQuestion(QuestionResponseBody body);

  boost::asio::awaitable<JSON> permissions();
  boost::asio::awaitable<JSON> requestPermission(JSON body);
  boost::asio::awaitable<JSON> alwaysAllow(std::string method, std::optional<JSON> body);

  // Any endpoint with a generic JSON body and reply (the configuration, skills, schedules,
  // projects, account, pairing and computer-use endpoints). `segments` are appended to the base
  // address one by one, each percent-encoded: {"skills", "install", id}. The session is chosen
  // from the path unless given.
  boost::asio::awaitable<JSON> call(std::string method, std::vector<std::string> segments,
                                    std::optional<JSON> body = std::nullopt, Query query = {},
                                    std::optional<HttpSessionKind> session = std::nullopt);
  // A skill package upload: a multipart body with one "application/zip" part.
  boost::asio::awaitable<JSON> uploadSkillPackage(std::string filename, std::string zipBytes);

  // "/path/seg%20ment?x=1" from segments and query items.
  static std::string buildTarget(const std::vector<std::string>& segments, const Query& query);
  static HttpSessionKind sessionFor(const std::vector<std::string>& segments);
  // The response check: below 400 returns the body; otherwise throws the mapped error.
  static const std::string& check(const HttpResponse& response);

 private:
  HttpRequest makeRequest(std::string method, std::string target, bool identifiesWork) const;
  boost::asio::awaitable<HttpResponse> exchange(HttpSessionKind kind, HttpRequest request);
  template <class Reply>
  boost::asio::awaitable<Reply> getJSON(std::string target, HttpSessionKind kind);
  boost::asio::awaitable<ReplyStream> openStream(std::string target, std::string body,
                                                 const char* failureText);

  Config config_;
};

}  // namespace tamsel::bridge
