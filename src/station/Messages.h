#pragma once
// Message numbers of the console window, as its senders use them.

#include <cstdint>

namespace quorvel::app {

inline constexpr std::uint32_t WM_USER = 0x400;
inline constexpr std::uint32_t WM_APP = 0x8000;
inline constexpr std::uint32_t WM_COMMAND = 0x0111;

inline constexpr std::uint32_t MSG_DEVICE_EVENT = WM_USER + 5000;     // 6024, wParam -> DeviceEventRecord
inline constexpr std::uint32_t MSG_ALL_STOPPED = WM_USER + 5001;      // 6025, not handled
inline constexpr std::uint32_t MSG_CHECKSUM = WM_USER + 5003;         // 6027, to the preparation window
inline constexpr std::uint32_t MSG_SLOT_PROGRESS = WM_USER + 5004;    // 6028, slot in bits 16..23
inline constexpr std::uint32_t MSG_PAC_PROGRESS = WM_USER + 5005;     // 6029, to the preparation window
inline constexpr std::uint32_t MSG_SPRD_FIRST = WM_APP + 201;         // 0x80C9, wParam = COM port number
inline constexpr std::uint32_t MSG_SPRD_LAST = WM_APP + 217;
inline constexpr std::uint32_t MSG_COLUMN_RESIZED = 0xA713;

// WM_COMMAND wParam values (control or menu command ids).
inline constexpr std::uint32_t CMD_START_STOP = 1019;
// lParam of a CMD_START_STOP that the station sends itself to end a run: it only
// stops, so it never starts a run the operator stopped while it was on its way.
inline constexpr std::int64_t kAutoStop = 1;
inline constexpr std::uint32_t CMD_SETTINGS = 1020;
inline constexpr std::uint32_t CMD_HELP = 1021;
inline constexpr std::uint32_t CMD_REMOVE_BIND = 32778;
inline constexpr std::uint32_t CMD_REMOVE_ALL_BIND = 32779;
inline constexpr std::uint32_t CMD_REMOVE_STATISTICS = 32783;
inline constexpr std::uint32_t CMD_MERGE_REPEAT_BIND = 32798;

// Timer ids besides the slots' 0..15.
inline constexpr int TIMER_CLOCK = 1000;
inline constexpr int TIMER_PLACE_CELLS = 1001;

}  // namespace quorvel::app
