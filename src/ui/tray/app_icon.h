// The application's icon, drawn rather than loaded so that it needs no image
// plugin: three level bars on a rounded tile.
#pragma once

#include <QIcon>

namespace vt::ui {

QIcon appIcon();

}  // namespace vt::ui
