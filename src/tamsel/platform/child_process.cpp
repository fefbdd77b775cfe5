#include "tamsel/platform/child_process.hpp"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <boost/asio/posix/stream_descriptor.hpp>
#include <boost/asio/this_coro.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <fstream>
#include <iterator>
#include <sstream>
#include <system_error>
#include <thread>

#include "tamsel/base/env.hpp"

namespace tamsel::platform {

namespace asio = boost::asio;
namespace fs = std::filesystem;

namespace {

int pidfdOpen(pid_t pid) { return static_cast<int>(::syscall(SYS_pidfd_open, pid, 0)); }

ExitStatus fromWaitStatus(int status) {
  if (WIFSIGNALED(status)) return {true, WTERMSIG(status), true};
  return {false, WEXITSTATUS(status), true};
}

std::vector<char*> cStrings(std::vector<std::string>& strings) {
  std::vector<char*> out;
  out.reserve(strings.size() + 1);
  for (auto& s : strings) out.push_back(s.data());
  out.push_back(nullptr);
  return out;
}

// posix_spawn with the given file actions; throws with the spawn error.
pid_t spawn(const fs::path& executable, std::vector<std::string> argv,
            std::vector<std::string> envp, posix_spawn_file_actions_t* actions, bool newSession) {
  posix_spawnattr_t attr;
  posix_spawnattr_init(&attr);
  short flags = POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF;
  if (newSession) flags |= POSIX_SPAWN_SETSID;
  posix_spawnattr_setflags(&attr, flags);
  sigset_t none;
  sigemptyset(&none);
  posix_spawnattr_setsigmask(&attr, &none);
  sigset_t defaults;
  sigemptyset(&defaults);
  sigaddset(&defaults, SIGPIPE);
  sigaddset(&defaults, SIGINT);
  sigaddset(&defaults, SIGTERM);
  posix_spawnattr_setsigdefault(&attr, &defaults);
  auto args = cStrings(argv);
  auto env = cStrings(envp);
  pid_t pid = 0;
  const int rc = ::posix_spawn(&pid, executable.c_str(), actions, &attr, args.data(), env.data());
  posix_spawnattr_destroy(&attr);
  if (rc != 0)
    throw std::system_error(rc, std::generic_category(), "cannot start " + executable.string());
  return pid;
}

}  // namespace

std::string ExitStatus::describe() const {
  if (!known) return "ended";
  if (signaled) return "killed by signal " + std::to_string(code);
  return "exited with status " + std::to_string(code);
}

Process::Process(std::int32_t pid, int pidfd, bool isChild)
    : pid_(pid), pidfd_(pidfd), isChild_(isChild) {}

Process::~Process() {
  if (pidfd_ >= 0) ::close(pidfd_);
}

std::unique_ptr<Process> Process::launch(const LaunchOptions& options) {
  // The output file is opened here rather than in the child, so that a failure names the file
  // and not the executable (posix_spawn reports both as one error).
  int output = -1;
  if (options.outputFile) {
    output = ::open(options.outputFile->c_str(),
                    O_WRONLY | O_CREAT | O_APPEND | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (output < 0)
      throw std::system_error(errno, std::generic_category(),
                              "cannot open " + options.outputFile->string());
  }
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  if (output >= 0) {
    posix_spawn_file_actions_adddup2(&actions, output, STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, output, STDERR_FILENO);
  }
  std::vector<std::string> argv{options.executable.string()};
  argv.insert(argv.end(), options.arguments.begin(), options.arguments.end());
  pid_t pid = 0;
  try {
    pid = spawn(options.executable, std::move(argv), options.environment, &actions,
                options.newSession);
  } catch (...) {
    posix_spawn_file_actions_destroy(&actions);
    if (output >= 0) ::close(output);
    throw;
  }
  posix_spawn_file_actions_destroy(&actions);
  if (output >= 0) ::close(output);
  return std::unique_ptr<Process>(new Process(pid, pidfdOpen(pid), true));
}

std::unique_ptr<Process> Process::adopt(std::int32_t pid) {
  const int fd = pidfdOpen(pid);
  if (fd < 0) return nullptr;
  return std::unique_ptr<Process>(new Process(pid, fd, false));
}

bool Process::isRunning() const {
  if (exited_) return false;
  if (pidfd_ >= 0) {
    pollfd p{pidfd_, POLLIN, 0};
    return ::poll(&p, 1, 0) == 0;
  }
  return processExists(pid_);
}

bool processExists(std::int32_t pid) { return pid > 0 && (::kill(pid, 0) == 0 || errno == EPERM); }

std::optional<std::uint64_t> processStartTime(std::int32_t pid) {
  if (pid <= 0) return std::nullopt;
  std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
  std::string text((std::istreambuf_iterator<char>(stat)), std::istreambuf_iterator<char>());
  // The command name may hold spaces and parentheses: the fields start after the last ')'.
  const auto close = text.rfind(')');
  if (close == std::string::npos) return std::nullopt;
  std::istringstream fields(text.substr(close + 1));
  std::string field;
  // After the name: state is field 3, start time field 22.
  for (int index = 3; index <= 22; ++index)
    if (!(fields >> field)) return std::nullopt;
  try {
    return std::stoull(field);
  } catch (const std::exception&) {
    return std::nullopt;
  }
}

void Process::signal(int signalNumber) const {
  if (!exited_) ::kill(pid_, signalNumber);
}

asio::awaitable<ExitStatus> Process::waitForExit() {
  while (!exited_) {
    if (pidfd_ >= 0) {
      // Wait on a duplicate so the descriptor object can own and close it.
      asio::posix::stream_descriptor descriptor(co_await asio::this_coro::executor, ::dup(pidfd_));
      co_await descriptor.async_wait(asio::posix::stream_descriptor::wait_read,
                                     asio::use_awaitable);
      // Another waiter may have reaped it meanwhile.
      if (exited_) break;
    }
    if (isChild_) {
      // Never block the loop: a wake-up that was not the exit (a stale readiness report for a
      // reused descriptor number) goes back to waiting.
      int status = 0;
      pid_t got;
      do {
        got = ::waitpid(pid_, &status, WNOHANG);
      } while (got < 0 && errno == EINTR);
      if (got == pid_)
        exited_ = fromWaitStatus(status);
      else if (got < 0)
        exited_ = ExitStatus{false, 0, false};
      else if (pidfd_ < 0)
        co_return ExitStatus{false, 0, false};
    } else if (!isRunning() || pidfd_ < 0) {
      exited_ = ExitStatus{false, 0, false};
    }
  }
  co_return *exited_;
}

namespace {

// Which of a child's output streams go into a pipe for the caller: none (standard output to
// /dev/null), standard output alone, or both. Standard error not captured is inherited.
enum class Capture { none, output, outputAndErrors };

// Starts `executable` with standard input from /dev/null; returns its PID and the read end of the
// pipe its captured streams go to (-1 when nothing is captured).
std::pair<pid_t, int> spawnCapturing(const fs::path& executable,
                                     const std::vector<std::string>& arguments, Capture capture) {
  int pipeFds[2] = {-1, -1};
  if (capture != Capture::none && ::pipe2(pipeFds, O_CLOEXEC) != 0)
    throw std::system_error(errno, std::generic_category(), "pipe");
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  if (capture == Capture::none)
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
  else
    posix_spawn_file_actions_adddup2(&actions, pipeFds[1], STDOUT_FILENO);
  if (capture == Capture::outputAndErrors)
    posix_spawn_file_actions_adddup2(&actions, pipeFds[1], STDERR_FILENO);
  std::vector<std::string> argv{executable.string()};
  argv.insert(argv.end(), arguments.begin(), arguments.end());
  pid_t pid = 0;
  try {
    pid = spawn(executable, std::move(argv), currentEnvironment(), &actions, false);
  } catch (...) {
    posix_spawn_file_actions_destroy(&actions);
    if (capture != Capture::none) {
      ::close(pipeFds[0]);
      ::close(pipeFds[1]);
    }
    throw;
  }
  posix_spawn_file_actions_destroy(&actions);
  if (capture != Capture::none) ::close(pipeFds[1]);
  return {pid, pipeFds[0]};
}

// One read of what the pipe holds, appended to `into`; false once it is closed.
bool readSome(int fd, std::string& into) {
  char buffer[4096];
  ssize_t n = 0;
  do {
    n = ::read(fd, buffer, sizeof buffer);
  } while (n < 0 && errno == EINTR);
  if (n <= 0) return false;
  into.append(buffer, static_cast<std::size_t>(n));
  return true;
}

}  // namespace

CommandResult runToCompletion(const fs::path& executable, const std::vector<std::string>& arguments,
                              bool collectOutput, double timeLimitSeconds) {
  const auto [pid, output] =
      spawnCapturing(executable, arguments, collectOutput ? Capture::output : Capture::none);

  CommandResult result;
  const auto deadline = std::chrono::steady_clock::now() +
                        std::chrono::milliseconds(static_cast<long long>(timeLimitSeconds * 1000));
  bool killed = false;
  if (collectOutput) {
    while (true) {
      const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
          deadline - std::chrono::steady_clock::now());
      pollfd p{output, POLLIN, 0};
      const int ready = ::poll(&p, 1, static_cast<int>(std::max<long long>(0, left.count())));
      if (ready == 0) {
        ::kill(pid, SIGKILL);
        killed = true;
        break;
      }
      if (ready < 0 && errno == EINTR) continue;
      if (!readSome(output, result.output)) break;
    }
    ::close(output);
  }
  int status = 0;
  while (true) {
    const pid_t got = ::waitpid(pid, &status, killed ? 0 : WNOHANG);
    if (got == pid) break;
    if (got < 0 && errno != EINTR) break;
    if (got == 0) {
      if (std::chrono::steady_clock::now() >= deadline) {
        ::kill(pid, SIGKILL);
        killed = true;
        continue;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
  }
  result.status = fromWaitStatus(status);
  return result;
}

CommandResult runCancellable(const fs::path& executable, const std::vector<std::string>& arguments,
                             const std::atomic<bool>* cancel, double graceSeconds) {
  const auto [pid, output] = spawnCapturing(executable, arguments, Capture::outputAndErrors);

  CommandResult result;
  std::optional<std::chrono::steady_clock::time_point> killAt;
  // Output until the pipe closes, looking at the cancel flag five times a second.
  while (true) {
    if (!killAt && cancel && cancel->load()) {
      ::kill(pid, SIGTERM);
      killAt = std::chrono::steady_clock::now() +
               std::chrono::milliseconds(static_cast<long long>(graceSeconds * 1000));
    }
    if (killAt && std::chrono::steady_clock::now() >= *killAt) {
      ::kill(pid, SIGKILL);
      killAt = std::chrono::steady_clock::time_point::max();
    }
    pollfd p{output, POLLIN, 0};
    const int ready = ::poll(&p, 1, 200);
    if (ready < 0 && errno == EINTR) continue;
    if (ready <= 0) continue;
    if (!readSome(output, result.output)) break;
  }
  ::close(output);
  int status = 0;
  while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  result.status = fromWaitStatus(status);
  return result;
}

std::vector<std::string> currentEnvironment() { return base::env::all(); }

bool isExecutableFile(const fs::path& path) {
  std::error_code ec;
  return !path.empty() && fs::is_regular_file(path, ec) && ::access(path.c_str(), X_OK) == 0;
}

fs::path executableDirectory() {
  std::error_code ec;
  auto self = fs::read_symlink("/proc/self/exe", ec);
  return ec ? fs::path() : self.parent_path();
}

}  // namespace tamsel::platform
