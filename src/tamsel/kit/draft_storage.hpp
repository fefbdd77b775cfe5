#pragma once
// Unsent composer text, kept across launches in "drafts.json".
//
// Changes are made in memory at once and written by a background writer thread after
// `debounce` of quiet (a burst of typing is one write); `flushNow` writes at once (at exit) and
// the destructor flushes what is still unwritten. Thread-safe.
//
// Rules:
// - At most `maxEntries` keys; writing a key makes it the newest. When the bound is passed, the
//   least recently written pending-session draft goes first (one that outlived its session),
//   otherwise the least recently written key. `rekey` keeps the draft's place in that order.
// - A text longer than `maxLengthPerEntry` characters (code points) is cut to that many, never
//   inside a character, and the cut is logged. Bytes that are not UTF-8 become U+FFFD so that
//   the file always decodes again. An empty text removes the key; an empty key is ignored.
// - The file is {"version":1,"entries":[{"key":"…","text":"…"},…]}, entries least recently
//   written first, written atomically with mode 0600.
// - A file that does not decode (not JSON, another layout or version) is moved aside as
//   "drafts.json.bad-<timestamp>" and the store starts empty. When it cannot be moved aside (or
//   cannot be read), the store still works in memory but never writes over it.
//
// Locks: `stateLock` guards the entries, the order, the pending flush and `flushGeneration`;
// `fileLock` serialises writers. A writer takes `fileLock`, then `stateLock` only to copy the
// entries, so snapshots are written in the order they were taken and typing never waits for
// the disk.
#include <atomic>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "tamsel/base/mutex.hpp"

namespace tamsel::kit {

class DraftStorage {
 public:
  using Clock = std::function<std::chrono::steady_clock::time_point()>;

  struct Configuration {
    std::filesystem::path file;
    std::size_t maxEntries = 200;
    std::size_t maxLengthPerEntry = 30000;
    std::chrono::milliseconds debounce{500};
    // Time source of the debounce; steady_clock::now when empty.
    Clock clock;
  };

  static constexpr int fileVersion = 1;

  // <app folder>/drafts.json, 200 entries, 30000 characters, 0.5 s.
  static Configuration defaultsIn(const std::filesystem::path& appFolder);

  explicit DraftStorage(Configuration configuration);  // loads the file
  ~DraftStorage();  // flushes pending changes, stops the writer thread
  DraftStorage(const DraftStorage&) = delete;
  DraftStorage& operator=(const DraftStorage&) = delete;

  std::optional<std::string> draft(const std::string& key) const;
  void set(std::string text, const std::string& key);  // empty text removes the key
  // Moves a draft to another key (a pending session got its real id). The moved text wins over
  // one already stored under `to`: it is what the user typed last in that composer.
  void rekey(const std::string& from, const std::string& to);
  void flushNow();

  std::size_t writeCount() const { return writeCount_.load(); }  // files written so far
  std::vector<std::string> keys() const;                         // least recently written first
  const Configuration& configuration() const { return config_; }
  // Where an undecodable drafts file was moved at load, if that happened.
  std::optional<std::filesystem::path> setAsidePath() const { return setAsidePath_; }

  // At most `maxCharacters` code points of `text`, cut at a character boundary; each broken
  // UTF-8 sequence becomes U+FFFD (one character).
  static std::string truncatedToCharacters(std::string_view text, std::size_t maxCharacters);

 private:
  struct PendingFlush {
    std::uint64_t generation;
    std::chrono::steady_clock::time_point due;
  };

  std::chrono::steady_clock::time_point now() const;
  void load();
  void moveAside(const std::string& reason);
  void storeLocked(const std::string& key, std::string text) REQUIRES(stateLock_);
  void scheduleFlushLocked() REQUIRES(stateLock_);
  void writerLoop();
  // Writes the current entries unless nothing changed since the last write; with a generation,
  // only while that generation is still the current one.
  void writeSnapshot(std::optional<std::uint64_t> scheduledGeneration);

  const Configuration config_;

  mutable base::Mutex stateLock_;
  std::map<std::string, std::string> entries_ GUARDED_BY(stateLock_);
  std::vector<std::string> lruOrder_ GUARDED_BY(stateLock_);
  std::optional<PendingFlush> pendingFlushItem_ GUARDED_BY(stateLock_);
  std::uint64_t flushGeneration_ GUARDED_BY(stateLock_) = 0;
  bool stopping_ GUARDED_BY(stateLock_) = false;
  base::ConditionVariable flushWake_;

  base::Mutex fileLock_;
  std::uint64_t writtenGeneration_ GUARDED_BY(fileLock_) = 0;
  bool fileProtected_ = false;  // set while loading, before the writer starts
  std::optional<std::filesystem::path> setAsidePath_;
  std::atomic<std::size_t> writeCount_{0};

  std::thread flushThread_;
};

}  // namespace tamsel::kit
