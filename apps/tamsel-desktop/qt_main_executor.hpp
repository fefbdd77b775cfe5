#pragma once
// The main executor on the Qt event loop: posted work runs on the GUI thread through Qt's queue,
// and the controllers' io_context is driven by the same loop. Asio's reactor is one epoll
// descriptor; a socket notifier on it wakes the GUI loop whenever a socket, a timer or a handler
// posted from another thread is ready, and then the ready handlers run (io_context::poll) on the
// GUI thread. Nothing blocks the GUI thread and nothing polls on a clock while idle.
//
// Create it on the GUI thread after the QApplication; it must outlive every controller built on
// it.
#include <QObject>
#include <QSocketNotifier>
#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <memory>

#include "tamsel/base/main_executor.hpp"

class QTimer;

namespace tamsel::desktopui {

class QtMainExecutor final : public QObject, public base::MainExecutor {
 public:
  QtMainExecutor();
  ~QtMainExecutor() override;

  void post(std::function<void()> work) const override;
  bool runningInThisThread() const override;
  boost::asio::any_io_executor ioExecutor() const override;

  boost::asio::io_context& context() { return io_; }
  // False when the reactor's descriptor could not be found and a short timer drives Asio instead.
  bool drivenByDescriptor() const { return notifier_ != nullptr; }

 private:
  void runReady();

  mutable boost::asio::io_context io_{1};
  boost::asio::executor_work_guard<boost::asio::io_context::executor_type> work_;
  std::unique_ptr<QSocketNotifier> notifier_;
  QTimer* fallback_ = nullptr;
};

}  // namespace tamsel::desktopui
