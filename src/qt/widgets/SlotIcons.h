#pragma once
// The slot list's image list: 24 x 24 pictures drawn for this station, by index
// (0 spare, 1 a bound socket without a phone, 2 a phone on the socket).
// GUI thread only.

#include <QPixmap>

namespace quorvel::widgets {

inline constexpr int kSlotIconSize = 24;
inline constexpr int kSlotIconCount = 3;

// A null pixmap for an index outside the list, as an empty image-list slot draws nothing.
QPixmap SlotIcon(int index);

}  // namespace quorvel::widgets
