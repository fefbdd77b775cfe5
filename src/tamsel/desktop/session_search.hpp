#pragma once
// The sidebar's search over the text of every session's messages, through the engine's
// "/sessions/search". The sidebar filters the sessions it lists by title at once; this asks the
// engine for the rest once typing pauses, and the two are joined (each session once, newest
// first) by joinWithListed().
//
// Lives on the main executor: call every method there; changes are published there through
// changed(). An answer is applied only while its query is still the one asked: a slow answer to
// an older query never replaces a newer one's. A failed search leaves a short notice and no
// results; the title filter keeps working.
#include <boost/asio/awaitable.hpp>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tamsel/base/main_executor.hpp"
#include "tamsel/base/signal.hpp"
#include "tamsel/bridge/daemon_records.hpp"

namespace tamsel::bridge {
class DaemonClient;
}

namespace tamsel::desktop {

class SessionSearch {
 public:
  using Search =
      std::function<boost::asio::awaitable<bridge::SessionPage>(bridge::SessionSearchQuery)>;
  static constexpr std::chrono::milliseconds defaultDebounce{250};
  static constexpr std::int64_t pageSize = 50;

  struct State {
    // What `found` answers (trimmed); empty when nothing is searched.
    std::string query;
    // Newest first, each session once.
    std::vector<bridge::DaemonSession> found;
    // A search for `query` is waiting for its pause or its answer.
    bool searching = false;
    // The engine holds more matches than `found`: loadMore() asks for them.
    bool hasMore = false;
    // Why the last search failed, in a few words.
    std::optional<std::string> notice;
  };

  // `search` must stay callable for the controller's life.
  SessionSearch(base::MainExecutor& executor, Search search,
                std::chrono::milliseconds debounce = defaultDebounce);
  // The engine's search through its client (which must outlive the controller).
  static Search through(bridge::DaemonClient& client);
  // Searches in flight are cancelled; nothing of the controller runs afterwards.
  ~SessionSearch();
  SessionSearch(const SessionSearch&) = delete;
  SessionSearch& operator=(const SessionSearch&) = delete;

  base::Signal<>& changed();
  const State& state() const;

  // The text typed so far. The engine is asked once it stays the same for the debounce time; an
  // empty text clears the results at once.
  void setQuery(std::string text);
  // The next page of the current query's matches; ignored while a search runs or when there
  // are no more.
  void loadMore();

  // Adds a page of matches to `into`: sessions already there are updated in place (a snippet is
  // kept when the newer record has none), and the whole stays newest first.
  static void merge(std::vector<bridge::DaemonSession>& into,
                    std::vector<bridge::DaemonSession> page);
  // `snippet` from a little before the first match of `query` (ASCII case aside), so the match
  // shows at the start of a narrow row: at most `lead` bytes before it, from the start of a word,
  // marked with "…" when cut. Unchanged when `query` is not in it.
  static std::string focusSnippet(std::string_view snippet, std::string_view query,
                                  std::size_t lead = 16);
  // The sidebar's rows for a search: the listed sessions whose title matched, joined with the
  // sessions found by their messages, newest first; a listed record wins over a found one (it is
  // fresher). Found sessions of an agent other than `agent` are left out: the
  // sidebar opens sessions of its agent only.
  static std::vector<bridge::DaemonSession> joinWithListed(
      std::vector<bridge::DaemonSession> titleMatches,
      const std::vector<bridge::DaemonSession>& found, const std::optional<std::string>& agent);

 private:
  struct Impl;
  std::shared_ptr<Impl> impl_;
};

}  // namespace tamsel::desktop
