#include "tamsel/base/preferences_store.hpp"

#include <sys/stat.h>

#include <boost/json/object.hpp>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <stdexcept>

#include "tamsel/base/atomic_file.hpp"
#include "tamsel/base/dates.hpp"
#include "tamsel/base/json.hpp"
#include "tamsel/base/log.hpp"

namespace tamsel::base {

namespace fs = std::filesystem;
constexpr const char* kSource = "Preferences";

PreferencesStore::PreferencesStore(fs::path file) : file_(std::move(file)) {
  base::removeStaleTemporaries(file_);
  std::string text;
  if (!base::readFile(file_, text)) {
    const int error = errno;
    struct stat info {};
    if (::lstat(file_.c_str(), &info) != 0 && errno == ENOENT) return;  // a first start
    // There but unreadable (its mode, its owner): writing would lose every key in it.
    base::MutexLock lock(mutex_);
    writable_ = false;
    protectedReason_ = file_.string() + " exists but cannot be read (" + std::strerror(error) +
                       "); it is left as it is and preferences are not saved";
    base::log::error(kSource, "{}", protectedReason_);
    return;
  }
  try {
    auto parsed = base::json::parse(text);
    if (!parsed.is_object()) throw base::json::DecodeError("not an object");
    values_ = std::move(parsed.as_object());
  } catch (const base::json::DecodeError& e) {
    const auto aside = base::moveAside(file_);
    if (!aside) writable_ = false;  // keep the unreadable file rather than write over it
    base::log::warn(kSource, "{} could not be read ({}); kept as {}, starting empty",
                    file_.string(), e.what(), aside ? aside->string() : file_.string());
  }
}

fs::path PreferencesStore::fileIn(const fs::path& appFolder) {
  return appFolder / "preferences.json";
}

std::optional<boost::json::value> PreferencesStore::value(const std::string& key) const {
  base::MutexLock lock(mutex_);
  if (const auto* found = values_.if_contains(key)) return *found;
  return std::nullopt;
}

void PreferencesStore::set(const std::string& key, std::optional<boost::json::value> value) {
  base::MutexLock fileLock(fileMutex_);
  std::string text;
  {
    base::MutexLock lock(mutex_);
    if (value)
      values_[key] = std::move(*value);
    else
      values_.erase(key);
    if (!writable_) {
      if (!protectedReason_.empty()) throw std::runtime_error(protectedReason_);
      return;
    }
    text = base::json::serialize(values_);
  }
  base::writeFileAtomically(file_, text, 0600);
}

}  // namespace tamsel::base
