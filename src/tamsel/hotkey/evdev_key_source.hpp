#pragma once
// The evdev backend, apart so it can be fed from any descriptor: it reads `struct input_event`
// records itself (libevdev only tells keyboards from other devices), so a pipe works as a device.
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "tamsel/hotkey/key_source.hpp"

namespace tamsel::hotkey {

class EvdevKeySource final : public KeySource {
 public:
  // The name of the keyboard open on `fd`; nothing when the device is no keyboard.
  using KeyboardProbe = std::function<std::optional<std::string>(int fd)>;
  // libevdev's view: a device with an Alt key is a keyboard.
  static std::optional<std::string> probeWithLibevdev(int fd);

  // Watches `directory` for keyboards that appear (event* entries) once started.
  explicit EvdevKeySource(std::filesystem::path directory,
                          KeyboardProbe probe = &EvdevKeySource::probeWithLibevdev);
  ~EvdevKeySource() override;

  // What a look through the directory found.
  struct Scan {
    int keyboards = 0;    // opened
    int unreadable = 0;   // event* entries that could not be opened
    int others = 0;       // readable devices without Alt keys
    std::string problem;  // the first reason an entry could not be opened
    bool directoryMissing = false;
  };
  // Opens every keyboard in the directory not yet open. Before start() or from its thread.
  Scan scan();

  // Reads `fd` (owned from now on) as one more keyboard; thread-safe, also after start(). The
  // device ends at end of file or when the kernel says it is gone (ENODEV).
  void addDevice(int fd, std::string name);

  std::string description() const override;
  void start(Sink sink, Notice notice) override;
  void stop() override;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace tamsel::hotkey
