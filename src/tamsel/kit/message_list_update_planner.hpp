#pragma once
// Turns a change of the displayed message list into the smallest update for the list view, so a
// streamed token does not reload the whole list. Pure; any thread.
//
//   forced, or nothing in common  -> fullReload
//   old ids a prefix of the new   -> update (changed old items), then append (the new tail)
//   old ids a suffix of the new   -> update (changed old items), then prepend (the new head)
//   same ids                      -> update (the changed items)
//   equal lists                   -> nothing
#include <optional>
#include <vector>

#include "tamsel/kit/transcript.hpp"

namespace tamsel::kit {

struct MessageListUpdatePlanner {
  struct WebUpdate {
    enum class Kind { fullReload, update, append, prepend };
    Kind kind;
    std::vector<Message> items;
    bool operator==(const WebUpdate&) const = default;
  };

  static std::optional<std::vector<WebUpdate>> plan(const std::vector<Message>& previous,
                                                    const std::vector<Message>& next,
                                                    bool forceFullReload = false);
};

}  // namespace tamsel::kit
