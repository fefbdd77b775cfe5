#include "qt_main_executor.hpp"

#include <QMetaObject>
#include <QThread>
#include <QTimer>
#include <boost/asio/detail/reactor.hpp>
#include <boost/asio/detail/scheduler.hpp>

#include "tamsel/base/log.hpp"

namespace tamsel::desktopui {

namespace asio = boost::asio;

// Asio keeps its epoll descriptor private. An explicit instantiation may name a private member,
// which gives us a typed accessor that stops compiling if the field is ever renamed, rather than
// guessing at descriptors.
int& reactorDescriptor(asio::detail::epoll_reactor& reactor);
template <int asio::detail::epoll_reactor::*Field>
struct ReactorDescriptorAccess {
  friend int& reactorDescriptor(asio::detail::epoll_reactor& reactor) { return reactor.*Field; }
};
template struct ReactorDescriptorAccess<&asio::detail::epoll_reactor::epoll_fd_>;

// Asio wakes a thread blocked in the reactor when another thread posts a handler, but only while
// the scheduler believes a thread is in there (task_interrupted_ false). Our "thread in the
// reactor" is the GUI loop waiting on the reactor's descriptor, which Asio cannot see, so after
// each poll we tell the scheduler so ourselves, under its lock.
using Scheduler = asio::detail::scheduler;
using Operation = asio::detail::scheduler_operation;
Operation* schedulerTask(Scheduler& scheduler);
bool& schedulerTaskInterrupted(Scheduler& scheduler);
asio::detail::conditionally_enabled_mutex& schedulerMutex(Scheduler& scheduler);
asio::detail::op_queue<Operation>& schedulerQueue(Scheduler& scheduler);
template <auto Task, auto Interrupted, auto Mutex, auto Queue>
struct SchedulerAccess {
  friend Operation* schedulerTask(Scheduler& s) { return &(s.*Task); }
  friend bool& schedulerTaskInterrupted(Scheduler& s) { return s.*Interrupted; }
  friend asio::detail::conditionally_enabled_mutex& schedulerMutex(Scheduler& s) {
    return s.*Mutex;
  }
  friend asio::detail::op_queue<Operation>& schedulerQueue(Scheduler& s) { return s.*Queue; }
};
template struct SchedulerAccess<&Scheduler::task_operation_, &Scheduler::task_interrupted_,
                                &Scheduler::mutex_, &Scheduler::op_queue_>;

// Marks the reactor as waited on; false when handlers are already queued (then poll again).
bool armForOtherThreads(Scheduler& scheduler) {
  asio::detail::conditionally_enabled_mutex::scoped_lock lock(schedulerMutex(scheduler));
  auto& queue = schedulerQueue(scheduler);
  Operation* const task = schedulerTask(scheduler);
  const bool onlyTheTask = queue.empty() || (queue.front() == task &&
                                             asio::detail::op_queue_access::next(task) == nullptr);
  if (!onlyTheTask) return false;
  schedulerTaskInterrupted(scheduler) = false;
  return true;
}

QtMainExecutor::QtMainExecutor() : work_(asio::make_work_guard(io_)) {
  // Create the reactor now and make it the scheduler's task, so that handlers posted from other
  // threads interrupt it (its descriptor becomes readable) rather than waiting for a thread
  // blocked in run(), which there never is.
  auto& reactor = asio::use_service<asio::detail::epoll_reactor>(io_);
  reactor.init_task();
  const int fd = reactorDescriptor(reactor);
  if (fd >= 0) {
    notifier_ = std::make_unique<QSocketNotifier>(fd, QSocketNotifier::Read);
    QObject::connect(notifier_.get(), &QSocketNotifier::activated, this, [this] { runReady(); });
    armForOtherThreads(asio::use_service<Scheduler>(io_));
  } else {
    base::log::warn("desktop", "no reactor descriptor; polling the I/O loop every 5 ms");
    fallback_ = new QTimer(this);
    QObject::connect(fallback_, &QTimer::timeout, this, [this] { runReady(); });
    fallback_->start(5);
  }
}

QtMainExecutor::~QtMainExecutor() {
  notifier_.reset();
  work_.reset();
  // Handlers still queued belong to controllers that are gone; destroying them is enough.
  io_.stop();
}

void QtMainExecutor::runReady() {
  io_.poll();
  if (io_.stopped()) io_.restart();
  if (!armForOtherThreads(asio::use_service<Scheduler>(io_)))
    QMetaObject::invokeMethod(
        this, [this] { runReady(); }, Qt::QueuedConnection);
}

void QtMainExecutor::post(std::function<void()> work) const {
  QMetaObject::invokeMethod(const_cast<QtMainExecutor*>(this), std::move(work),
                            Qt::QueuedConnection);
}

bool QtMainExecutor::runningInThisThread() const { return QThread::currentThread() == thread(); }

asio::any_io_executor QtMainExecutor::ioExecutor() const { return io_.get_executor(); }

}  // namespace tamsel::desktopui
