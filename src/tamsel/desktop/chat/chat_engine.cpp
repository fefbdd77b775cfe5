#include "tamsel/desktop/chat/chat_engine.hpp"

namespace tamsel::desktop {

// Parameters are taken by value and awaited from named locals (see daemon_client.cpp).
auto DaemonChatEngine::agents() -> Task<std::vector<bridge::DaemonAgent>> {
  co_return co_await client_.agents();
}
auto DaemonChatEngine::sessions(bridge::SessionListQuery query)
    -> Task<std::vector<bridge::DaemonSession>> {
  co_return co_await client_.sessions(std::move(query));
}
auto DaemonChatEngine::sendMessage(bridge::SendMessageRequest request)
    -> Task<bridge::ReplyStream> {
  co_return co_await client_.sendMessage(std::move(request));
}
auto DaemonChatEngine::inject(bridge::InjectRequest request) -> Task<bridge::ReplyStream> {
  co_return co_await client_.inject(std::move(request));
}
auto DaemonChatEngine::cancel(bridge::CancelRequest request) -> Task<void> {
  co_await client_.cancel(std::move(request));
}
auto DaemonChatEngine::answerApproval(bridge::ApprovalResponseBody body) -> Task<void> {
  co_await client_.answerApproval(std::move(body));
}
auto DaemonChatEngine::answerQuestion(bridge::QuestionResponseBody body) -> Task<void> {
  co_await client_.answerQuestion(std::move(body));
}

}  // namespace tamsel::desktop
