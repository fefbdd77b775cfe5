// The CalDAV store against a real Radicale that each test starts on loopback: discovery,
// writes guarded by ETags (a change made on the server in between is reported, never
// overwritten), a calendar the server keeps read-only, series edits, an account out of reach
// beside the local calendars, the owner-only accounts file, and https with a certificate the
// client trusts, one it does not, and one for another host.
#include "tamsel/calendar/caldav_calendar_store.hpp"

#include <arpa/inet.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <boost/asio/this_coro.hpp>
#include <csignal>
#include <cstdlib>
#include <thread>

#include "../test_support.hpp"
#include "tamsel/base/atomic_file.hpp"
#include "tamsel/bridge/rpc/desktop_rpc_method_dispatcher.hpp"
#include "tamsel/calendar/caldav_http.hpp"
#include "tamsel/calendar/calendar_error.hpp"
#include "tamsel/calendar/desktop_calendar.hpp"
#include "tamsel/calendar/vdir_calendar_store.hpp"

namespace tamsel::calendar {
namespace {

namespace fs = std::filesystem;
namespace asio = boost::asio;
using namespace std::chrono_literals;

Timestamp at(const char* text) { return *parseTimestamp(text); }

int freePort() {
  const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  ::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
  socklen_t len = sizeof addr;
  ::getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len);
  ::close(fd);
  return ntohs(addr.sin_port);
}

bool accepts(int port) {
  const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(static_cast<uint16_t>(port));
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  const bool ok = ::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0;
  ::close(fd);
  return ok;
}

// A certificate and key Radicale serves TLS with.
struct TLSFiles {
  fs::path certificate;
  fs::path key;
};

// A self-signed certificate made with the openssl command, naming `altNames`
// (e.g. "IP:127.0.0.1,DNS:localhost").
TLSFiles selfSigned(const fs::path& dir, const std::string& altNames) {
  TLSFiles files{dir / "cert.pem", dir / "key.pem"};
  const auto command = fmt::format(
      "openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -days 2 -subj "
      "/CN=tamsel-test "
      "-addext 'subjectAltName={}' -keyout '{}' -out '{}' >'{}' 2>&1",
      altNames, files.key.string(), files.certificate.string(), (dir / "openssl.log").string());
  if (std::system(command.c_str()) != 0) {
    std::string text;
    base::readFile(dir / "openssl.log", text);
    throw std::runtime_error("openssl could not make a certificate: " + text);
  }
  return files;
}

// Radicale with anonymous logins accepted as any user name, and rights that let user "test"
// write its calendars except "holidays", which it may only read. With `tls`, it speaks https.
class Radicale {
 public:
  explicit Radicale(const fs::path& dir, std::optional<TLSFiles> tls = std::nullopt)
      : port_(freePort()), tls_(tls.has_value()) {
    const auto storage = dir / "storage";
    // A calendar the user cannot create through the server (it may only read it), so it is
    // made the way the server keeps collections on disk.
    fs::create_directories(storage / "collection-root/test/holidays");
    base::writeFileAtomically(storage / "collection-root/test/holidays/.Radicale.props",
                              R"({"tag": "VCALENDAR", "D:displayname": "Holidays"})", 0600);
    base::writeFileAtomically(dir / "rights",
                              "[root]\nuser: .+\ncollection:\npermissions: R\n"
                              "[principal]\nuser: .+\ncollection: {user}\npermissions: RW\n"
                              "[readonly]\nuser: .+\ncollection: {user}/holidays\npermissions: r\n"
                              "[calendars]\nuser: .+\ncollection: {user}/[^/]+\npermissions: rw\n",
                              0600);
    const auto config = dir / "radicale.conf";
    base::writeFileAtomically(
        config,
        fmt::format("[server]\nhosts = 127.0.0.1:{}\n{}[auth]\ntype = none\n[rights]\ntype = "
                    "from_file\nfile = {}\n[storage]\nfilesystem_folder = {}\n"
                    "[logging]\nlevel = warning\n",
                    port_,
                    tls ? fmt::format("ssl = True\ncertificate = {}\nkey = {}\n",
                                      tls->certificate.string(), tls->key.string())
                        : std::string(),
                    (dir / "rights").string(), storage.string()),
        0600);
    const auto log = dir / "radicale.log";
    pid_ = ::fork();
    if (pid_ == 0) {
      const int out = ::open(log.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
      ::dup2(out, 1);
      ::dup2(out, 2);
      ::execlp("radicale", "radicale", "--config", config.c_str(), static_cast<char*>(nullptr));
      ::_exit(127);
    }
    const auto deadline = std::chrono::steady_clock::now() + 15s;
    while (!accepts(port_) && std::chrono::steady_clock::now() < deadline) {
      int status = 0;
      if (::waitpid(pid_, &status, WNOHANG) == pid_) {
        pid_ = -1;
        break;
      }
      std::this_thread::sleep_for(20ms);
    }
    std::string text;
    base::readFile(log, text);
    if (!accepts(port_))
      throw std::runtime_error("radicale did not start (is it installed?): " + text);
  }
  ~Radicale() {
    if (pid_ <= 0) return;
    ::kill(pid_, SIGTERM);
    ::waitpid(pid_, nullptr, 0);
  }
  std::string url(const char* host = "127.0.0.1") const {
    return fmt::format("{}://{}:{}/", tls_ ? "https" : "http", host, port_);
  }

 private:
  int port_;
  bool tls_;
  pid_t pid_ = -1;
};

// A MKCALENDAR body for a calendar holding `component`s.
std::string mkcalendar(const char* name, const char* color, const char* component) {
  return fmt::format(
      R"(<?xml version="1.0"?><c:mkcalendar xmlns:d="DAV:" xmlns:c="urn:ietf:params:xml:ns:caldav" )"
      R"(xmlns:ic="http://apple.com/ns/ical/"><d:set><d:prop><d:displayname>{}</d:displayname>)"
      R"(<ic:calendar-color>{}</ic:calendar-color><c:supported-calendar-component-set><c:comp name="{}"/>)"
      R"(</c:supported-calendar-component-set></d:prop></d:set></c:mkcalendar>)",
      name, color, component);
}

class CalDAVStore : public ::testing::Test {
 protected:
  void SetUp() override {
    const char* tz = std::getenv("TZ");
    savedTZ = tz ? std::optional<std::string>(tz) : std::nullopt;
    ::setenv("TZ", "Europe/Berlin", 1);
    ::tzset();
    server = std::make_unique<Radicale>(dir.path());
    raw = std::make_unique<DAVClient>(server->url(), "test", "secret");
    // The user's principal appears on first contact; then two event calendars and a task list.
    ASSERT_EQ(raw->request("PROPFIND", "/test/", {{"Depth", "0"}}).status, 207);
    ASSERT_EQ(raw->request("MKCALENDAR", "/test/work/", {},
                           mkcalendar("Work", "#FF8800FF", "VEVENT"), "application/xml")
                  .status,
              201);
    ASSERT_EQ(raw->request("MKCALENDAR", "/test/tasks/", {},
                           mkcalendar("Tasks", "#00FF00", "VTODO"), "application/xml")
                  .status,
              201);
  }
  void TearDown() override {
    if (savedTZ)
      ::setenv("TZ", savedTZ->c_str(), 1);
    else
      ::unsetenv("TZ");
    ::tzset();
  }

