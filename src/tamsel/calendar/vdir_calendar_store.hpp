#pragma once
// The desktop's own calendars, on disk in the vdir layout other Linux calendar tools read and
// sync: one folder per calendar under the root, one .ics file per event (a series master and
// its overrides in the same file), the calendar's name in `displayname` and colour in `color`.
// Our own markers: an empty `readonly` file makes a calendar read-only (a synced subscription),
// and `<root>/.default` names the folder new events go to (else the first writable calendar).
//
// Files are written through a temporary file and a rename; files we cannot read are skipped,
// never rewritten. Parsed files are cached and re-read when their time or size changes.
// Thread-safe.
#include <filesystem>
#include <map>
#include <memory>

#include "tamsel/base/mutex.hpp"
#include "tamsel/calendar/calendar_store.hpp"
#include "tamsel/calendar/ical_series.hpp"

namespace tamsel::calendar {

class VdirCalendarStore : public CalendarStore {
 public:
  static constexpr const char* idPrefix = "local:";

  explicit VdirCalendarStore(std::filesystem::path root);
  // $XDG_DATA_HOME/dev.tamsel.desktop/calendars
  // The calendars folder inside the app folder.
  static std::filesystem::path rootIn(const std::filesystem::path& appFolder);
  const std::filesystem::path& root() const { return root_; }

  // Creates (or renames) the calendar folder `name`; returns the calendar's id.
  // Throws CalendarException(invalidArgument) for a name that is no plain folder name.
  std::string addCalendar(const std::string& name, const std::string& displayName,
                          const std::string& colorHex, bool readOnly = false);
  void setDefaultCalendar(const std::string& calendarID);

  std::vector<StoreCalendar> calendars() override;
  std::optional<std::string> defaultCalendarID() override;
  std::vector<CalendarEvent> events(Timestamp start, Timestamp end,
                                    const std::vector<std::string>& calendarIDs) override;
  void collectEvents(Timestamp start, Timestamp end, const std::vector<std::string>& calendarIDs,
                     EventCollector& into) override;
  std::optional<CalendarEvent> event(const std::string& id) override;
  StoreWriteOutcome createEvent(const std::string& calendarID, const EventFields& fields) override;
  StoreWriteOutcome updateEvent(const std::string& id, const EventFields& fields,
                                SaveSpan span) override;
  bool removeEvent(const std::string& id, RemoveSpan span) override;
  std::string changeToken() override;

 private:
  struct Entry {
    std::filesystem::file_time_type mtime;
    std::uintmax_t size = 0;
    std::shared_ptr<ICalSeries> series;  // null: the file did not parse
    Timestamp first{};
    std::optional<Timestamp> lastEnd;
  };
  struct Folder {
    std::map<std::filesystem::path, Entry> files;
    std::map<std::string, std::filesystem::path> byUID;
  };

  std::filesystem::path folderOf(const std::string& calendarID) const;
  Folder& refresh(const std::filesystem::path& folder) REQUIRES(mutex_);
  void store(const std::filesystem::path& file, const ICalSeries& series);
  // The file holding `uid` in the calendar, or throws notFound.
  std::filesystem::path fileFor(const std::string& calendarID, const std::string& uid,
                                const std::string& id) REQUIRES(mutex_);
  std::vector<StoreCalendar> calendarsLocked() REQUIRES(mutex_);

  std::filesystem::path root_;
  base::Mutex mutex_;
  std::map<std::filesystem::path, Folder> folders_ GUARDED_BY(mutex_);
};

}  // namespace tamsel::calendar
