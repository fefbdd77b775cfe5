#pragma once
// Starting executables and watching processes end, inside the event loop.
#include <atomic>
#include <boost/asio/awaitable.hpp>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace tamsel::platform {

struct ExitStatus {
  bool signaled = false;  // killed by a signal (then `code` is the signal number)
  int code = 0;
  bool known = true;  // false when the process was not our child and its status is unknowable
  std::string describe() const;
};

struct LaunchOptions {
  std::filesystem::path executable;
  std::vector<std::string> arguments;    // without argv[0]
  std::vector<std::string> environment;  // "KEY=value"; the whole environment of the child
  std::optional<std::filesystem::path> outputFile;  // stdout and stderr appended here (0600)
  bool newSession = true;  // own session: terminal signals to us do not reach it
};

class ProcessWatch;

// A process we started or adopted. Watching uses a pidfd, which works for any process,
// so an engine found running can be watched like one we started.
class Process {
 public:
  // Throws std::system_error when the executable cannot be started.
  static std::unique_ptr<Process> launch(const LaunchOptions& options);
  // Watches a process we did not start; nothing when it is already gone.
  static std::unique_ptr<Process> adopt(std::int32_t pid);

  ~Process();
  std::int32_t pid() const { return pid_; }
  bool isChild() const { return isChild_; }
  bool isRunning() const;
  // Completes when the process ends; for a child also reaps it.
  boost::asio::awaitable<ExitStatus> waitForExit();
  void signal(int signalNumber) const;

 private:
  Process(std::int32_t pid, int pidfd, bool isChild);
  std::int32_t pid_;
  int pidfd_;
  bool isChild_;
  std::optional<ExitStatus> exited_;
};

// Runs an executable to completion: optional captured standard output, a time limit after which
// it is killed. Returns the exit status; throws std::system_error when it cannot be started.
struct CommandResult {
  ExitStatus status;
  std::string output;
};
CommandResult runToCompletion(const std::filesystem::path& executable,
                              const std::vector<std::string>& arguments, bool collectOutput,
                              double timeLimitSeconds = 30);

// Runs an executable to completion with its standard output and error captured together, ended
// early once `*cancel` is set: SIGTERM (so it can leave things tidy), then SIGKILL after
// `graceSeconds`. For long work on a worker thread; throws std::system_error when it cannot be
// started.
CommandResult runCancellable(const std::filesystem::path& executable,
                             const std::vector<std::string>& arguments,
                             const std::atomic<bool>* cancel, double graceSeconds = 10);

// The current environment as "KEY=value" entries.
std::vector<std::string> currentEnvironment();

bool isExecutableFile(const std::filesystem::path& path);

// Whether a process with this PID exists (also one of another user). PIDs below 1 name process
// groups for kill(2) and never count.
bool processExists(std::int32_t pid);
// When the process started, in clock ticks since boot (/proc/<pid>/stat); nothing when there is
// no such process. With the PID it names one process even after PIDs are reused.
std::optional<std::uint64_t> processStartTime(std::int32_t pid);

// The folder of the running executable (/proc/self/exe).
std::filesystem::path executableDirectory();

}  // namespace tamsel::platform
