#include "tamsel/calendar/calendar_provider.hpp"

#include <algorithm>
#include <boost/asio/post.hpp>
#include <boost/asio/redirect_error.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/thread_pool.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <cctype>
#include <exception>
#include <map>

#include "tamsel/base/log.hpp"
#include "tamsel/bridge/rpc/protocol_constants.hpp"
#include "tamsel/calendar/calendar_protocol.hpp"

namespace tamsel::calendar {

namespace asio = boost::asio;
namespace Method = CalendarProtocol::Method;
using std::chrono::milliseconds;

namespace {

constexpr const char* kSource = "calendar";

bool containsFolded(const std::optional<std::string>& haystack, const std::string& needle) {
  if (!haystack) return false;
  const auto it = std::search(
      haystack->begin(), haystack->end(), needle.begin(), needle.end(),
      [](unsigned char a, unsigned char b) { return std::tolower(a) == std::tolower(b); });
  return it != haystack->end();
}

EventFields fieldsOf(const CalendarEvent& event) {
  return EventFields{event.title, event.start, event.end,       event.allDay, event.location,
                     event.notes, event.url,   event.attendees, event.alarms, event.recurrenceRule};
}

std::vector<Attendee> attendeesFrom(const std::vector<AttendeeDraft>& drafts,
                                    const std::vector<Attendee>& known) {
  std::vector<Attendee> out;
  for (const auto& d : drafts) {
    // Someone already invited keeps their answer.
    const auto it = std::find_if(known.begin(), known.end(),
                                 [&](const Attendee& a) { return a.email == d.email; });
    out.push_back(Attendee{d.email, d.name ? d.name : (it != known.end() ? it->name : std::nullopt),
                           it != known.end() ? it->status : "needs_action"});
  }
  return out;
}

const StoreCalendar& findCalendar(const std::vector<StoreCalendar>& calendars,
                                  const std::string& id) {
  const auto it =
      std::find_if(calendars.begin(), calendars.end(), [&](const auto& c) { return c.id == id; });
  if (it == calendars.end()) throw CalendarException(CalendarRPCError::notFound(id));
  return *it;
}

void requireWritable(const StoreCalendar& calendar) {
  if (!calendar.writable)
    throw CalendarException({CalendarRPCError::ReadOnlyCalendar{calendar.title}});
}

}  // namespace

struct CalendarProvider::Impl : std::enable_shared_from_this<Impl> {
  asio::any_io_executor executor;
  std::shared_ptr<CalendarStore> store;
  std::shared_ptr<CalendarPermissionStore> permissions;
  PermissionPrompter prompter;
  Options options;
  asio::thread_pool worker{1};
  base::Signal<CalendarChangeEvent> changes;
  std::unique_ptr<asio::steady_timer> watchTimer;
  std::optional<std::string> lastToken;
  std::optional<CalendarPermissionStatus> lastStatus;
  bool watchBusy = false;

  Impl(asio::any_io_executor e, std::shared_ptr<CalendarStore> s,
       std::shared_ptr<CalendarPermissionStore> p, PermissionPrompter prompt, Options o)
      : executor(std::move(e)),
        store(std::move(s)),
        permissions(std::move(p)),
        prompter(std::move(prompt)),
        options(o) {}
  ~Impl() { worker.join(); }

  template <class T>
  struct Race {
    explicit Race(asio::any_io_executor e) : timer(e) {}
    asio::steady_timer timer;
    std::optional<T> value;
    std::exception_ptr error;
    bool done = false;
  };

