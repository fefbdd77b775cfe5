#include "tamsel/calendar/caldav_calendar_store.hpp"

#include <fmt/format.h>
#include <libxml/parser.h>
#include <libxml/tree.h>

#include <algorithm>
#include <boost/json.hpp>
#include <cstring>
#include <set>

#include "tamsel/base/atomic_file.hpp"
#include "tamsel/base/log.hpp"
#include "tamsel/base/uuid.hpp"
#include "tamsel/bridge/daemon_paths.hpp"
#include "tamsel/calendar/caldav_http.hpp"
#include "tamsel/calendar/calendar_error.hpp"
#include "tamsel/calendar/ical_series.hpp"

namespace tamsel::calendar {

namespace fs = std::filesystem;
namespace json = boost::json;

namespace {

constexpr const char* kSource = "calendar.caldav";
constexpr const char* kDAV = "DAV:";
constexpr const char* kCalDAV = "urn:ietf:params:xml:ns:caldav";
constexpr const char* kCalendarServer = "http://calendarserver.org/ns/";
constexpr const char* kICal = "http://apple.com/ns/ical/";
constexpr const char* kICalendarType = "text/calendar; charset=utf-8";
constexpr const char* kXMLType = "application/xml; charset=utf-8";

[[noreturn]] void internal(const std::string& what) {
  throw CalendarException(CalendarRPCError::internalError(what));
}

// ------------------------------------------------------------------ multistatus

struct DocFree {
  void operator()(xmlDoc* doc) const { xmlFreeDoc(doc); }
};

bool is(const xmlNode* node, const char* ns, const char* name) {
  return node && node->type == XML_ELEMENT_NODE && node->ns && node->ns->href &&
         std::strcmp(reinterpret_cast<const char*>(node->ns->href), ns) == 0 &&
         std::strcmp(reinterpret_cast<const char*>(node->name), name) == 0;
}

const xmlNode* child(const xmlNode* node, const char* ns, const char* name) {
  if (!node) return nullptr;
  for (const xmlNode* c = node->children; c; c = c->next)
    if (is(c, ns, name)) return c;
  return nullptr;
}

std::string text(const xmlNode* node) {
  if (!node) return {};
  xmlChar* content = xmlNodeGetContent(node);
  std::string out = content ? reinterpret_cast<const char*>(content) : "";
  xmlFree(content);
  const auto first = out.find_first_not_of(" \t\r\n");
  if (first == std::string::npos) return {};
  return out.substr(first, out.find_last_not_of(" \t\r\n") - first + 1);
}

// A 207 body: per response its href and the properties the server found (200 propstats).
class Multistatus {
 public:
  struct Response {
    std::string href;
    std::vector<const xmlNode*> props;  // the <prop> elements of 200 propstats
    const xmlNode* find(const char* ns, const char* name) const {
      for (const auto* prop : props)
        if (const auto* found = child(prop, ns, name)) return found;
      return nullptr;
    }
  };

  explicit Multistatus(const std::string& body) {
    // No network and no entity expansion: the body comes from a server we do not control.
    doc_.reset(xmlReadMemory(body.data(), static_cast<int>(body.size()), "multistatus.xml", nullptr,
                             XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING));
    const xmlNode* root = doc_ ? xmlDocGetRootElement(doc_.get()) : nullptr;
    if (!is(root, kDAV, "multistatus"))
      throw DAVTransportError("the server's answer is not a DAV multistatus");
    for (const xmlNode* r = root->children; r; r = r->next) {
      if (!is(r, kDAV, "response")) continue;
      Response response{text(child(r, kDAV, "href")), {}};
      for (const xmlNode* ps = r->children; ps; ps = ps->next) {
        if (!is(ps, kDAV, "propstat")) continue;
        const std::string status = text(child(ps, kDAV, "status"));
        if (status.find(" 200") == std::string::npos) continue;
        if (const auto* prop = child(ps, kDAV, "prop")) response.props.push_back(prop);
      }
      responses.push_back(std::move(response));
    }
  }

  std::vector<Response> responses;

