#include "tamsel/base/main_executor.hpp"

#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>

namespace tamsel::base {

void MainExecutor::post(std::function<void()> work) const {
  boost::asio::post(*context_, std::move(work));
}

bool MainExecutor::runningInThisThread() const {
  return context_->get_executor().running_in_this_thread();
}

}  // namespace tamsel::base
