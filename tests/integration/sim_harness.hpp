#pragma once
// Starts the engine simulator on a free loopback port for the duration of a test.
#include <sys/types.h>

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "../unit/test_support.hpp"

namespace tamsel::test {

std::uint16_t freePort();

class SimEngine {
 public:
  struct Options {
    std::string presenceToken = "TEST-TOKEN";
    std::string scenarioJSON;  // written to a file and passed as --scenario when not empty
    std::vector<std::string> extraArguments;
  };

  explicit SimEngine(Options options);
  ~SimEngine();  // kills the simulator

  std::uint16_t port() const { return port_; }
  const std::string& token() const { return options_.presenceToken; }
  // The requests the simulator recorded, one JSON object per line.
  std::vector<std::string> recordedRequests() const;
  const std::filesystem::path& folder() const { return dir_.path(); }

 private:
  Options options_;
  TempDir dir_;
  std::uint16_t port_;
  pid_t pid_ = -1;
};

std::filesystem::path simPath();

}  // namespace tamsel::test