  // Runs `work` on the worker thread against a timer of `limit`.
  template <class T>
  asio::awaitable<T> run(std::function<T()> work, milliseconds limit) {
    auto race = std::make_shared<Race<T>>(executor);
    asio::post(worker, [race, work = std::move(work), executor = executor]() mutable {
      std::optional<T> value;
      std::exception_ptr error;
      try {
        value.emplace(work());
      } catch (...) {
        error = std::current_exception();
      }
      // The race and the answer move on to the executor, so the worker never holds the last
      // reference to the timer or to an exception the caller is still reading.
      asio::post(executor, [race = std::move(race), value = std::move(value),
                            error = std::move(error)]() mutable {
        race->value = std::move(value);
        race->error = error;
        race->done = true;
        race->timer.cancel();
      });
    });
    race->timer.expires_after(limit);
    boost::system::error_code ignored;
    co_await race->timer.async_wait(asio::redirect_error(asio::use_awaitable, ignored));
    if (!race->done) throw CalendarException({CalendarRPCError::Timeout{}});
    if (race->error) std::rethrow_exception(race->error);
    co_return std::move(*race->value);
  }

  void requireAccess() const { CalendarMappers::requireFullAccess(permissions->status()); }

  void publishStatus(CalendarPermissionStatus status) {
    if (lastStatus && *lastStatus == status) return;
    const bool first = !lastStatus;
    lastStatus = status;
    if (!first) changes.emit(CalendarChangeEvent::permissionChanged);
  }

  void scheduleWatch() {
    if (!watchTimer) return;
    watchTimer->expires_after(options.watchInterval);
    watchTimer->async_wait([weak = weak_from_this()](boost::system::error_code ec) {
      auto self = weak.lock();
      if (ec || !self || !self->watchTimer) return;
      self->checkForChanges();
    });
  }