 private:
  std::unique_ptr<xmlDoc, DocFree> doc_;
};

std::string escapeXML(std::string_view in) {
  std::string out;
  for (const char c : in) {
    switch (c) {
      case '&':
        out += "&amp;";
        break;
      case '<':
        out += "&lt;";
        break;
      case '>':
        out += "&gt;";
        break;
      case '"':
        out += "&quot;";
        break;
      default:
        out += c;
    }
  }
  return out;
}

std::string utcStamp(Timestamp t) {
  const auto days = std::chrono::floor<std::chrono::days>(t);
  const std::chrono::year_month_day ymd(days);
  const std::chrono::hh_mm_ss hms(t - days);
  return fmt::format("{:04}{:02}{:02}T{:02}{:02}{:02}Z", static_cast<int>(ymd.year()),
                     static_cast<unsigned>(ymd.month()), static_cast<unsigned>(ymd.day()),
                     hms.hours().count(), hms.minutes().count(), hms.seconds().count());
}

std::string lastSegment(const std::string& url) {
  std::string path = DAVClient::pathOf(url);
  while (path.size() > 1 && path.back() == '/') path.pop_back();
  std::string name = path.substr(path.rfind('/') + 1);
  // '|' separates the parts of event ids.
  for (std::size_t at; (at = name.find('|')) != std::string::npos;) name.replace(at, 1, "%7C");
  return name;
}

std::string objectKey(const std::string& calendarID, const std::string& uid) {
  return calendarID + "|" + uid;
}

const char* const kCollectionProps =
    R"(<?xml version="1.0" encoding="utf-8"?>)"
    R"(<d:propfind xmlns:d="DAV:" xmlns:c="urn:ietf:params:xml:ns:caldav" xmlns:cs="http://calendarserver.org/ns/" )"
    R"(xmlns:ic="http://apple.com/ns/ical/"><d:prop><d:resourcetype/><d:displayname/><ic:calendar-color/>)"
    R"(<c:supported-calendar-component-set/><d:current-user-privilege-set/><cs:getctag/><d:sync-token/>)"
    R"(</d:prop></d:propfind>)";

std::string calendarQuery(const std::string& filter) {
  return R"(<?xml version="1.0" encoding="utf-8"?>)"
         R"(<c:calendar-query xmlns:d="DAV:" xmlns:c="urn:ietf:params:xml:ns:caldav">)"
         R"(<d:prop><d:getetag/><c:calendar-data/></d:prop><c:filter><c:comp-filter name="VCALENDAR">)"
         R"(<c:comp-filter name="VEVENT">)" +
         filter + "</c:comp-filter></c:comp-filter></c:filter></c:calendar-query>";
}

bool isSuccess(int status) { return status >= 200 && status < 300; }

}  // namespace

// ------------------------------------------------------------------ accounts file

fs::path calDAVAccountsFileIn(const fs::path& appFolder) {
  return appFolder / "caldav-accounts.json";
}

std::vector<CalDAVAccount> loadCalDAVAccounts(const fs::path& file) {
  std::error_code ec;
  if (!fs::exists(file, ec)) return {};
  std::string textOnDisk;
  if (!base::readFile(file, textOnDisk)) internal("cannot read " + file.string());
  std::vector<CalDAVAccount> out;
  try {
    const auto doc = json::parse(textOnDisk);
    for (const auto& item : doc.at("accounts").as_array()) {
      const auto& o = item.as_object();
      const auto str = [&](const char* key) {
        const auto* v = o.if_contains(key);
        return v && v->is_string() ? std::string(v->as_string()) : std::string();
      };
      CalDAVAccount account{str("id"), str("url"), str("user"), str("password")};
      if (account.id.empty() || account.url.empty())
        throw std::runtime_error("an account without id or url");
      out.push_back(std::move(account));
    }
  } catch (const std::exception& e) {
    internal(file.string() + " is not a valid accounts file (" + e.what() + "); fix or remove it");
  }
  return out;
}

CalDAVAccount saveCalDAVAccount(const fs::path& file, CalDAVAccount account) {
  auto accounts = loadCalDAVAccounts(file);
  auto same = std::find_if(accounts.begin(), accounts.end(), [&](const auto& a) {
    return a.url == account.url && a.user == account.user;
  });
  if (same != accounts.end()) {
    account.id = same->id;
    *same = account;
  } else {
    std::string host = DAVClient(account.url, "", "").authority();
    std::string id = (account.user.empty() ? "" : account.user + "@") + host;
    for (auto& c : id)
      if (!std::isalnum(static_cast<unsigned char>(c)) && c != '.' && c != '-' && c != '_' &&
          c != '@' && c != ':')
        c = '_';
    account.id = id;
    for (int n = 2; std::any_of(accounts.begin(), accounts.end(),
                                [&](const auto& a) { return a.id == account.id; });
         ++n)
      account.id = fmt::format("{}-{}", id, n);
    accounts.push_back(account);
  }
  json::array items;
  for (const auto& a : accounts)
    items.push_back(
        json::object{{"id", a.id}, {"url", a.url}, {"user", a.user}, {"password", a.password}});
  std::error_code ec;
  fs::create_directories(file.parent_path(), ec);
  try {
    base::writeFileAtomically(
        file, json::serialize(json::object{{"accounts", std::move(items)}}) + "\n", 0600);
  } catch (const std::exception& e) {
    internal("cannot write " + file.string() + ": " + e.what());
  }
  return account;
}

// ------------------------------------------------------------------ the store

CalDAVCalendarStore::CalDAVCalendarStore(CalDAVAccount account, std::chrono::milliseconds timeout)
    : account_(std::move(account)) {
  try {
    client_ = std::make_unique<DAVClient>(account_.url, account_.user, account_.password, timeout);
  } catch (const std::invalid_argument& e) {
    throw CalendarException(CalendarRPCError::invalidArgument("url", e.what()));
  }
}

CalDAVCalendarStore::~CalDAVCalendarStore() = default;

std::string CalDAVCalendarStore::idPrefix() const { return "caldav:" + account_.id + "/"; }

void CalDAVCalendarStore::discoverHomeLocked() {
  if (!homeURL_.empty()) return;
  const std::string body =
      R"(<?xml version="1.0" encoding="utf-8"?><d:propfind xmlns:d="DAV:" xmlns:c="urn:ietf:params:xml:ns:caldav">)"
      R"(<d:prop><d:current-user-principal/><c:calendar-home-set/></d:prop></d:propfind>)";
  // One PROPFIND, following the redirects servers use for their well-known entry point.
  const auto propfind = [&](std::string url)
                            REQUIRES(mutex_) -> std::pair<std::string, std::optional<Multistatus>> {
    for (int hop = 0; hop < 5; ++hop) {
      const auto res = client_->request("PROPFIND", url, {{"Depth", "0"}}, body, kXMLType);
      if (res.status == 401 || res.status == 403)
        internal("the CalDAV server at " + client_->authority() +
                 " refused the credentials (HTTP " + std::to_string(res.status) + ")");
      if (res.status >= 300 && res.status < 400 && !res.location.empty()) {
        url = client_->resolve(res.location, url);
        continue;
      }
      if (res.status != 207) return {url, std::nullopt};
      return {url, Multistatus(res.body)};
    }
    internal("too many redirects from " + client_->authority());
  };
  const auto hrefIn = [](const Multistatus& ms, const char* ns, const char* name) -> std::string {
    for (const auto& r : ms.responses)
      if (const auto* prop = r.find(ns, name)) return text(child(prop, kDAV, "href"));
    return {};
  };

  auto [url, answer] = propfind(client_->baseURL());
  if (!answer || (hrefIn(*answer, kDAV, "current-user-principal").empty() &&
                  hrefIn(*answer, kCalDAV, "calendar-home-set").empty())) {
    auto [wellKnownURL, wellKnown] = propfind(client_->resolve("/.well-known/caldav"));
    if (wellKnown) {
      url = wellKnownURL;
      answer = std::move(wellKnown);
    }
  }
  if (!answer) internal("no CalDAV service at " + client_->baseURL());
  std::string home = hrefIn(*answer, kCalDAV, "calendar-home-set");
  if (home.empty()) {
    const std::string principal = hrefIn(*answer, kDAV, "current-user-principal");
    if (!principal.empty()) {
      const std::string principalURL = client_->resolve(principal, url);
      auto [at, principalAnswer] = propfind(principalURL);
      if (principalAnswer)
        home = client_->resolve(hrefIn(*principalAnswer, kCalDAV, "calendar-home-set"), at);
    }
  } else {
    home = client_->resolve(home, url);
  }
  // A URL that already names the calendar home (or a server without principals) is the home.
  homeURL_ = home.empty() ? url : home;
  base::log::debug(kSource, "account {}: calendar home {}", account_.id,
                   DAVClient::pathOf(homeURL_));
}

std::map<std::string, CalDAVCalendarStore::Collection>
CalDAVCalendarStore::listCollectionsLocked() {
  discoverHomeLocked();
  const auto res =
      client_->request("PROPFIND", homeURL_, {{"Depth", "1"}}, kCollectionProps, kXMLType);
  if (res.status != 207)
    internal("the CalDAV server at " + client_->authority() + " answered HTTP " +
             std::to_string(res.status) + " when listing calendars");
  std::map<std::string, Collection> out;
  for (const auto& r : Multistatus(res.body).responses) {
    const auto* type = r.find(kDAV, "resourcetype");
    if (!type || !child(type, kCalDAV, "calendar")) continue;
    // Task lists and journals live in calendar collections too; only events matter here.
    if (const auto* comps = r.find(kCalDAV, "supported-calendar-component-set")) {
      bool events = false;
      for (const xmlNode* c = comps->children; c; c = c->next) {
        if (!is(c, kCalDAV, "comp")) continue;
        xmlChar* name = xmlGetProp(c, reinterpret_cast<const xmlChar*>("name"));
        events =
            events || (name && std::strcmp(reinterpret_cast<const char*>(name), "VEVENT") == 0);
        xmlFree(name);
      }
      if (!events) continue;
    }
    Collection collection;
    collection.url = client_->resolve(r.href, homeURL_);
    const std::string name = lastSegment(collection.url);
    if (name.empty()) continue;
    auto& c = collection.calendar;
    c.id = idPrefix() + name;
    c.title = text(r.find(kDAV, "displayname"));
    if (c.title.empty()) c.title = name;
    c.colorHex = text(r.find(kICal, "calendar-color"));
    // Servers often add an alpha channel (#RRGGBBAA).
    if (c.colorHex.size() == 9 && c.colorHex[0] == '#') c.colorHex.resize(7);
    if (c.colorHex.size() != 7 || c.colorHex[0] != '#') c.colorHex = "#3A87AD";
    c.kind = SourceKind::calDAV;
    // The host decides the account type where it names a known service.
    c.sourceTitle = client_->authority();
    if (const auto* privileges = r.find(kDAV, "current-user-privilege-set")) {
      bool write = false;
      for (const xmlNode* p = privileges->children; p; p = p->next) {
        if (!is(p, kDAV, "privilege")) continue;
        write = write || child(p, kDAV, "write") || child(p, kDAV, "write-content") ||
                child(p, kDAV, "all");
      }
      c.writable = write;
    }
    collection.tag = text(r.find(kCalendarServer, "getctag"));
    if (collection.tag.empty()) collection.tag = text(r.find(kDAV, "sync-token"));
    out.emplace(c.id, std::move(collection));
  }
  return out;
}

std::vector<StoreCalendar> CalDAVCalendarStore::calendars() {
  base::MutexLock lock(mutex_);
  try {
    collections_ = listCollectionsLocked();
  } catch (const DAVTransportError& e) {
    internal(e.what());
  }
  std::vector<StoreCalendar> out;
  for (const auto& [id, c] : collections_) out.push_back(c.calendar);
  return out;
}

std::optional<std::string> CalDAVCalendarStore::defaultCalendarID() {
  for (const auto& c : calendars())
    if (c.writable) return c.id;
  return std::nullopt;
}

const CalDAVCalendarStore::Collection& CalDAVCalendarStore::collectionLocked(
    const std::string& calendarID, const std::string& idForErrors) {
  if (!calendarID.starts_with(idPrefix()))
    throw CalendarException(CalendarRPCError::notFound(idForErrors));
  auto it = collections_.find(calendarID);
  if (it == collections_.end()) {
    collections_ = listCollectionsLocked();
    it = collections_.find(calendarID);
  }
  if (it == collections_.end()) throw CalendarException(CalendarRPCError::notFound(idForErrors));
  return it->second;
}

std::vector<CalendarEvent> CalDAVCalendarStore::events(
    Timestamp start, Timestamp end, const std::vector<std::string>& calendarIDs) {
  EventCollector all;
  collectEvents(start, end, calendarIDs, all);
  return all.take();
}

void CalDAVCalendarStore::collectEvents(Timestamp start, Timestamp end,
                                        const std::vector<std::string>& calendarIDs,
                                        EventCollector& into) {
  base::MutexLock lock(mutex_);
  try {
    collections_ = listCollectionsLocked();
    const std::string query = calendarQuery(
        fmt::format(R"(<c:time-range start="{}" end="{}"/>)", utcStamp(start), utcStamp(end)));
    for (const auto& [id, collection] : collections_) {
      if (!calendarIDs.empty() &&
          std::find(calendarIDs.begin(), calendarIDs.end(), id) == calendarIDs.end())
        continue;
      const auto res =
          client_->request("REPORT", collection.url, {{"Depth", "1"}}, query, kXMLType);
      if (res.status != 207)
        internal("the CalDAV server answered HTTP " + std::to_string(res.status) +
                 " to a query of " + id);
      for (const auto& r : Multistatus(res.body).responses) {
        const std::string data = text(r.find(kCalDAV, "calendar-data"));
        if (data.empty()) continue;
        try {
          const auto series = ICalSeries::parse(data);
          series.expand(start, end, id, into);
          objects_[objectKey(id, series.uid())] = StoredObject{
              client_->resolve(r.href, collection.url), text(r.find(kDAV, "getetag")), data};
        } catch (const ICalFormatError& e) {
          base::log::debug(kSource, "skipping {}: {}", r.href, e.what());
        }
      }
    }
  } catch (const DAVTransportError& e) {
    internal(e.what());
  }
}

std::optional<CalDAVCalendarStore::StoredObject> CalDAVCalendarStore::findByUIDLocked(
    const Collection& collection, const std::string& uid) {
  const auto query =
      calendarQuery(R"(<c:prop-filter name="UID"><c:text-match collation="i;octet">)" +
                    escapeXML(uid) + "</c:text-match></c:prop-filter>");
  const auto res = client_->request("REPORT", collection.url, {{"Depth", "1"}}, query, kXMLType);
  if (res.status != 207)
    internal("the CalDAV server answered HTTP " + std::to_string(res.status) + " to a UID query");
  // text-match is a substring match: take only the object whose UID is exactly this one.
  for (const auto& r : Multistatus(res.body).responses) {
    const std::string data = text(r.find(kCalDAV, "calendar-data"));
    try {
      if (!data.empty() && ICalSeries::parse(data).uid() == uid)
        return StoredObject{client_->resolve(r.href, collection.url), text(r.find(kDAV, "getetag")),
                            data};
    } catch (const ICalFormatError&) {
    }
  }
  return std::nullopt;
}

std::optional<CalendarEvent> CalDAVCalendarStore::event(const std::string& id) {
  const auto parsed = EventID::parse(id);
  if (!parsed || !parsed->calendarID.starts_with(idPrefix())) return std::nullopt;
  base::MutexLock lock(mutex_);
  try {
    const auto& collection = collectionLocked(parsed->calendarID, id);
    const auto key = objectKey(parsed->calendarID, parsed->uid);
    // A read refreshes what later writes edit, so they build on the server's current version.
    std::optional<StoredObject> fresh;
    if (const auto known = objects_.find(key); known != objects_.end()) {
      const auto res = client_->request("GET", known->second.url);
      if (res.status == 200 && !res.body.empty())
        fresh = StoredObject{known->second.url, res.etag, res.body};
    }
    if (!fresh) fresh = findByUIDLocked(collection, parsed->uid);
    if (!fresh) {
      objects_.erase(key);
      return std::nullopt;
    }
    const auto series = ICalSeries::parse(fresh->text);
    objects_[key] = *fresh;
    return series.occurrence(parsed->occurrence, parsed->calendarID);
  } catch (const CalendarException& e) {
    if (std::holds_alternative<CalendarRPCError::NotFound>(e.error().value)) return std::nullopt;
    throw;
  } catch (const DAVTransportError& e) {
    internal(e.what());
  } catch (const ICalFormatError& e) {
    internal("the CalDAV server holds an event that cannot be read: " + std::string(e.what()));
  }
}

CalDAVCalendarStore::StoredObject& CalDAVCalendarStore::objectForWriteLocked(
    const std::string& calendarID, const std::string& uid, const std::string& id) {
  const auto key = objectKey(calendarID, uid);
  auto it = objects_.find(key);
  if (it == objects_.end()) {
    const auto found = findByUIDLocked(collectionLocked(calendarID, id), uid);
    if (!found) throw CalendarException(CalendarRPCError::notFound(id));
    it = objects_.emplace(key, *found).first;
  }
  return it->second;
}

std::string CalDAVCalendarStore::putLocked(const Collection& collection, const std::string& url,
                                           const std::string& text, const std::string& etag,
                                           const std::string& id) {
  std::vector<std::pair<std::string, std::string>> headers;
  if (etag.empty())
    headers.emplace_back("If-None-Match", "*");
  else
    headers.emplace_back("If-Match", etag);
  const auto res = client_->request("PUT", url, headers, text, kICalendarType);
  if (isSuccess(res.status)) return res.etag;
  if (res.status == 412)
    internal(etag.empty()
                 ? "conflict: an event with this UID already exists on the CalDAV server: " + id
                 : "conflict: " + id +
                       " was changed on the CalDAV server since it was read; read it again before "
                       "writing");
  if (res.status == 403)
    throw CalendarException({CalendarRPCError::ReadOnlyCalendar{collection.calendar.title}});
  internal("the CalDAV server answered HTTP " + std::to_string(res.status) + " when saving " + id);
}

void CalDAVCalendarStore::deleteLocked(const Collection& collection, const std::string& url,
                                       const std::string& etag, const std::string& id) {
  std::vector<std::pair<std::string, std::string>> headers;
  if (!etag.empty()) headers.emplace_back("If-Match", etag);
  const auto res = client_->request("DELETE", url, headers);
  if (isSuccess(res.status) || res.status == 404) return;
  if (res.status == 412)
    internal("conflict: " + id +
             " was changed on the CalDAV server since it was read; read it again before deleting");
  if (res.status == 403)
    throw CalendarException({CalendarRPCError::ReadOnlyCalendar{collection.calendar.title}});
  internal("the CalDAV server answered HTTP " + std::to_string(res.status) + " when deleting " +
           id);
}

StoreWriteOutcome CalDAVCalendarStore::createEvent(const std::string& calendarID,
                                                   const EventFields& fields) {
  base::MutexLock lock(mutex_);
  try {
    const auto& collection = collectionLocked(calendarID, calendarID);
    const std::string uid = base::newUUIDString();
    const auto series = ICalSeries::create(uid, fields);
    const std::string text = series.serialize();
    const std::string url = client_->resolve(uid + ".ics", collection.url);
    const std::string etag = putLocked(collection, url, text, {}, calendarID);
    // Without an ETag the next write has nothing to guard with: read the object again then.
    if (etag.empty())
      objects_.erase(objectKey(calendarID, uid));
    else
      objects_[objectKey(calendarID, uid)] = StoredObject{url, etag, text};
    return {EventID{calendarID, uid, std::nullopt}.text(), false};
  } catch (const DAVTransportError& e) {
    internal(e.what());
  }
}

StoreWriteOutcome CalDAVCalendarStore::updateEvent(const std::string& id, const EventFields& fields,
                                                   SaveSpan span) {
  const auto parsed = EventID::parse(id);
  if (!parsed) throw CalendarException(CalendarRPCError::notFound(id));
  base::MutexLock lock(mutex_);
  const auto key = objectKey(parsed->calendarID, parsed->uid);
  try {
    const auto& collection = collectionLocked(parsed->calendarID, id);
    const StoredObject object = objectForWriteLocked(parsed->calendarID, parsed->uid, id);
    auto series = ICalSeries::parse(object.text);
    const std::string newUID = base::newUUIDString();
    auto outcome = series.update(parsed->occurrence, fields, span, newUID);

    // The new part of a split series first: a failure after it is undone below, so the
    // server never ends up with the series cut short and its continuation missing.
    std::optional<StoredObject> split;
    if (outcome.split) {
      const std::string text = outcome.split->serialize();
      const std::string url = client_->resolve(newUID + ".ics", collection.url);
      split = StoredObject{url, putLocked(collection, url, text, {}, id), text};
    }
    const std::string text = series.serialize();
    std::string etag;
    try {
      etag = putLocked(collection, object.url, text, object.etag.empty() ? "*" : object.etag, id);
    } catch (...) {
      if (split) {
        try {
          deleteLocked(collection, split->url, split->etag, id);
        } catch (const std::exception& e) {
          base::log::warn(kSource, "could not take back the new part of a split series ({}): {}",
                          DAVClient::pathOf(split->url), e.what());
        }
      }
      // The version we hold is stale; the next read fetches the server's.
      objects_.erase(key);
      throw;
    }
    if (etag.empty())
      objects_.erase(key);
    else
      objects_[key] = StoredObject{object.url, etag, text};
    if (split && !split->etag.empty()) objects_[objectKey(parsed->calendarID, newUID)] = *split;
    return {EventID{parsed->calendarID, outcome.uid, outcome.occurrence}.text(), false};
  } catch (const DAVTransportError& e) {
    internal(e.what());
  } catch (const ICalFormatError& e) {
    internal("cannot edit " + id + ": " + e.what());
  }
}

bool CalDAVCalendarStore::removeEvent(const std::string& id, RemoveSpan span) {
  const auto parsed = EventID::parse(id);
  if (!parsed) throw CalendarException(CalendarRPCError::notFound(id));
  base::MutexLock lock(mutex_);
  const auto key = objectKey(parsed->calendarID, parsed->uid);
  try {
    const auto& collection = collectionLocked(parsed->calendarID, id);
    const StoredObject object = objectForWriteLocked(parsed->calendarID, parsed->uid, id);
    auto series = ICalSeries::parse(object.text);
    try {
      if (series.remove(parsed->occurrence, span)) {
        deleteLocked(collection, object.url, object.etag, id);
        objects_.erase(key);
      } else {
        const std::string text = series.serialize();
        const auto etag =
            putLocked(collection, object.url, text, object.etag.empty() ? "*" : object.etag, id);
        if (etag.empty())
          objects_.erase(key);
        else
          objects_[key] = StoredObject{object.url, etag, text};
      }
    } catch (const CalendarException&) {
      objects_.erase(key);
      throw;
    }
    return false;
  } catch (const DAVTransportError& e) {
    internal(e.what());
  } catch (const ICalFormatError& e) {
    internal("cannot edit " + id + ": " + e.what());
  }
}

std::string CalDAVCalendarStore::changeToken() {
  base::MutexLock lock(mutex_);
  try {
    collections_ = listCollectionsLocked();
  } catch (const DAVTransportError& e) {
    internal(e.what());
  }
  std::string token;
  for (const auto& [id, c] : collections_)
    token += id + "=" + c.tag + (c.calendar.writable ? "" : "!") + ";";
  return token;
}

}  // namespace tamsel::calendar
