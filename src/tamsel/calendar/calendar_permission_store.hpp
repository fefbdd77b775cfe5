#pragma once
// Linux has no calendar permission of its own, so the desktop keeps the user's answer in its
// preferences. Until the user grants or denies, the status is not_determined.
#include <filesystem>
#include <functional>
#include <optional>

#include "tamsel/base/mutex.hpp"
#include "tamsel/calendar/calendar_records.hpp"

namespace tamsel::calendar {

class CalendarPermissionStore {
 public:
  virtual ~CalendarPermissionStore() = default;
  virtual CalendarPermissionStatus status() const = 0;
  // Throws std::system_error when the grant cannot be kept.
  virtual void setStatus(CalendarPermissionStatus status) = 0;
};

// The grant under "dev.tamsel.desktop.calendar.permission" in the preferences file. The file is
// read on every call, so a grant given by another `tamsel` process is seen at once.
class PreferencesPermissionStore : public CalendarPermissionStore {
 public:
  static constexpr const char* key = "dev.tamsel.desktop.calendar.permission";
  explicit PreferencesPermissionStore(std::filesystem::path preferencesFile);
  CalendarPermissionStatus status() const override;
  void setStatus(CalendarPermissionStatus status) override;

 private:
  std::filesystem::path file_;
  mutable base::Mutex mutex_;  // a write reads the whole file first: one at a time in this process
};

// Kept in memory only: for tests and for front ends without preferences.
class MemoryPermissionStore : public CalendarPermissionStore {
 public:
  explicit MemoryPermissionStore(
      CalendarPermissionStatus status = CalendarPermissionStatus::notDetermined)
      : status_(status) {}
  CalendarPermissionStatus status() const override {
    base::MutexLock lock(mutex_);
    return status_;
  }
  void setStatus(CalendarPermissionStatus status) override {
    base::MutexLock lock(mutex_);
    status_ = status;
  }

 private:
  mutable base::Mutex mutex_;
  CalendarPermissionStatus status_ GUARDED_BY(mutex_);
};

// Asks a person for full calendar access: true granted, false denied, nullopt when nobody can
// answer (the status then stays as it is). Runs on a worker thread and may block.
using PermissionPrompter = std::function<std::optional<bool>()>;

// Asks on the controlling terminal (/dev/tty); nullopt without one.
std::optional<bool> askOnTerminal();

}  // namespace tamsel::calendar
