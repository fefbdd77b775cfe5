#include "tamsel/calendar/calendar_permission_store.hpp"

#include <fcntl.h>
#include <unistd.h>

#include <boost/json/value.hpp>
#include <string>

#include "tamsel/base/preferences_store.hpp"

namespace tamsel::calendar {

PreferencesPermissionStore::PreferencesPermissionStore(std::filesystem::path preferencesFile)
    : file_(std::move(preferencesFile)) {}

CalendarPermissionStatus PreferencesPermissionStore::status() const {
  base::MutexLock lock(mutex_);
  const base::PreferencesStore preferences(file_);
  const auto value = preferences.value(key);
  if (!value || !value->is_string()) return CalendarPermissionStatus::notDetermined;
  const auto& text = value->get_string();
  return permissionStatusFromWire(std::string_view(text.data(), text.size()))
      .value_or(CalendarPermissionStatus::notDetermined);
}

void PreferencesPermissionStore::setStatus(CalendarPermissionStatus status) {
  base::MutexLock lock(mutex_);
  base::PreferencesStore preferences(file_);
  preferences.set(key, boost::json::value(std::string(toWire(status))));
}

std::optional<bool> askOnTerminal() {
  const int fd = ::open("/dev/tty", O_RDWR | O_NOCTTY | O_CLOEXEC);
  if (fd < 0) return std::nullopt;
  const std::string question = "\nThe engine asks for full access to your calendars. Allow? [y/N] ";
  if (::write(fd, question.data(), question.size()) < 0) {
    ::close(fd);
    return std::nullopt;
  }
  std::string answer;
  char c = 0;
  while (::read(fd, &c, 1) == 1 && c != '\n') answer.push_back(c);
  ::close(fd);
  return !answer.empty() && (answer[0] == 'y' || answer[0] == 'Y');
}

}  // namespace tamsel::calendar
