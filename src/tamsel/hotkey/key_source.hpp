#pragma once
// Where key presses come from: an input system that sees keys whichever application has focus.
// Each backend reads on a thread of its own and hands its events, in order, to the sink there;
// the caller moves them to its own thread. No input-system headers here.
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "tamsel/hotkey/double_tap.hpp"

namespace tamsel::hotkey {

class KeySource {
 public:
  using Sink = std::function<void(KeyEvent)>;
  // Something the user may want to know (a keyboard plugged in or gone, the server gone).
  using Notice = std::function<void(const std::string&)>;

  virtual ~KeySource() = default;
  // Which backend and what it watches, in words.
  virtual std::string description() const = 0;
  // Starts the reading thread; both callbacks run on it. Called once.
  virtual void start(Sink sink, Notice notice) = 0;
  // Ends and joins the thread; no callback runs after it returns. Idempotent.
  virtual void stop() = 0;
};

// A source, or why there is none (one sentence that names the backend).
struct KeySourceOpening {
  std::unique_ptr<KeySource> source;
  std::string failure;
};

// XInput2 raw key events on the root window of `display` (DISPLAY when empty), which arrive
// whichever X11 client has focus. The Alt keycodes come from the server's keymap.
KeySourceOpening openX11KeySource(const std::optional<std::string>& display);

// The kernel's keyboards under `directory` (normally /dev/input), followed as they come and go.
// Fails when no input device can be read at all (the user is not in the `input` group).
KeySourceOpening openEvdevKeySource(const std::filesystem::path& directory);

}  // namespace tamsel::hotkey
