#pragma once
// One CalDAV account as a calendar store: its calendars found from the base URL (the user's
// principal, then the calendar home, then the collections in it), events read with time-range
// queries and expanded here, writes as whole iCalendar objects guarded by ETags.
//
// Writes edit the object as this store last read it and send If-Match with that ETag, so an
// edit made elsewhere in between is reported as a conflict and never overwritten. A write that
// cannot reach the server fails with an error; nothing is queued, so a write that returns has
// reached the server and pending_remote_sync is always false.
//
// Calendar ids are "caldav:<account id>/<collection name>". Thread-safe.
#include <chrono>
#include <filesystem>
#include <map>
#include <memory>

#include "tamsel/base/mutex.hpp"
#include "tamsel/calendar/calendar_store.hpp"

namespace tamsel::calendar {

class DAVClient;

struct CalDAVAccount {
  std::string id;  // stable, no '/' or '|': "<user>@<host>[:port]"
  std::string url;
  std::string user;      // empty: no authentication
  std::string password;  // kept only in the owner-only accounts file
};

// The accounts file: $XDG_DATA_HOME/dev.tamsel.desktop/caldav-accounts.json, mode 0600.
std::filesystem::path calDAVAccountsFileIn(const std::filesystem::path& appFolder);
// Missing file: no accounts. Throws CalendarException(internalError) for a file that cannot
// be read or parsed (it is then left as it is).
std::vector<CalDAVAccount> loadCalDAVAccounts(const std::filesystem::path& file);
// Adds the account, or replaces the one with the same URL and user (a new password); gives it
// its id. Returns the account as saved. The file is written atomically with mode 0600.
CalDAVAccount saveCalDAVAccount(const std::filesystem::path& file, CalDAVAccount account);

class CalDAVCalendarStore : public CalendarStore {
 public:
  explicit CalDAVCalendarStore(CalDAVAccount account,
                               std::chrono::milliseconds timeout = std::chrono::seconds(30));
  ~CalDAVCalendarStore() override;

  const CalDAVAccount& account() const { return account_; }
  // "caldav:<account id>/": every calendar id of this store starts with it.
  std::string idPrefix() const;

  std::vector<StoreCalendar> calendars() override;
  // The first writable calendar; the desktop's default stays local unless none is writable.
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
  // The calendars' ctags / sync tokens; throws when the server cannot be reached.
  std::string changeToken() override;

 private:
  struct Collection {
    std::string url;  // absolute
    StoreCalendar calendar;
    std::string tag;  // getctag or sync-token
  };
  // An object as last read: what a write edits and the ETag it sends.
  struct StoredObject {
    std::string url;
    std::string etag;
    std::string text;
  };

  void discoverHomeLocked() REQUIRES(mutex_);
  std::map<std::string, Collection> listCollectionsLocked() REQUIRES(mutex_);
  const Collection& collectionLocked(const std::string& calendarID, const std::string& idForErrors)
      REQUIRES(mutex_);
  std::optional<StoredObject> findByUIDLocked(const Collection& collection, const std::string& uid)
      REQUIRES(mutex_);
  StoredObject& objectForWriteLocked(const std::string& calendarID, const std::string& uid,
                                     const std::string& id) REQUIRES(mutex_);
  // PUT guarded by If-Match (etag) or If-None-Match: * (no etag); returns the new ETag, or an
  // empty one when the server sent none. Throws the conflict / read-only / server errors.
  std::string putLocked(const Collection& collection, const std::string& url,
                        const std::string& text, const std::string& etag, const std::string& id)
      REQUIRES(mutex_);
  void deleteLocked(const Collection& collection, const std::string& url, const std::string& etag,
                    const std::string& id) REQUIRES(mutex_);

  CalDAVAccount account_;
  std::unique_ptr<DAVClient> client_ PT_GUARDED_BY(mutex_);
  base::Mutex mutex_;
  std::string homeURL_ GUARDED_BY(mutex_);
  std::map<std::string, Collection> collections_ GUARDED_BY(mutex_);  // by calendar id
  std::map<std::string, StoredObject> objects_ GUARDED_BY(mutex_);    // by "<calendar id>|<uid>"
};

}  // namespace tamsel::calendar
