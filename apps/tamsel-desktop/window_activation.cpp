#include "window_activation.hpp"

#include <QtGui/qguiapplication_platform.h>
#include <xcb/xcb.h>

#include <QGuiApplication>
#include <QWidget>
#include <cstdlib>
#include <cstring>

namespace tamsel::desktopui {

namespace {

xcb_atom_t atom(xcb_connection_t* connection, const char* name) {
  auto* reply = xcb_intern_atom_reply(
      connection,
      xcb_intern_atom(connection, 0, static_cast<std::uint16_t>(std::strlen(name)), name), nullptr);
  const xcb_atom_t value = reply ? reply->atom : xcb_atom_t{XCB_ATOM_NONE};
  std::free(reply);
  return value;
}

// A window manager that follows the EWMH names its check window on the root.
bool hasWindowManager(xcb_connection_t* connection, xcb_window_t root) {
  const xcb_atom_t check = atom(connection, "_NET_SUPPORTING_WM_CHECK");
  if (check == XCB_ATOM_NONE) return false;
  auto* reply = xcb_get_property_reply(
      connection, xcb_get_property(connection, 0, root, check, XCB_ATOM_WINDOW, 0, 1), nullptr);
  const bool present = reply && xcb_get_property_value_length(reply) >= 4;
  std::free(reply);
  return present;
}

void activateOnX11(QWidget& window) {
  auto* x11 = qGuiApp->nativeInterface<QNativeInterface::QX11Application>();
  if (!x11 || !x11->connection()) return;
  auto* connection = x11->connection();
  const auto id = static_cast<xcb_window_t>(window.winId());
  const xcb_screen_t* screen = xcb_setup_roots_iterator(xcb_get_setup(connection)).data;
  if (!screen) return;
  if (hasWindowManager(connection, screen->root)) {
    xcb_client_message_event_t event{};
    event.response_type = XCB_CLIENT_MESSAGE;
    event.format = 32;
    event.window = id;
    event.type = atom(connection, "_NET_ACTIVE_WINDOW");
    event.data.data32[0] = 2;  // source: a pager, i.e. the user asked for this window
    event.data.data32[1] = XCB_CURRENT_TIME;
    xcb_send_event(connection, 0, screen->root,
                   XCB_EVENT_MASK_SUBSTRUCTURE_REDIRECT | XCB_EVENT_MASK_SUBSTRUCTURE_NOTIFY,
                   reinterpret_cast<const char*>(&event));
  } else {
    xcb_set_input_focus(connection, XCB_INPUT_FOCUS_POINTER_ROOT, id, XCB_CURRENT_TIME);
  }
  xcb_flush(connection);
}

}  // namespace

void bringToFront(QWidget& window) {
  if (window.isMinimized()) window.showNormal();
  window.show();
  window.raise();
  window.activateWindow();
  if (QGuiApplication::platformName() == QLatin1String("xcb")) activateOnX11(window);
}

}  // namespace tamsel::desktopui
