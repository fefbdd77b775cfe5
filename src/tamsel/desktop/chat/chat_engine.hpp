#pragma once
// What the chat controller asks of the engine, as an interface: the application gives it the
// engine client (DaemonChatEngine); tests give it a scripted engine.
#include <boost/asio/awaitable.hpp>
#include <vector>

#include "tamsel/bridge/daemon_client.hpp"
#include "tamsel/bridge/daemon_records.hpp"
#include "tamsel/bridge/reply_stream.hpp"

namespace tamsel::desktop {

class ChatEngine {
 public:
  template <class T>
  using Task = boost::asio::awaitable<T>;

  virtual ~ChatEngine() = default;
  virtual Task<std::vector<bridge::DaemonAgent>> agents() = 0;
  virtual Task<std::vector<bridge::DaemonSession>> sessions(bridge::SessionListQuery query) = 0;
  virtual Task<bridge::ReplyStream> sendMessage(bridge::SendMessageRequest request) = 0;
  virtual Task<bridge::ReplyStream> inject(bridge::InjectRequest request) = 0;
  virtual Task<void> cancel(bridge::CancelRequest request) = 0;
  virtual Task<void> answerApproval(bridge::ApprovalResponseBody body) = 0;
  virtual Task<void> answerQuestion(bridge::QuestionResponseBody body) = 0;
};

// The engine over its HTTP client. The client must outlive it.
class DaemonChatEngine final : public ChatEngine {
 public:
  explicit DaemonChatEngine(bridge::DaemonClient& client) : client_(client) {}
  Task<std::vector<bridge::DaemonAgent>> agents() override;
  Task<std::vector<bridge::DaemonSession>> sessions(bridge::SessionListQuery query) override;
  Task<bridge::ReplyStream> sendMessage(bridge::SendMessageRequest request) override;
  Task<bridge::ReplyStream> inject(bridge::InjectRequest request) override;
  Task<void> cancel(bridge::CancelRequest request) override;
  Task<void> answerApproval(bridge::ApprovalResponseBody body) override;
  Task<void> answerQuestion(bridge::QuestionResponseBody body) override;

 private:
  bridge::DaemonClient& client_;
};

}  // namespace tamsel::desktop
