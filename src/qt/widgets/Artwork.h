#pragma once
// The station's own drawings (data/artwork), compiled into the program: the
// operation buttons by their icon numbers, the logo and the window icon.
// GUI thread only.

#include <QIcon>
#include <QPixmap>

namespace quorvel::widgets {

// A button's icon from its "in" (pointer over it) and "out" icon numbers; a null
// icon for numbers no button uses.
QIcon ButtonIcon(int iconIn, int iconOut);
QPixmap Logo();
QIcon WindowIcon();

}  // namespace quorvel::widgets
