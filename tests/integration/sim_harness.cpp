#include "sim_harness.hpp"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <stdexcept>
#include <thread>

extern char** environ;

namespace tamsel::test {

std::filesystem::path simPath() { return VERD_SIM_PATH; }

std::uint16_t freePort() {
  const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  ::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
  socklen_t len = sizeof addr;
  ::getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len);
  ::close(fd);
  return ntohs(addr.sin_port);
}

namespace {
bool accepts(std::uint16_t port) {
  const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  addr.sin_port = htons(port);
  const bool ok = ::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0;
  ::close(fd);
  return ok;
}
}  // namespace

SimEngine::SimEngine(Options options) : options_(std::move(options)), port_(freePort()) {
  std::vector<std::string> args{simPath().string(), "daemon",
                                "--port",           std::to_string(port_),
                                "--record",         (dir_.path() / "requests.jsonl").string()};
  if (!options_.scenarioJSON.empty()) {
    const auto scenario = dir_.path() / "scenario.json";
    std::ofstream(scenario) << options_.scenarioJSON;
    args.insert(args.end(), {"--scenario", scenario.string()});
  }
  args.insert(args.end(), options_.extraArguments.begin(), options_.extraArguments.end());

  std::vector<std::string> env;
  for (char** e = environ; *e; ++e) {
    if (std::string(*e).rfind("TAMSEL_LOCAL_PRESENCE_TOKEN=", 0) != 0) env.emplace_back(*e);
  }
  env.push_back("TAMSEL_LOCAL_PRESENCE_TOKEN=" + options_.presenceToken);
  std::vector<char*> argv, envp;
  for (auto& a : args) argv.push_back(a.data());
  argv.push_back(nullptr);
  for (auto& e : env) envp.push_back(e.data());
  envp.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, (dir_.path() / "sim.log").c_str(),
                                   O_WRONLY | O_CREAT | O_APPEND, 0600);
  const int rc = ::posix_spawn(&pid_, argv[0], &actions, nullptr, argv.data(), envp.data());
  posix_spawn_file_actions_destroy(&actions);
  if (rc != 0) throw std::runtime_error("cannot start the simulator");
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (!accepts(port_)) {
    if (std::chrono::steady_clock::now() > deadline)
      throw std::runtime_error("the simulator did not start");
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
}

SimEngine::~SimEngine() {
  if (pid_ > 0) {
    ::kill(pid_, SIGKILL);
    int status = 0;
    ::waitpid(pid_, &status, 0);
  }
}

std::vector<std::string> SimEngine::recordedRequests() const {
  std::vector<std::string> lines;
  std::ifstream in(dir_.path() / "requests.jsonl");
  for (std::string line; std::getline(in, line);)
    if (!line.empty()) lines.push_back(line);
  return lines;
}

}  // namespace tamsel::test