  CalDAVAccount account() const { return {"test@local", server->url(), "test", "secret"}; }
  std::string work() const { return "caldav:test@local/work"; }
  // The object's text on the server, or empty when it is gone.
  std::string onServer(const std::string& eventID) {
    const auto uid = EventID::parse(eventID)->uid;
    const auto res = raw->request("GET", "/test/work/" + uid + ".ics");
    return res.status == 200 ? res.body : std::string();
  }
  std::vector<std::string> summary(CalendarStore& s, const char* from, const char* to) {
    auto events = s.events(at(from), at(to), {});
    std::sort(events.begin(), events.end(),
              [](const auto& a, const auto& b) { return a.start < b.start; });
    std::vector<std::string> out;
    for (const auto& e : events) out.push_back(e.title + "@" + formatTimestamp(e.start));
    return out;
  }
  static EventFields meeting(const char* title, const char* start,
                             std::chrono::minutes length = 60min) {
    EventFields f;
    f.title = title;
    f.start = at(start);
    f.end = f.start + length;
    return f;
  }
  static std::string errorCode(const std::function<void()>& call) {
    try {
      call();
    } catch (const CalendarException& e) {
      return e.error().code() + ": " + e.error().message();
    }
    return "no error";
  }

  test::TempDir dir;
  std::optional<std::string> savedTZ;
  std::unique_ptr<Radicale> server;
  // Another client of the same account, for changes made behind the store's back.
  std::unique_ptr<DAVClient> raw;
};

TEST_F(CalDAVStore, DiscoveryFindsTheEventCalendarsWithTheirProperties) {
  // From the server's root and from the user's own folder alike.
  for (const auto& url : {server->url(), server->url() + "test/"}) {
    CalDAVCalendarStore store({"test@local", url, "test", "secret"});
    const auto calendars = store.calendars();
    ASSERT_EQ(calendars.size(), 2u) << url;  // the task list is left out
    EXPECT_EQ(calendars[0].id, "caldav:test@local/holidays");
    EXPECT_EQ(calendars[0].title, "Holidays");
    EXPECT_FALSE(calendars[0].writable);
    EXPECT_EQ(calendars[1].id, work());
    EXPECT_EQ(calendars[1].title, "Work");
    EXPECT_EQ(calendars[1].colorHex, "#FF8800");
    EXPECT_TRUE(calendars[1].writable);
    EXPECT_EQ(calendars[1].kind, SourceKind::calDAV);
    EXPECT_EQ(store.defaultCalendarID(), work());
  }
}

TEST_F(CalDAVStore, CreateListUpdateDeleteRoundTrip) {
  CalDAVCalendarStore store(account());
  auto fields = meeting("Planning", "2026-03-10T09:00:00+01:00");
  fields.location = "Room 4";
  const auto created = store.createEvent(work(), fields);
  EXPECT_FALSE(created.pendingRemoteSync);
  EXPECT_NE(onServer(created.id).find("SUMMARY:Planning"), std::string::npos);

  // Another client of the account sees it, and so does a fresh store.
  CalDAVCalendarStore other(account());
  EXPECT_EQ(summary(other, "2026-03-01T00:00:00Z", "2026-04-01T00:00:00Z"),
            std::vector<std::string>{"Planning@2026-03-10T09:00:00+01:00"});
  EXPECT_TRUE(summary(other, "2026-03-11T00:00:00Z", "2026-04-01T00:00:00Z").empty());
  const auto read = other.event(created.id);
  ASSERT_TRUE(read);
  EXPECT_EQ(read->location, "Room 4");

  fields.title = "Planning (moved)";
  fields.start = at("2026-03-12T14:00:00+01:00");
  fields.end = fields.start + 30min;
  const auto updated = other.updateEvent(created.id, fields, SaveSpan::thisEvent);
  EXPECT_EQ(updated.id, created.id);
  EXPECT_EQ(summary(store, "2026-03-01T00:00:00Z", "2026-04-01T00:00:00Z"),
            std::vector<std::string>{"Planning (moved)@2026-03-12T14:00:00+01:00"});

  // The first store wrote before the update; it reads again before deleting.
  EXPECT_FALSE(store.removeEvent(created.id, RemoveSpan::all));
  EXPECT_EQ(onServer(created.id), "");
  EXPECT_FALSE(other.event(created.id));
  EXPECT_TRUE(summary(other, "2026-03-01T00:00:00Z", "2026-04-01T00:00:00Z").empty());
}

TEST_F(CalDAVStore, AChangeOnTheServerAfterTheReadIsAConflictAndTheServerKeepsItsVersion) {
  CalDAVCalendarStore store(account());
  const auto id = store.createEvent(work(), meeting("Review", "2026-03-10T09:00:00+01:00")).id;
  ASSERT_EQ(store.events(at("2026-03-01T00:00:00Z"), at("2026-04-01T00:00:00Z"), {}).size(), 1u);

  // Someone else renames it on the server between our read and our write.
  std::string text = onServer(id);
  text.replace(text.find("SUMMARY:Review"), 14, "SUMMARY:Renamed elsewhere");
  const auto put = raw->request("PUT", "/test/work/" + EventID::parse(id)->uid + ".ics", {}, text,
                                "text/calendar");
  ASSERT_TRUE(put.status == 201 || put.status == 204) << put.status;

  const auto update = errorCode([&] {
    store.updateEvent(id, meeting("Ours", "2026-03-10T10:00:00+01:00"), SaveSpan::thisEvent);
  });
  EXPECT_NE(update.find("internal_error: conflict: "), std::string::npos) << update;
  EXPECT_NE(onServer(id).find("SUMMARY:Renamed elsewhere"), std::string::npos);

  // A delete built on a stale read is refused the same way.
  ASSERT_EQ(store.events(at("2026-03-01T00:00:00Z"), at("2026-04-01T00:00:00Z"), {}).at(0).title,
            "Renamed elsewhere");
  text = onServer(id);
  text.replace(text.find("SUMMARY:Renamed elsewhere"), 25, "SUMMARY:Renamed again");
  raw->request("PUT", "/test/work/" + EventID::parse(id)->uid + ".ics", {}, text, "text/calendar");
  EXPECT_NE(errorCode([&] { store.removeEvent(id, RemoveSpan::all); }).find("conflict"),
            std::string::npos);
  EXPECT_NE(onServer(id).find("SUMMARY:Renamed again"), std::string::npos);

  // Once read again, the write goes through.
  ASSERT_TRUE(store.event(id));
  store.updateEvent(id, meeting("Ours", "2026-03-10T10:00:00+01:00"), SaveSpan::thisEvent);
  EXPECT_NE(onServer(id).find("SUMMARY:Ours"), std::string::npos);
}

TEST_F(CalDAVStore, TheServersReadOnlyCalendarIsRefusedByStoreAndProvider) {
  auto store = std::make_shared<CalDAVCalendarStore>(account());
  // The store itself, asked past the provider's check, reports the server's refusal.
  EXPECT_EQ(
      errorCode([&] {
        store->createEvent("caldav:test@local/holidays", meeting("Party", "2026-03-10T09:00:00Z"));
      }),
      "read_only_calendar: Calendar Holidays is read-only (subscription / birthdays / feed).");

  const auto result = test::runAsync([&]() -> asio::awaitable<bridge::rpc::RPCResult> {
    auto provider = std::make_shared<CalendarProvider>(
        co_await asio::this_coro::executor, store,
        std::make_shared<MemoryPermissionStore>(CalendarPermissionStatus::granted));
    bridge::rpc::DesktopRPCMethodDispatcher dispatcher(bridge::rpc::Platform{"Linux", "test", "0"});
    registerCalendarMethods(dispatcher, provider);
    const auto params = JSONValue::object({{"calendar_id", "caldav:test@local/holidays"},
                                           {"title", "Party"},
                                           {"start", "2026-03-10T09:00:00Z"},
                                           {"end", "2026-03-10T10:00:00Z"}});
    // A named request: g++ 12 frees a braced temporary argument of a coroutine twice.
    bridge::rpc::RPCRequest request{
        "r1", "calendar.create_event", params, 5000, "s", "main", "verd", "t"};
    co_return co_await dispatcher.handle(request);
  }());
  ASSERT_FALSE(result.ok);
  EXPECT_EQ(result.error->code, "read_only_calendar");
  EXPECT_EQ(raw->request("PROPFIND", "/test/holidays/", {{"Depth", "1"}}).body.find(".ics"),
            std::string::npos);
}

TEST_F(CalDAVStore, WeeklySeriesEditedThisThenThisAndFutureThenDeleted) {
  CalDAVCalendarStore store(account());
  auto fields = meeting("Standup", "2026-03-02T09:00:00+01:00", 15min);
  fields.recurrenceRule = RecurrenceRule{"weekly", 1, {}, std::nullopt, 6, ""};
  const auto series = store.createEvent(work(), fields).id;
  auto weeks = summary(store, "2026-03-01T00:00:00Z", "2026-05-01T00:00:00Z");
  ASSERT_EQ(weeks.size(), 6u);
  // Across the change to summer time the local hour stays.
  EXPECT_EQ(weeks[4], "Standup@2026-03-30T09:00:00+02:00");

  auto occurrences = store.events(at("2026-03-09T00:00:00Z"), at("2026-03-10T00:00:00Z"), {});
  ASSERT_EQ(occurrences.size(), 1u);
  auto moved = meeting("Standup (late)", "2026-03-09T11:00:00+01:00", 15min);
  store.updateEvent(occurrences[0].id, moved, SaveSpan::thisEvent);

  occurrences = store.events(at("2026-03-23T00:00:00Z"), at("2026-03-24T00:00:00Z"), {});
  ASSERT_EQ(occurrences.size(), 1u);
  auto later = meeting("Standup v2", "2026-03-23T10:00:00+01:00", 15min);
  later.recurrenceRule = occurrences[0].recurrenceRule;
  const auto split = store.updateEvent(occurrences[0].id, later, SaveSpan::futureEvents);
  EXPECT_NE(EventID::parse(split.id)->uid, EventID::parse(series)->uid);

  CalDAVCalendarStore fresh(account());
  EXPECT_EQ(summary(fresh, "2026-03-01T00:00:00Z", "2026-05-01T00:00:00Z"),
            (std::vector<std::string>{
                "Standup@2026-03-02T09:00:00+01:00", "Standup (late)@2026-03-09T11:00:00+01:00",
                "Standup@2026-03-16T09:00:00+01:00", "Standup v2@2026-03-23T10:00:00+01:00",
                "Standup v2@2026-03-30T10:00:00+02:00", "Standup v2@2026-04-06T10:00:00+02:00"}));
  // The original series now ends before the split: UNTIL, and no COUNT beside it.
  const auto original = onServer(series);
  EXPECT_NE(original.find("UNTIL="), std::string::npos) << original;
  EXPECT_EQ(original.find("COUNT="), std::string::npos) << original;

  fresh.removeEvent(series, RemoveSpan::all);
  EXPECT_EQ(onServer(series), "");
  EXPECT_EQ(summary(store, "2026-03-01T00:00:00Z", "2026-05-01T00:00:00Z"),
            (std::vector<std::string>{"Standup v2@2026-03-23T10:00:00+01:00",
                                      "Standup v2@2026-03-30T10:00:00+02:00",
                                      "Standup v2@2026-04-06T10:00:00+02:00"}));
}

TEST_F(CalDAVStore, BesideTheLocalCalendarsAnAccountOutOfReachHidesNothingLocal) {
  auto local = std::make_shared<VdirCalendarStore>(dir.path() / "calendars");
  local->addCalendar("personal", "Personal", "#3A87AD");
  local->createEvent("local:personal", meeting("Dentist", "2026-03-11T08:00:00+01:00"));
  auto remote = std::make_shared<CalDAVCalendarStore>(account());
  remote->createEvent(work(), meeting("Planning", "2026-03-10T09:00:00+01:00"));
  auto gone = std::make_shared<CalDAVCalendarStore>(
      CalDAVAccount{"gone", "http://127.0.0.1:1/", "", ""}, 2s);
  CombinedCalendarStore combined({{VdirCalendarStore::idPrefix, local},
                                  {remote->idPrefix(), remote},
                                  {gone->idPrefix(), gone}});

  std::vector<std::string> ids;
  for (const auto& c : combined.calendars()) ids.push_back(c.id);
  EXPECT_EQ(ids,
            (std::vector<std::string>{"local:personal", "caldav:test@local/holidays", work()}));
  EXPECT_EQ(combined.defaultCalendarID(), "local:personal");
  EXPECT_EQ(summary(combined, "2026-03-01T00:00:00Z", "2026-04-01T00:00:00Z"),
            (std::vector<std::string>{"Planning@2026-03-10T09:00:00+01:00",
                                      "Dentist@2026-03-11T08:00:00+01:00"}));
  // Asked for by id, the unreachable account's failure is the answer.
  EXPECT_NE(errorCode([&] {
              combined.events(at("2026-03-01T00:00:00Z"), at("2026-04-01T00:00:00Z"),
                              {"caldav:gone/x"});
            }).find("internal_error: cannot reach the CalDAV server at 127.0.0.1:1"),
            std::string::npos);
  EXPECT_NE(errorCode([&] {
              combined.createEvent("caldav:gone/x", meeting("X", "2026-03-10T09:00:00Z"));
            }),
            "no error");
  // Writes are routed by calendar id.
  const auto id = combined.createEvent(work(), meeting("Retro", "2026-03-13T15:00:00+01:00")).id;
  EXPECT_NE(onServer(id).find("SUMMARY:Retro"), std::string::npos);
  EXPECT_EQ(
      errorCode([&] { combined.createEvent("elsewhere:x", meeting("X", "2026-03-10T09:00:00Z")); }),
      "not_found: Calendar or event not found: elsewhere:x");
  // The change check keeps working and notices a write on the server.
  const auto before = combined.changeToken();
  raw->request("DELETE", "/test/work/" + EventID::parse(id)->uid + ".ics");
  EXPECT_NE(combined.changeToken(), before);
}

// Each test decides which certificates the client trusts through SSL_CERT_FILE; the variable
// is put back afterwards.
class CalDAVOverTLS : public ::testing::Test {
 protected:
  void SetUp() override {
    if (const char* file = std::getenv("SSL_CERT_FILE")) savedCertFile = file;
  }
  void TearDown() override {
    if (savedCertFile)
      ::setenv("SSL_CERT_FILE", savedCertFile->c_str(), 1);
    else
      ::unsetenv("SSL_CERT_FILE");
  }
  static std::string failure(CalDAVCalendarStore& store) {
    try {
      store.calendars();
    } catch (const CalendarException& e) {
      return e.error().message();
    }
    return "no error";
  }

