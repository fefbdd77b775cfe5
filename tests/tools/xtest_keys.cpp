// Sends an exact key sequence to an X server through XTest, for the hotkey tests (xdotool adds
// releases and modifier keys of its own).
//
// Usage: xtest-keys DISPLAY STEP...
//   +KEYSYM   press the key that carries KEYSYM (e.g. +Alt_L)
//   -KEYSYM   release it
//   sleep:MS  wait MS milliseconds
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
    if ((step[0] != '+' && step[0] != '-') || !step[1]) {
      fprintf(stderr, "xtest-keys: bad step %s\n", step);
      return 2;
    }
    const KeySym sym = XStringToKeysym(step + 1);
    const KeyCode code = sym == NoSymbol ? 0 : XKeysymToKeycode(display, sym);
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
