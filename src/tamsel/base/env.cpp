#include "tamsel/base/env.hpp"

#include <pwd.h>
#include <unistd.h>

#include <cstdlib>

#include "tamsel/base/mutex.hpp"

extern char** environ;

namespace tamsel::base::env {

namespace {
Mutex& envMutex() {
  static Mutex mutex;
  return mutex;
}
}  // namespace

std::optional<std::string> get(const char* name) {
  MutexLock lock(envMutex());
  const char* value = std::getenv(name);
  if (!value) return std::nullopt;
  return std::string(value);
}

void set(const char* name, const std::string& value) {
  MutexLock lock(envMutex());
  ::setenv(name, value.c_str(), 1);
}

std::vector<std::string> all() {
  MutexLock lock(envMutex());
  std::vector<std::string> out;
  for (char** entry = environ; entry && *entry; ++entry) out.emplace_back(*entry);
  return out;
}

std::string homeDirectory() {
  if (auto home = get("HOME"); home && !home->empty()) return *home;
  if (const passwd* entry = ::getpwuid(::getuid()); entry && entry->pw_dir) return entry->pw_dir;
  return "/";
}

}  // namespace tamsel::base::env
