#pragma once
// The user's preferences: one JSON object in the app folder ("preferences.json", 0600), written
// atomically on every change. Keys carry the product's reverse-DNS prefix. A file that does not
// decode is moved aside (never overwritten silently) and the store starts empty; one that cannot
// be read at all is left alone and not written. Thread-safe.
#include <boost/json/value.hpp>
#include <filesystem>
#include <optional>
#include <string>

#include "tamsel/base/mutex.hpp"

namespace tamsel::base {

class PreferencesStore {
 public:
  static constexpr const char* keyPrefix = "dev.tamsel.desktop.";

  explicit PreferencesStore(std::filesystem::path file);
  // "preferences.json" in the app folder.
  static std::filesystem::path fileIn(const std::filesystem::path& appFolder);

  std::optional<boost::json::value> value(const std::string& key) const;
  // Nothing removes the key. Throws std::system_error when the file cannot be written, and
  // std::runtime_error saying so when the file exists but could not be read (it is never
  // written over then); the value is kept in memory either way.
  void set(const std::string& key, std::optional<boost::json::value> value);

  const std::filesystem::path& file() const { return file_; }

 private:
  std::filesystem::path file_;
  mutable base::Mutex mutex_;  // the values
  base::Mutex fileMutex_;      // writers, so snapshots reach the file in the order they were taken
  boost::json::object values_ GUARDED_BY(mutex_);
  bool writable_ GUARDED_BY(mutex_) = true;
  std::string protectedReason_ GUARDED_BY(mutex_);  // why an existing file is not written
};

}  // namespace tamsel::base
