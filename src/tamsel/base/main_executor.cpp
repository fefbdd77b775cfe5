#include "tamsel/base/main_executor.hpp"

#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>

namespace tamsel::base {

void AsioMainExecutor::post(std::function<void()> work) const {
  boost::asio::post(*context_, std::move(work));
}

bool AsioMainExecutor::runningInThisThread() const {
  return context_->get_executor().running_in_this_thread();
}

boost::asio::any_io_executor AsioMainExecutor::ioExecutor() const {
  return context_->get_executor();
}

}  // namespace tamsel::base
