#pragma once
// Bringing the window to the front for the user's own summon (the global double tap).
class QWidget;

namespace tamsel::desktopui {

// Shows, raises and gives the keyboard to `window`. On X11 Qt asks as an application would,
// with the time of the last event it saw, which a window manager's focus-stealing prevention
// (or the server, without one) may refuse when another client had the focus since: a summon is
// the user's direct request, so it is made as a pager's, or as the focus itself with no manager.
void bringToFront(QWidget& window);

}  // namespace tamsel::desktopui
