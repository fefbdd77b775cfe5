#include "tamsel/desktop/session_search.hpp"

#include <algorithm>
#include <boost/asio/steady_timer.hpp>
#include <cctype>
#include <unordered_map>

#include "tamsel/base/change_publisher.hpp"
#include "tamsel/base/strings.hpp"
#include "tamsel/base/task_scope.hpp"
#include "tamsel/bridge/daemon_client.hpp"

namespace tamsel::desktop {

namespace asio = boost::asio;
using bridge::DaemonSession;

namespace {
constexpr const char* kSource = "SessionSearch";

base::Timestamp newestOf(const DaemonSession& s) {
  return s.updatedAt ? *s.updatedAt : s.createdAt.value_or(base::Timestamp{});
}

void sortNewestFirst(std::vector<DaemonSession>& sessions) {
  std::stable_sort(sessions.begin(), sessions.end(),
                   [](const auto& a, const auto& b) { return newestOf(a) > newestOf(b); });
}
}  // namespace

struct SessionSearch::Impl : std::enable_shared_from_this<Impl> {
  Impl(base::MainExecutor& executor, Search search, std::chrono::milliseconds debounce)
      : search(std::move(search)),
        debounce(debounce),
        publisher(executor),
        timer(executor.ioExecutor()),
        tasks(executor.ioExecutor()) {}

  Search search;
  std::chrono::milliseconds debounce;
  base::ChangePublisher publisher;
  asio::steady_timer timer;
  base::TaskScope tasks;
  State state;
  // Moves with every new query; an answer carrying an older one is dropped.
  std::uint64_t generation = 0;
  // How many matches the engine has handed out for the current query (the next page's offset).
  std::int64_t fetched = 0;

  State& edit() {
    publisher.publish();
    return state;
  }

  void ask(std::uint64_t asked) {
    tasks.spawn(
        [](std::shared_ptr<Impl> self, std::uint64_t asked) -> asio::awaitable<void> {
          bridge::SessionSearchQuery query{self->state.query, pageSize, self->fetched};
          try {
            auto page = co_await self->search(std::move(query));
            if (self->tasks.isClosed() || asked != self->generation) co_return;
            auto& s = self->edit();
            self->fetched += static_cast<std::int64_t>(page.sessions.size());
            for (auto& found : page.sessions)
              if (found.snippet) found.snippet = focusSnippet(*found.snippet, self->state.query);
            s.hasMore = page.hasMore && !page.sessions.empty();
            s.searching = false;
            s.notice.reset();
            merge(s.found, std::move(page.sessions));
          } catch (const std::exception& e) {
            if (self->tasks.isClosed() || asked != self->generation) co_return;
            auto& s = self->edit();
            s.searching = false;
            s.hasMore = false;
            s.notice = std::string("Searching the messages failed: ") + e.what();
          }
        }(shared_from_this(), asked),
        kSource);
  }
};

SessionSearch::SessionSearch(base::MainExecutor& executor, Search search,
                             std::chrono::milliseconds debounce)
    : impl_(std::make_shared<Impl>(executor, std::move(search), debounce)) {}

SessionSearch::~SessionSearch() {
  impl_->publisher.close();
  impl_->timer.cancel();
  impl_->tasks.close();
}

SessionSearch::Search SessionSearch::through(bridge::DaemonClient& client) {
  return [&client](bridge::SessionSearchQuery query) {
    return client.searchSessions(std::move(query));
  };
}

base::Signal<>& SessionSearch::changed() { return impl_->publisher.changed(); }
auto SessionSearch::state() const -> const State& { return impl_->state; }

void SessionSearch::setQuery(std::string text) {
  auto& impl = *impl_;
  text = std::string(base::trim(text));
  if (text == impl.state.query) return;
  const auto asked = ++impl.generation;
  impl.fetched = 0;
  auto& s = impl.edit();
  s.query = std::move(text);
  s.found.clear();
  s.hasMore = false;
  s.notice.reset();
  s.searching = !s.query.empty();
  impl.timer.cancel();
  if (!s.searching) return;
  impl.timer.expires_after(impl.debounce);
  impl.timer.async_wait([weak = std::weak_ptr<Impl>(impl_), asked](boost::system::error_code ec) {
    const auto self = weak.lock();
    if (ec || !self || self->tasks.isClosed() || asked != self->generation) return;
    self->ask(asked);
  });
}

void SessionSearch::loadMore() {
  auto& impl = *impl_;
  if (impl.state.searching || !impl.state.hasMore || impl.state.query.empty()) return;
  impl.edit().searching = true;
  impl.ask(impl.generation);
}

void SessionSearch::merge(std::vector<DaemonSession>& into, std::vector<DaemonSession> page) {
  std::unordered_map<std::string, std::size_t> at;
  for (std::size_t i = 0; i < into.size(); ++i) at.emplace(into[i].id, i);
  for (auto& s : page) {
    const auto known = at.find(s.id);
    if (known == at.end()) {
      at.emplace(s.id, into.size());
      into.push_back(std::move(s));
      continue;
    }
    auto& kept = into[known->second];
    if (!s.snippet) s.snippet = std::move(kept.snippet);
    kept = std::move(s);
  }
  sortNewestFirst(into);
}

std::string SessionSearch::focusSnippet(std::string_view snippet, std::string_view query,
                                        std::size_t lead) {
  const auto lower = [](std::string_view text) {
    std::string out(text);
    for (auto& c : out) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return out;
  };
  const auto at = query.empty() ? std::string::npos : lower(snippet).find(lower(query));
  if (at == std::string::npos || at <= lead) return std::string(snippet);
  auto from = at - lead;
  // From the next word's start when one begins before the match; never inside a UTF-8 sequence.
  if (const auto space = snippet.find(' ', from); space != std::string_view::npos && space < at)
    from = space + 1;
  while (from < at && (static_cast<unsigned char>(snippet[from]) & 0xC0) == 0x80) ++from;
  return "…" + std::string(snippet.substr(from));
}

std::vector<DaemonSession> SessionSearch::joinWithListed(std::vector<DaemonSession> titleMatches,
                                                         const std::vector<DaemonSession>& found,
                                                         const std::optional<std::string>& agent) {
  std::unordered_map<std::string, std::size_t> at;
  for (std::size_t i = 0; i < titleMatches.size(); ++i) at.emplace(titleMatches[i].id, i);
  for (const auto& s : found) {
    if (agent && s.agent && *s.agent != *agent) continue;
    // A title match needs no snippet: its title already says why it is there.
    if (at.contains(s.id)) continue;
    at.emplace(s.id, titleMatches.size());
    titleMatches.push_back(s);
  }
  sortNewestFirst(titleMatches);
  return titleMatches;
}

}  // namespace tamsel::desktop
