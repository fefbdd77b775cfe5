#pragma once
// What a window shows, as text: every visible label, button, field and list row, with where
// each control's centre is on the screen. Saved beside screenshots, so a script can check the
// key texts are on screen and click a control by its name without reading pixels.
#include <QString>

class QWidget;

namespace tamsel::desktopui {

// One line per visible item: "<kind>\t<text>\t<x>,<y>" (x, y: the centre, in screen pixels).
QString describeVisible(QWidget* window);

}  // namespace tamsel::desktopui