  void checkForChanges() {
    // The status is one small file read; the token may walk folders or ask a server, so it
    // runs on the worker like any other store call.
    publishStatus(permissions->status());
    // Only the store travels to the worker: the provider itself is never released there.
    asio::post(worker, [store = store, executor = executor, weak = weak_from_this()] {
      std::optional<std::string> token;
      try {
        token = store->changeToken();
      } catch (const std::exception& e) {
        base::log::debug(kSource, "change check failed: {}", e.what());
      }
      asio::post(executor, [weak, token] {
        auto self = weak.lock();
        if (!self || !self->watchTimer) return;
        if (token) {
          const bool changed = self->lastToken && *self->lastToken != *token;
          self->lastToken = token;
          if (changed) self->changes.emit(CalendarChangeEvent::dataChanged);
        }
        self->scheduleWatch();
      });
    });
  }
};

CalendarProvider::CalendarProvider(asio::any_io_executor executor,
                                   std::shared_ptr<CalendarStore> store,
                                   std::shared_ptr<CalendarPermissionStore> permissions,
                                   PermissionPrompter prompter, Options options)
    : impl_(std::make_shared<Impl>(std::move(executor), std::move(store), std::move(permissions),
                                   std::move(prompter), options)) {}

CalendarProvider::CalendarProvider(asio::any_io_executor executor,
                                   std::shared_ptr<CalendarStore> store,
                                   std::shared_ptr<CalendarPermissionStore> permissions,
                                   PermissionPrompter prompter)
    : CalendarProvider(std::move(executor), std::move(store), std::move(permissions),
                       std::move(prompter), Options{}) {}

CalendarProvider::~CalendarProvider() { stopWatching(); }

base::Signal<CalendarChangeEvent>& CalendarProvider::changeEvents() { return impl_->changes; }

void CalendarProvider::startWatching() {
  if (impl_->watchTimer) return;
  impl_->watchTimer = std::make_unique<asio::steady_timer>(impl_->executor);
  impl_->lastStatus = impl_->permissions->status();
  impl_->checkForChanges();
}

void CalendarProvider::stopWatching() {
  if (!impl_->watchTimer) return;
  impl_->watchTimer->cancel();
  impl_->watchTimer.reset();
}

milliseconds CalendarProvider::timerFor(std::int64_t timeoutMs) const {
  const milliseconds asked =
      timeoutMs > 0 ? milliseconds(timeoutMs) : impl_->options.defaultTimeout;
  return std::min<milliseconds>(asked, maximumTimeout);
}

asio::awaitable<std::vector<CalendarSource>> CalendarProvider::listSources(milliseconds timeout) {
  impl_->requireAccess();
  auto store = impl_->store;
  std::function<std::vector<CalendarSource>()> work = [store] {
    const auto defaultID = store->defaultCalendarID();
    std::vector<CalendarSource> sources;
    for (const auto& c : store->calendars())
      sources.push_back(CalendarSource{c.id, c.title,
                                       CalendarMappers::accountType(c.sourceTitle, c.kind),
                                       c.colorHex, c.writable, defaultID && *defaultID == c.id});
    return sources;
  };
  co_return co_await impl_->run<std::vector<CalendarSource>>(std::move(work), timeout);
}

asio::awaitable<CalendarEventList> CalendarProvider::listEvents(ListEventsParams params,
                                                                milliseconds timeout) {
  impl_->requireAccess();
  auto store = impl_->store;
  // A tenth of the time (at most a second) is left for answering.
  const auto answerBy = std::chrono::steady_clock::now() + timeout -
                        std::min<milliseconds>(timeout / 10, std::chrono::seconds(1));
  std::function<CalendarEventList()> work = [store, params = std::move(params), answerBy] {
    std::vector<std::string> ids;
    if (params.calendarIDs) {
      const auto calendars = store->calendars();
      for (const auto& id : *params.calendarIDs) findCalendar(calendars, id);
      ids = *params.calendarIDs;
      // An empty list names no calendar, which is not the same as naming none.
      if (ids.empty()) return CalendarEventList{};
    }
    EventCollector::Filter filter;
    if (params.query && !params.query->empty()) {
      filter = [query = *params.query](const CalendarEvent& e) {
        return containsFolded(e.title, query) || containsFolded(e.location, query) ||
               containsFolded(e.notes, query);
      };
    }
    // The limit is applied while expanding, and the work ends in time to answer before the
    // caller's timer: what fits is returned, marked truncated.
    EventCollector into({std::min(static_cast<std::size_t>(params.limit), kMaxListedEvents),
                         EventCollector::Bounds{}.maxSteps, answerBy},
                        std::move(filter));
    store->collectEvents(params.start, params.end, ids, into);
    CalendarEventList list;
    list.truncated = into.truncated();
    list.events = into.take();
    return list;
  };
  co_return co_await impl_->run<CalendarEventList>(std::move(work), timeout);
}

asio::awaitable<CalendarEvent> CalendarProvider::getEvent(GetEventParams params,
                                                          milliseconds timeout) {
  impl_->requireAccess();
  auto store = impl_->store;
  std::function<CalendarEvent()> work = [store, id = params.id] {
    auto event = store->event(id);
    if (!event) throw CalendarException(CalendarRPCError::notFound(id));
    return *event;
  };
  co_return co_await impl_->run<CalendarEvent>(std::move(work), timeout);
}

asio::awaitable<WriteEventResult> CalendarProvider::createEvent(CalendarEventDraft draft,
                                                                milliseconds timeout) {
  impl_->requireAccess();
  auto store = impl_->store;
  std::function<WriteEventResult()> work = [store, draft = std::move(draft)] {
    const auto calendarID = draft.calendarID ? draft.calendarID : store->defaultCalendarID();
    if (!calendarID)
      throw CalendarException(
          CalendarRPCError::invalidArgument("calendar_id", "no default calendar for new events"));
    requireWritable(findCalendar(store->calendars(), *calendarID));
    EventFields fields{draft.title, draft.start, draft.end, draft.allDay, draft.location,
                       draft.notes, draft.url,   {},        draft.alarms, draft.recurrenceRule};
    fields.attendees = attendeesFrom(draft.attendees, {});
    const auto outcome = store->createEvent(*calendarID, fields);
    return WriteEventResult{outcome.id, outcome.pendingRemoteSync, false};
  };
  co_return co_await impl_->run<WriteEventResult>(std::move(work), timeout);
}

asio::awaitable<WriteEventResult> CalendarProvider::updateEvent(UpdateEventParams params,
                                                                milliseconds timeout) {
  impl_->requireAccess();
  auto store = impl_->store;
  std::function<WriteEventResult()> work = [store, params = std::move(params)] {
    const auto current = store->event(params.id);
    if (!current) throw CalendarException(CalendarRPCError::notFound(params.id));
    const auto calendars = store->calendars();
    requireWritable(findCalendar(calendars, current->calendarID));

    const auto& patch = params.patch;
    EventFields fields = fieldsOf(*current);
    if (patch.title) fields.title = *patch.title;
    if (patch.start) {
      // Moving only the start keeps the event's length.
      if (!patch.end) fields.end = *patch.start + (current->end - current->start);
      fields.start = *patch.start;
    }
    if (patch.end) fields.end = *patch.end;
    if (patch.allDay) fields.allDay = *patch.allDay;
    if (patch.location) fields.location = *patch.location;
    if (patch.notes) fields.notes = *patch.notes;
    if (patch.url) fields.url = *patch.url;
    if (patch.attendees) fields.attendees = attendeesFrom(*patch.attendees, current->attendees);
    if (patch.alarms) fields.alarms = *patch.alarms;
    if (patch.recurrenceRule) fields.recurrenceRule = patch.recurrenceRule;
    if (params.clearRecurrence) fields.recurrenceRule.reset();
    if (fields.end < fields.start)
      throw CalendarException(CalendarRPCError::invalidArgument("end", "must not be before start"));

    const bool ruleChanged = patch.recurrenceRule.has_value() || params.clearRecurrence;
    if (params.scope == EventScope::thisEvent && current->isRecurring && ruleChanged)
      throw CalendarException(CalendarRPCError::invalidArgument(
          "recurrence_rule",
          "one occurrence cannot change its series' recurrence; use scope \"this_and_future\""));

    if (patch.calendarID && *patch.calendarID != current->calendarID) {
      if (current->isRecurring)
        throw CalendarException(CalendarRPCError::invalidArgument(
            "calendar_id",
            "a recurring event cannot move to another calendar; delete it and create it there"));
      requireWritable(findCalendar(calendars, *patch.calendarID));
      const auto created = store->createEvent(*patch.calendarID, fields);
      const bool pending = store->removeEvent(params.id, RemoveSpan::all);
      return WriteEventResult{created.id, created.pendingRemoteSync || pending, false};
    }
    const auto span =
        params.scope == EventScope::thisEvent ? SaveSpan::thisEvent : SaveSpan::futureEvents;
    const auto outcome = store->updateEvent(params.id, fields, span);
    return WriteEventResult{outcome.id, outcome.pendingRemoteSync, false};
  };
  co_return co_await impl_->run<WriteEventResult>(std::move(work), timeout);
}

asio::awaitable<DeleteEventResult> CalendarProvider::deleteEvent(DeleteEventParams params,
                                                                 milliseconds timeout) {
  impl_->requireAccess();
  auto store = impl_->store;
  std::function<DeleteEventResult()> work = [store, params = std::move(params)] {
    const auto current = store->event(params.id);
    if (!current) throw CalendarException(CalendarRPCError::notFound(params.id));
    requireWritable(findCalendar(store->calendars(), current->calendarID));
    const auto span = params.scope == EventScope::all             ? RemoveSpan::all
                      : params.scope == EventScope::thisAndFuture ? RemoveSpan::futureEvents
                                                                  : RemoveSpan::thisEvent;
    try {
      return DeleteEventResult{true, store->removeEvent(params.id, span)};
    } catch (const CalendarException& e) {
      if (std::holds_alternative<CalendarRPCError::NotFound>(e.error().value)) throw;
      throw CalendarException(
          CalendarRPCError::internalError("remove failed: " + e.error().message()));
    } catch (const std::exception& e) {
      throw CalendarException(
          CalendarRPCError::internalError(std::string("remove failed: ") + e.what()));
    }
  };
  co_return co_await impl_->run<DeleteEventResult>(std::move(work), timeout);
}

PermissionResult CalendarProvider::checkPermission() const {
  const auto status = impl_->permissions->status();
  return PermissionResult{"calendar", status, CalendarMappers::permissionMessage(status)};
}

void CalendarProvider::setPermission(CalendarPermissionStatus status) {
  impl_->permissions->setStatus(status);
  if (impl_->watchTimer) impl_->publishStatus(status);
}

asio::awaitable<PermissionResult> CalendarProvider::requestPermission(milliseconds timeout) {
  // Held here: the provider may be gone when the answer comes.
  const std::shared_ptr<Impl> impl = impl_;
  auto status = impl->permissions->status();
  // Like a platform prompt, the question is asked once; a later answer is the user's to
  // change in settings (`tamsel calendar permission grant|deny`).
  if (status == CalendarPermissionStatus::notDetermined && impl->prompter) {
    auto prompter = impl->prompter;
    auto permissions = impl->permissions;
    std::function<CalendarPermissionStatus()> ask = [prompter, permissions] {
      std::optional<bool> answer;
      try {
        answer = prompter();
        if (answer)
          permissions->setStatus(*answer ? CalendarPermissionStatus::granted
                                         : CalendarPermissionStatus::denied);
      } catch (const std::exception& e) {
        throw CalendarException(
            CalendarRPCError::internalError(std::string("request_permission failed: ") + e.what()));
      }
      return permissions->status();
    };
    status = co_await impl->run<CalendarPermissionStatus>(std::move(ask), timeout);
    if (impl->watchTimer) impl->publishStatus(status);
  }
  co_return PermissionResult{"calendar", status, CalendarMappers::permissionMessage(status)};
}

asio::awaitable<JSONValue> CalendarProvider::handle(std::string method, JSONValue params,
                                                    std::int64_t timeoutMs) {
  const auto limit = timerFor(timeoutMs);
  if (method == Method::calendarListSources) {
    const std::vector<CalendarSource> sources = co_await listSources(limit);
    JSONValue::Array items;
    for (const auto& s : sources) items.push_back(toJSON(s));
    co_return JSONValue::object({{"sources", std::move(items)}});
  }
  if (method == Method::calendarListEvents) {
    auto decoded = decodeListEventsParams(params);
    const auto list = co_await listEvents(std::move(decoded), limit);
    co_return toJSON(list);
  }
  if (method == Method::calendarGetEvent) {
    auto decoded = decodeGetEventParams(params);
    const auto event = co_await getEvent(std::move(decoded), limit);
    co_return toJSON(event);
  }
  if (method == Method::calendarCheckPermission) co_return toJSON(checkPermission());
  if (method == Method::calendarRequestPermission) {
    const auto permission = co_await requestPermission(limit);
    co_return toJSON(permission);
  }
  if (method == Method::calendarCreateEvent) {
    auto decoded = decodeEventDraft(params);
    const auto created = co_await createEvent(std::move(decoded), limit);
    co_return toJSON(created);
  }
  if (method == Method::calendarUpdateEvent) {
    auto decoded = decodeUpdateEventParams(params);
    const auto updated = co_await updateEvent(std::move(decoded), limit);
    co_return toJSON(updated);
  }
  if (method == Method::calendarDeleteEvent) {
    auto decoded = decodeDeleteEventParams(params);
    const auto deleted = co_await deleteEvent(std::move(decoded), limit);
    co_return toJSON(deleted);
  }
  throw CalendarException(CalendarRPCError::notFound(method));
}

}  // namespace tamsel::calendar
