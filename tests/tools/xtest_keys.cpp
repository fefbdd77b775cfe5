// Sends an exact key sequence to an X server through XTest, for the hotkey tests (xdotool adds
// releases and modifier keys of its own).
//
// Usage: xtest-keys DISPLAY STEP...
//   +KEYSYM   press the key that carries KEYSYM (e.g. +Alt_L)
//   -KEYSYM   release it
//   +#CODE    press keycode CODE (-#CODE releases it)
//   map:CODE=KEYSYM  make KEYSYM the only symbol of keycode CODE (clients get MappingNotify)
//   sleep:MS  wait MS milliseconds
//   stamp     print CLOCK_MONOTONIC in seconds: when the server had every earlier step
//   unfocus   take the keyboard focus from every window (as switching to another app would)
// Every event is synced before the next step, so the waits are what the server sees.
#include <X11/Xlib.h>
#include <X11/extensions/XTest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

int main(int argc, char** argv) {
  if (argc < 2) {
    fprintf(stderr, "usage: %s DISPLAY [+KEYSYM|-KEYSYM|sleep:MS]...\n", argv[0]);
    return 2;
  }
  Display* display = XOpenDisplay(argv[1]);
  if (!display) {
    fprintf(stderr, "xtest-keys: cannot open display %s\n", argv[1]);
    return 1;
  }
  int event, error, major, minor;
  if (!XTestQueryExtension(display, &event, &error, &major, &minor)) {
    fprintf(stderr, "xtest-keys: no XTEST on %s\n", argv[1]);
    return 1;
  }
  for (int i = 2; i < argc; ++i) {
    const char* step = argv[i];
    if (strncmp(step, "sleep:", 6) == 0) {
      const long ms = std::strtol(step + 6, nullptr, 10);
      struct timespec wait = {ms / 1000, (ms % 1000) * 1000000L};
      nanosleep(&wait, nullptr);
      continue;
    }
    if (strcmp(step, "stamp") == 0) {
      timespec now{};
      clock_gettime(CLOCK_MONOTONIC, &now);
      printf("%.6f\n", static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9);
      fflush(stdout);
      continue;
    }
    if (strcmp(step, "unfocus") == 0) {
      XSetInputFocus(display, None, RevertToNone, CurrentTime);
      XSync(display, False);
      continue;
    }
    if (strncmp(step, "map:", 4) == 0) {
      char* rest = nullptr;
      const long code = std::strtol(step + 4, &rest, 10);
      KeySym sym = rest && *rest == '=' ? XStringToKeysym(rest + 1) : NoSymbol;
      if (sym == NoSymbol || code < 8 || code > 255) {
        fprintf(stderr, "xtest-keys: bad step %s\n", step);
        return 2;
      }
      // As wide as the current map: a narrower change is not taken by every server.
      int width = 0;
      KeySym* current = XGetKeyboardMapping(display, static_cast<KeyCode>(code), 1, &width);
      if (current) XFree(current);
      KeySym row[16] = {sym};
      XChangeKeyboardMapping(display, static_cast<int>(code), width > 0 && width <= 16 ? width : 1,
                             row, 1);
      XSync(display, False);
      continue;
    }
    if ((step[0] != '+' && step[0] != '-') || !step[1]) {
      fprintf(stderr, "xtest-keys: bad step %s\n", step);
      return 2;
    }
    KeyCode code = 0;
    if (step[1] == '#') {
      code = static_cast<KeyCode>(std::strtol(step + 2, nullptr, 10));
    } else {
      const KeySym sym = XStringToKeysym(step + 1);
      code = sym == NoSymbol ? 0 : XKeysymToKeycode(display, sym);
    }
    if (!code) {
      fprintf(stderr, "xtest-keys: no key carries %s\n", step + 1);
      return 2;
    }
    XTestFakeKeyEvent(display, code, step[0] == '+' ? True : False, CurrentTime);
    XSync(display, False);
  }
  XCloseDisplay(display);
  return 0;
}
