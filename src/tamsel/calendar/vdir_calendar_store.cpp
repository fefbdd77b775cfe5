#include "tamsel/calendar/vdir_calendar_store.hpp"

#include <fmt/format.h>

#include <algorithm>

#include "tamsel/base/atomic_file.hpp"
#include "tamsel/base/log.hpp"
#include "tamsel/base/uuid.hpp"
#include "tamsel/bridge/daemon_paths.hpp"
#include "tamsel/calendar/calendar_error.hpp"

namespace tamsel::calendar {

namespace fs = std::filesystem;

namespace {

constexpr const char* kSource = "calendar.vdir";

std::string readSmallFile(const fs::path& path) {
  std::string text;
  if (!base::readFile(path, text)) return {};
  while (!text.empty() && (text.back() == '\n' || text.back() == '\r' || text.back() == ' '))
    text.pop_back();
  return text;
}

bool isPlainName(const std::string& name) {
  return !name.empty() && name != "." && name != ".." && name[0] != '.' &&
         name.find('/') == std::string::npos && name.find('|') == std::string::npos &&
         name.size() < 200;
}

// The UID when it makes a safe file name, otherwise a fresh one; vdir readers go by the
// content, not the name.
std::string fileNameFor(const std::string& uid) {
  const bool safe = uid.size() < 200 && std::all_of(uid.begin(), uid.end(), [](unsigned char c) {
                      return std::isalnum(c) || c == '-' || c == '_' || c == '.' || c == '@';
                    });
  return (safe ? uid : base::newUUIDString()) + ".ics";
}

[[noreturn]] void internal(const std::string& what) {
  throw CalendarException(CalendarRPCError::internalError(what));
}

}  // namespace

VdirCalendarStore::VdirCalendarStore(fs::path root) : root_(std::move(root)) {}

fs::path VdirCalendarStore::rootIn(const fs::path& appFolder) { return appFolder / "calendars"; }

std::string VdirCalendarStore::addCalendar(const std::string& name, const std::string& displayName,
                                           const std::string& colorHex, bool readOnly) {
  if (!isPlainName(name))
    throw CalendarException(
        CalendarRPCError::invalidArgument("name", "expected a plain folder name"));
  base::MutexLock lock(mutex_);
  const fs::path folder = root_ / name;
  std::error_code ec;
  const bool isNew = !fs::exists(folder, ec);
  // Calendars are the user's own: owner-only like every folder of the desktop.
  for (const auto& dir : {root_, folder}) {
    fs::create_directories(dir, ec);
    if (!ec) fs::permissions(dir, fs::perms::owner_all, fs::perm_options::replace, ec);
    if (ec) internal("cannot create " + dir.string() + ": " + ec.message());
  }
  try {
    base::writeFileAtomically(folder / "displayname", displayName.empty() ? name : displayName,
                              0600);
    if (!colorHex.empty()) base::writeFileAtomically(folder / "color", colorHex, 0600);
    if (readOnly)
      base::writeFileAtomically(folder / "readonly", "", 0600);
    else
      fs::remove(folder / "readonly", ec);
  } catch (const std::exception& e) {
    // A half-made calendar would list as a calendar of its own: leave nothing behind.
    if (isNew) fs::remove_all(folder, ec);
    internal("cannot add the calendar " + name + ": " + e.what());
  }
  return idPrefix + name;
}

void VdirCalendarStore::setDefaultCalendar(const std::string& calendarID) {
  base::MutexLock lock(mutex_);
  const fs::path folder = folderOf(calendarID);
  std::error_code ec;
  if (folder.empty() || !fs::is_directory(folder, ec))
    throw CalendarException(CalendarRPCError::notFound(calendarID));
  base::writeFileAtomically(root_ / ".default", folder.filename().string(), 0600);
}

fs::path VdirCalendarStore::folderOf(const std::string& calendarID) const {
  if (!calendarID.starts_with(idPrefix)) return {};
  const std::string name = calendarID.substr(std::string_view(idPrefix).size());
  if (!isPlainName(name)) return {};
  return root_ / name;
}

std::vector<StoreCalendar> VdirCalendarStore::calendarsLocked() {
  std::vector<StoreCalendar> out;
  std::error_code ec;
  for (fs::directory_iterator it(root_, ec), end; !ec && it != end; it.increment(ec)) {
    std::error_code dirError;
    const std::string name = it->path().filename().string();
    if (!it->is_directory(dirError) || !isPlainName(name)) continue;
    StoreCalendar c;
    c.id = idPrefix + name;
    c.title = readSmallFile(it->path() / "displayname");
    if (c.title.empty()) c.title = name;
    c.colorHex = readSmallFile(it->path() / "color");
    if (c.colorHex.empty()) c.colorHex = "#3A87AD";
    c.writable = !fs::exists(it->path() / "readonly", dirError);
    c.kind = c.writable ? SourceKind::local : SourceKind::subscribed;
    c.sourceTitle = "On this computer";
    out.push_back(std::move(c));
  }
  std::sort(out.begin(), out.end(), [](const auto& a, const auto& b) { return a.id < b.id; });
  return out;
}

std::vector<StoreCalendar> VdirCalendarStore::calendars() {
  base::MutexLock lock(mutex_);
  return calendarsLocked();
}

std::optional<std::string> VdirCalendarStore::defaultCalendarID() {
  base::MutexLock lock(mutex_);
  const auto all = calendarsLocked();
  const std::string chosen = readSmallFile(root_ / ".default");
  for (const auto& c : all)
    if (c.writable && !chosen.empty() && c.id == idPrefix + chosen) return c.id;
  for (const auto& c : all)
    if (c.writable) return c.id;
  return std::nullopt;
}

VdirCalendarStore::Folder& VdirCalendarStore::refresh(const fs::path& folder) {
  const bool firstLook = !folders_.count(folder);
  auto& cache = folders_[folder];
  // Temporaries of event saves a killed process never finished: once per folder and process.
  if (firstLook) base::removeStaleTemporariesIn(folder);
  std::map<fs::path, Entry> fresh;
  std::error_code ec;
  for (fs::directory_iterator it(folder, ec), end; !ec && it != end; it.increment(ec)) {
    const auto& path = it->path();
    if (path.extension() != ".ics") continue;
    std::error_code statError;
    const auto mtime = fs::last_write_time(path, statError);
    const auto size = statError ? 0 : fs::file_size(path, statError);
    if (statError) continue;
    auto known = cache.files.find(path);
    if (known != cache.files.end() && known->second.mtime == mtime && known->second.size == size) {
      fresh.emplace(path, std::move(known->second));
      continue;
    }
    Entry entry{mtime, size, nullptr, {}, std::nullopt};
    std::string text;
    if (base::readFile(path, text)) {
      try {
        entry.series = std::make_shared<ICalSeries>(ICalSeries::parse(text));
        entry.first = entry.series->firstStart();
        entry.lastEnd = entry.series->lastEnd();
      } catch (const std::exception& e) {
        base::log::debug(kSource, "skipping {}: {}", path.string(), e.what());
      }
    }
    fresh.emplace(path, std::move(entry));
  }
  cache.files = std::move(fresh);
  cache.byUID.clear();
  for (const auto& [path, entry] : cache.files)
    if (entry.series) cache.byUID.emplace(entry.series->uid(), path);
  return cache;
}

std::vector<CalendarEvent> VdirCalendarStore::events(Timestamp start, Timestamp end,
                                                     const std::vector<std::string>& calendarIDs) {
  EventCollector all;
  collectEvents(start, end, calendarIDs, all);
  return all.take();
}

void VdirCalendarStore::collectEvents(Timestamp start, Timestamp end,
                                      const std::vector<std::string>& calendarIDs,
                                      EventCollector& into) {
  base::MutexLock lock(mutex_);
  for (const auto& calendar : calendarsLocked()) {
    if (!calendarIDs.empty() &&
        std::find(calendarIDs.begin(), calendarIDs.end(), calendar.id) == calendarIDs.end())
      continue;
    const auto& folder = refresh(folderOf(calendar.id));
    for (const auto& [path, entry] : folder.files) {
      if (!entry.series || entry.first >= end) continue;
      if (entry.lastEnd && *entry.lastEnd < start) continue;
      if (into.budgetSpent()) return;
      entry.series->expand(start, end, calendar.id, into);
    }
  }
}

std::optional<CalendarEvent> VdirCalendarStore::event(const std::string& id) {
  const auto parsed = EventID::parse(id);
  if (!parsed) return std::nullopt;
  base::MutexLock lock(mutex_);
  const fs::path folder = folderOf(parsed->calendarID);
  std::error_code ec;
  if (folder.empty() || !fs::is_directory(folder, ec)) return std::nullopt;
  const auto& cache = refresh(folder);
  const auto it = cache.byUID.find(parsed->uid);
  if (it == cache.byUID.end()) return std::nullopt;
  return cache.files.at(it->second).series->occurrence(parsed->occurrence, parsed->calendarID);
}

void VdirCalendarStore::store(const fs::path& file, const ICalSeries& series) {
  try {
    base::writeFileAtomically(file, series.serialize(), 0600);
  } catch (const std::exception& e) {
    internal("cannot write " + file.string() + ": " + e.what());
  }
}

fs::path VdirCalendarStore::fileFor(const std::string& calendarID, const std::string& uid,
                                    const std::string& id) {
  const fs::path folder = folderOf(calendarID);
  std::error_code ec;
  if (folder.empty() || !fs::is_directory(folder, ec))
    throw CalendarException(CalendarRPCError::notFound(id));
  const auto& cache = refresh(folder);
  const auto it = cache.byUID.find(uid);
  if (it == cache.byUID.end()) throw CalendarException(CalendarRPCError::notFound(id));
  return it->second;
}

StoreWriteOutcome VdirCalendarStore::createEvent(const std::string& calendarID,
                                                 const EventFields& fields) {
  base::MutexLock lock(mutex_);
  const fs::path folder = folderOf(calendarID);
  std::error_code ec;
  if (folder.empty() || !fs::is_directory(folder, ec))
    throw CalendarException(CalendarRPCError::notFound(calendarID));
  const std::string uid = base::newUUIDString();
  const auto series = ICalSeries::create(uid, fields);
  store(folder / fileNameFor(uid), series);
  return {EventID{calendarID, uid, std::nullopt}.text(), false};
}

StoreWriteOutcome VdirCalendarStore::updateEvent(const std::string& id, const EventFields& fields,
                                                 SaveSpan span) {
  const auto parsed = EventID::parse(id);
  if (!parsed) throw CalendarException(CalendarRPCError::notFound(id));
  base::MutexLock lock(mutex_);
  const fs::path file = fileFor(parsed->calendarID, parsed->uid, id);
  // Edit what is on disk now, not the cached copy, so a change made meanwhile is kept.
  std::string text;
  if (!base::readFile(file, text)) throw CalendarException(CalendarRPCError::notFound(id));
  auto series = ICalSeries::parse(text);
  const std::string newUID = base::newUUIDString();
  auto outcome = series.update(parsed->occurrence, fields, span, newUID);
  // The new part of a split series first: a crash in between leaves a duplicate, never a loss.
  if (outcome.split) store(file.parent_path() / fileNameFor(newUID), *outcome.split);
  store(file, series);
  return {EventID{parsed->calendarID, outcome.uid, outcome.occurrence}.text(), false};
}

bool VdirCalendarStore::removeEvent(const std::string& id, RemoveSpan span) {
  const auto parsed = EventID::parse(id);
  if (!parsed) throw CalendarException(CalendarRPCError::notFound(id));
  base::MutexLock lock(mutex_);
  const fs::path file = fileFor(parsed->calendarID, parsed->uid, id);
  std::string text;
  if (!base::readFile(file, text)) throw CalendarException(CalendarRPCError::notFound(id));
  auto series = ICalSeries::parse(text);
  if (series.remove(parsed->occurrence, span)) {
    std::error_code ec;
    fs::remove(file, ec);
    if (ec) internal(file.string() + ": " + ec.message());
  } else {
    store(file, series);
  }
  return false;
}

std::string VdirCalendarStore::changeToken() {
  base::MutexLock lock(mutex_);
  std::uint64_t hash = 1469598103934665603ull;
  const auto mix = [&](std::uint64_t value) { hash = (hash ^ value) * 1099511628211ull; };
  std::error_code ec;
  for (fs::recursive_directory_iterator it(root_, ec), end; !ec && it != end; it.increment(ec)) {
    std::error_code statError;
    const auto mtime = fs::last_write_time(it->path(), statError);
    if (statError) continue;
    mix(std::hash<std::string>{}(it->path().string()));
    mix(static_cast<std::uint64_t>(mtime.time_since_epoch().count()));
    if (it->is_regular_file(statError)) mix(it->file_size(statError));
  }
  return fmt::format("{:016x}", hash);
}

}  // namespace tamsel::calendar