  test::TempDir dir;
  std::optional<std::string> savedCertFile;
};

TEST_F(CalDAVOverTLS, TheStoreWorksWhenTheCertificateIsTrusted) {
  const auto tls = selfSigned(dir.path(), "IP:127.0.0.1,DNS:localhost");
  Radicale server(dir.path(), tls);
  ::setenv("SSL_CERT_FILE", tls.certificate.c_str(), 1);
  DAVClient raw(server.url(), "test", "secret");
  ASSERT_EQ(raw.request("PROPFIND", "/test/", {{"Depth", "0"}}).status, 207);
  ASSERT_EQ(raw.request("MKCALENDAR", "/test/work/", {}, mkcalendar("Work", "#FF8800FF", "VEVENT"),
                        "application/xml")
                .status,
            201);

  // By address (checked against the certificate's IP entry) and by name (its DNS entry).
  for (const char* host : {"127.0.0.1", "localhost"}) {
    CalDAVCalendarStore store({"test@local", server.url(host), "test", "secret"});
    std::vector<std::string> ids;
    for (const auto& c : store.calendars()) ids.push_back(c.id);
    EXPECT_EQ(ids,
              (std::vector<std::string>{"caldav:test@local/holidays", "caldav:test@local/work"}))
        << host;
    EventFields fields;
    fields.title = std::string("Planning via ") + host;
    fields.start = at("2026-03-10T09:00:00Z");
    fields.end = fields.start + 60min;
    const auto id = store.createEvent("caldav:test@local/work", fields).id;
    const auto res = raw.request("GET", "/test/work/" + EventID::parse(id)->uid + ".ics");
    EXPECT_EQ(res.status, 200) << host;
    EXPECT_NE(res.body.find("SUMMARY:" + fields.title), std::string::npos) << host;
  }
  // The credentials never go over plain http from an https account.
  EXPECT_THROW(raw.request("GET", server.url().replace(0, 5, "http")), DAVTransportError);
}

TEST_F(CalDAVOverTLS, AnUntrustedCertificateIsAnError) {
  const auto tls = selfSigned(dir.path(), "IP:127.0.0.1,DNS:localhost");
  Radicale server(dir.path(), tls);
  // The system's store only: it has never heard of this certificate.
  ::unsetenv("SSL_CERT_FILE");
  CalDAVCalendarStore store({"test@local", server.url(), "test", "secret"});
  const auto message = failure(store);
  EXPECT_EQ(message.rfind("the CalDAV server's certificate is not trusted: ", 0), 0u) << message;
  EXPECT_EQ(message.find("secret"), std::string::npos) << message;
}

TEST_F(CalDAVOverTLS, ATrustedCertificateForAnotherHostIsAnError) {
  const auto tls = selfSigned(dir.path(), "DNS:calendar.example.test");
  Radicale server(dir.path(), tls);
  ::setenv("SSL_CERT_FILE", tls.certificate.c_str(), 1);
  for (const char* host : {"127.0.0.1", "localhost"}) {
    CalDAVCalendarStore store({"test@local", server.url(host), "test", "secret"});
    const auto message = failure(store);
    EXPECT_EQ(message.rfind("the CalDAV server's certificate is not trusted: ", 0), 0u)
        << host << ": " << message;
  }
}

TEST(CalDAVAccounts, KeptOwnerOnlyOneEntryPerURLAndUserAndADamagedFileIsLeftAlone) {
  test::TempDir dir;
  const auto file = dir.path() / "app" / "caldav-accounts.json";
  EXPECT_TRUE(loadCalDAVAccounts(file).empty());
  const auto first =
      saveCalDAVAccount(file, {"", "http://cal.example.test:8080/dav/", "ann", "one"});
  EXPECT_EQ(first.id, "ann@cal.example.test:8080");
  struct stat info {};
  ASSERT_EQ(::stat(file.c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0600u);

  // The same URL and user again: a new password, the same id.
  EXPECT_EQ(saveCalDAVAccount(file, {"", "http://cal.example.test:8080/dav/", "ann", "two"}).id,
            first.id);
  // Another path on the same host and user: its own id.
  EXPECT_EQ(saveCalDAVAccount(file, {"", "http://cal.example.test:8080/other/", "ann", "x"}).id,
            "ann@cal.example.test:8080-2");
  const auto accounts = loadCalDAVAccounts(file);
  ASSERT_EQ(accounts.size(), 2u);
  EXPECT_EQ(accounts[0].password, "two");

  base::writeFileAtomically(file, R"({"accounts": [)", 0600);
  EXPECT_THROW(loadCalDAVAccounts(file), CalendarException);
  EXPECT_THROW(saveCalDAVAccount(file, {"", "http://other.test/", "", ""}), CalendarException);
  std::string text;
  base::readFile(file, text);
  EXPECT_EQ(text, "{\"accounts\": [");
}

}  // namespace
}  // namespace tamsel::calendar

namespace tamsel::calendar {
namespace {

TEST(DAVClientOrigin, CredentialsStayWithTheAccountsOwnServer) {
  EXPECT_TRUE(DAVClient::sameOrigin("https://dav.example.org/cal/",
                                    "https://DAV.example.org:443/principals/u/"));
  EXPECT_TRUE(DAVClient::sameOrigin("http://127.0.0.1:5232/a", "http://127.0.0.1:5232/b/c"));
  EXPECT_FALSE(DAVClient::sameOrigin("https://dav.example.org/", "https://evil.example.net/"));
  EXPECT_FALSE(DAVClient::sameOrigin("https://dav.example.org/", "http://dav.example.org/"));
  EXPECT_FALSE(DAVClient::sameOrigin("http://127.0.0.1:5232/", "http://127.0.0.1:5233/"));
  EXPECT_FALSE(DAVClient::sameOrigin("not a url", "http://127.0.0.1/"));
}

}  // namespace
}  // namespace tamsel::calendar
