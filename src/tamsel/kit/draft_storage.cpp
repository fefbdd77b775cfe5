#include "tamsel/kit/draft_storage.hpp"

#include <pthread.h>

#include <algorithm>
#include <boost/json.hpp>
#include <system_error>

#include "tamsel/base/atomic_file.hpp"
#include "tamsel/base/dates.hpp"
#include "tamsel/base/json.hpp"
#include "tamsel/base/log.hpp"
#include "tamsel/kit/composer_draft_key.hpp"

namespace tamsel::kit {

namespace fs = std::filesystem;
namespace bj = boost::json;
using SteadyClock = std::chrono::steady_clock;

namespace {

constexpr std::string_view kSource = "DraftStorage";
constexpr std::string_view kReplacement = "\xEF\xBF\xBD";  // U+FFFD

// The UTF-8 sequence at text[i]: its length and whether it is well formed. A broken one spans
// its longest valid beginning (at least one byte), so it becomes one replacement character.
struct Sequence {
  std::size_t length;
  bool valid;
};

Sequence sequenceAt(std::string_view text, std::size_t i) {
  const auto byte = [&](std::size_t k) { return static_cast<unsigned char>(text[k]); };
  const unsigned char lead = byte(i);
  if (lead < 0x80) return {1, true};
  std::size_t needed = 0;
  unsigned char low = 0x80, high = 0xBF;  // range of the first continuation byte
  if (lead >= 0xC2 && lead <= 0xDF) {
    needed = 1;
  } else if (lead >= 0xE0 && lead <= 0xEF) {
    needed = 2;
    // No overlong forms (E0 80..9F) and no surrogates (ED A0..BF).
    if (lead == 0xE0) low = 0xA0;
    if (lead == 0xED) high = 0x9F;
  } else if (lead >= 0xF0 && lead <= 0xF4) {
    needed = 3;
    if (lead == 0xF0) low = 0x90;
    if (lead == 0xF4) high = 0x8F;
  } else {
    return {1, false};
  }
  for (std::size_t k = 1; k <= needed; ++k) {
    const bool fits = i + k < text.size() && byte(i + k) >= (k == 1 ? low : 0x80) &&
                      byte(i + k) <= (k == 1 ? high : 0xBF);
    if (!fits) return {k, false};
  }
  return {needed + 1, true};
}

struct LimitedText {
  std::string text;
  std::size_t originalCharacters = 0;
  bool truncated = false;
};

LimitedText limitText(std::string_view text, std::size_t maxCharacters) {
  LimitedText out;
  out.text.reserve(text.size());
  for (std::size_t i = 0; i < text.size();) {
    const Sequence sequence = sequenceAt(text, i);
    if (out.originalCharacters < maxCharacters) {
      if (sequence.valid)
        out.text.append(text.substr(i, sequence.length));
      else
        out.text.append(kReplacement);
    } else {
      out.truncated = true;
    }
    ++out.originalCharacters;
    i += sequence.length;
  }
  return out;
}

std::string encodeFile(const std::vector<std::pair<std::string, std::string>>& ordered) {
  bj::array entries;
  entries.reserve(ordered.size());
  for (const auto& [key, text] : ordered) {
    entries.push_back(bj::object{{"key", key}, {"text", text}});
  }
  bj::object root{{"version", DraftStorage::fileVersion}, {"entries", std::move(entries)}};
  return base::json::serialize(root);
}

// The entries of a drafts file in file order; throws base::json::DecodeError naming what is wrong.
std::vector<std::pair<std::string, std::string>> decodeFile(std::string_view contents) {
  using base::json::DecodeError;
  const bj::value root = base::json::parse(contents);
  const auto* object = root.if_object();
  if (!object) throw DecodeError("not a JSON object");
  const auto* version = object->if_contains("version");
  if (!version || !version->is_int64()) throw DecodeError("no version");
  if (version->get_int64() != DraftStorage::fileVersion) {
    throw DecodeError("unsupported version " + std::to_string(version->get_int64()));
  }
  const auto* entries = object->if_contains("entries");
  if (!entries || !entries->is_array()) throw DecodeError("no entries array");
  std::vector<std::pair<std::string, std::string>> out;
  for (std::size_t i = 0; i < entries->get_array().size(); ++i) {
    const auto& entry = entries->get_array()[i];
    const auto* key = entry.is_object() ? entry.get_object().if_contains("key") : nullptr;
    const auto* text = entry.is_object() ? entry.get_object().if_contains("text") : nullptr;
    if (!key || !key->is_string() || !text || !text->is_string()) {
      throw DecodeError("entry " + std::to_string(i) + " is not {key, text}");
    }
    out.emplace_back(std::string(key->get_string()), std::string(text->get_string()));
  }
  return out;
}

}  // namespace

std::string DraftStorage::truncatedToCharacters(std::string_view text, std::size_t maxCharacters) {
  return limitText(text, maxCharacters).text;
}

DraftStorage::Configuration DraftStorage::defaultsIn(const fs::path& appFolder) {
  Configuration config;
  config.file = appFolder / "drafts.json";
  return config;
}

DraftStorage::DraftStorage(Configuration configuration) : config_(std::move(configuration)) {
  load();
  flushThread_ = std::thread([this] { writerLoop(); });
  ::pthread_setname_np(flushThread_.native_handle(), "DraftStorage");
}

DraftStorage::~DraftStorage() {
  {
    base::MutexLock lock(stateLock_);
    stopping_ = true;
  }
  flushWake_.notifyAll();
  flushThread_.join();
  flushNow();
}

SteadyClock::time_point DraftStorage::now() const {
  return config_.clock ? config_.clock() : SteadyClock::now();
}

void DraftStorage::load() {
  const fs::path& path = config_.file;
  // Saves a killed process never finished leave their temporaries: not ours to keep.
  base::removeStaleTemporaries(path);
  std::error_code ec;
  if (!fs::exists(path, ec)) {
    if (ec) {
      // Cannot tell whether drafts are there: keep whatever is there untouched.
      fileProtected_ = true;
      base::log::error(kSource, "Cannot look at {}: {}; drafts will not be saved", path.string(),
                       ec.message());
    }
    return;
  }
  std::string contents;
  if (!base::readFile(path, contents)) {
    fileProtected_ = true;
    base::log::error(kSource, "Cannot read {}; drafts will not be saved over it", path.string());
    return;
  }
  std::vector<std::pair<std::string, std::string>> loaded;
  try {
    loaded = decodeFile(contents);
  } catch (const std::exception& e) {
    moveAside(e.what());
    return;
  }
  base::MutexLock lock(stateLock_);
  for (auto& [key, text] : loaded) storeLocked(key, std::move(text));
  base::log::debug(kSource, "Loaded {} drafts from {}", entries_.size(), path.string());
}

void DraftStorage::moveAside(const std::string& reason) {
  const fs::path& path = config_.file;
  const auto target = base::moveAside(path);
  if (!target) {
    fileProtected_ = true;
    base::log::error(kSource,
                     "{} does not decode ({}) and cannot be moved aside; drafts will not be saved",
                     path.string(), reason);
    return;
  }
  setAsidePath_ = *target;
  base::log::warn(kSource, "{} does not decode ({}); moved to {}, starting with no drafts",
                  path.string(), reason, target->string());
}

void DraftStorage::storeLocked(const std::string& key, std::string text) {
  if (key.empty()) return;
  if (text.empty()) {
    entries_.erase(key);
    std::erase(lruOrder_, key);
    return;
  }
  auto limited = limitText(text, config_.maxLengthPerEntry);
  if (limited.truncated) {
    base::log::warn(kSource, "Draft for {} cut from {} to {} characters", key,
                    limited.originalCharacters, config_.maxLengthPerEntry);
  }
  if (limited.text.empty()) {  // a bound of 0 keeps no text
    entries_.erase(key);
    std::erase(lruOrder_, key);
    return;
  }
  entries_.insert_or_assign(key, std::move(limited.text));
  std::erase(lruOrder_, key);
  lruOrder_.push_back(key);
  while (entries_.size() > config_.maxEntries && !lruOrder_.empty()) {
    // A pending session's draft outlives its session only when the engine never named it: such
    // orphans go before any draft the user can still open.
    auto victim = std::find_if(lruOrder_.begin(), lruOrder_.end() - 1, [](const std::string& k) {
      return ComposerDraftKey::pendingLocalID(k).has_value();
    });
    if (victim == lruOrder_.end() - 1) victim = lruOrder_.begin();
    entries_.erase(*victim);
    lruOrder_.erase(victim);
  }
}

void DraftStorage::scheduleFlushLocked() {
  pendingFlushItem_ = PendingFlush{++flushGeneration_, now() + config_.debounce};
  flushWake_.notifyAll();
}

std::optional<std::string> DraftStorage::draft(const std::string& key) const {
  base::MutexLock lock(stateLock_);
  auto it = entries_.find(key);
  if (it == entries_.end()) return std::nullopt;
  return it->second;
}

void DraftStorage::set(std::string text, const std::string& key) {
  if (key.empty()) return;
  base::MutexLock lock(stateLock_);
  auto it = entries_.find(key);
  if (text.empty()) {
    if (it == entries_.end()) return;
  } else if (it != entries_.end() && it->second == text && !lruOrder_.empty() &&
             lruOrder_.back() == key) {
    return;  // the composer re-saving what is already the newest draft changes nothing
  }
  storeLocked(key, std::move(text));
  scheduleFlushLocked();
}

void DraftStorage::rekey(const std::string& from, const std::string& to) {
  if (from.empty() || to.empty() || from == to) return;
  base::MutexLock lock(stateLock_);
  auto it = entries_.find(from);
  if (it == entries_.end()) return;
  std::string text = std::move(it->second);
  entries_.erase(it);
  std::erase(lruOrder_, to);
  std::replace(lruOrder_.begin(), lruOrder_.end(), from, to);
  entries_.insert_or_assign(to, std::move(text));
  scheduleFlushLocked();
}

std::vector<std::string> DraftStorage::keys() const {
  base::MutexLock lock(stateLock_);
  return lruOrder_;
}

void DraftStorage::flushNow() {
  {
    base::MutexLock lock(stateLock_);
    pendingFlushItem_.reset();
  }
  writeSnapshot(std::nullopt);
}

void DraftStorage::writerLoop() {
  base::MutexLock lock(stateLock_);
  while (!stopping_) {
    if (!pendingFlushItem_) {
      flushWake_.wait(stateLock_);
      continue;
    }
    const auto current = now();
    if (current < pendingFlushItem_->due) {
      // An injected clock need not follow real time: look at it again at least once per debounce.
      const SteadyClock::duration recheck =
          std::max<SteadyClock::duration>(config_.debounce, std::chrono::milliseconds(1));
      flushWake_.waitFor(
          stateLock_, std::min<SteadyClock::duration>(pendingFlushItem_->due - current, recheck));
      continue;
    }
    const std::uint64_t generation = pendingFlushItem_->generation;
    pendingFlushItem_.reset();
    lock.unlock();
    writeSnapshot(generation);
    lock.lock();
  }
}

void DraftStorage::writeSnapshot(std::optional<std::uint64_t> scheduledGeneration) {
  base::MutexLock fileGuard(fileLock_);
  std::vector<std::pair<std::string, std::string>> ordered;
  std::uint64_t generation = 0;
  {
    base::MutexLock stateGuard(stateLock_);
    if (scheduledGeneration && *scheduledGeneration != flushGeneration_)
      return;  // a newer flush is due
    generation = flushGeneration_;
    if (generation == writtenGeneration_) return;
    ordered.reserve(lruOrder_.size());
    for (const auto& key : lruOrder_) ordered.emplace_back(key, entries_.at(key));
  }
  if (fileProtected_) {
    base::log::warn(kSource, "Not saving drafts over {}, which could not be read or moved aside",
                    config_.file.string());
    writtenGeneration_ = generation;
    return;
  }
  try {
    const std::string contents = encodeFile(ordered);
    if (config_.file.has_parent_path()) fs::create_directories(config_.file.parent_path());
    base::writeFileAtomically(config_.file, contents, 0600);
    writtenGeneration_ = generation;
    ++writeCount_;
  } catch (const std::exception& e) {
    // The drafts stay in memory; the next change or flush tries again.
    base::log::error(kSource, "Cannot save drafts to {}: {}", config_.file.string(), e.what());
  }
}

}  // namespace tamsel::kit
