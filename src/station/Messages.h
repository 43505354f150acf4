#pragma once
// The messages between the station's threads, as typed values: each kind is a struct
// that knows its console message number (the numbers stay as the logs show them), and
// `Message` carries any of them by value, so nothing a receiver reads lives on the
// sender's stack. Receivers dispatch with std::visit and ignore the kinds not theirs.

#include <cstdint>
#include <string>
#include <variant>

#include "engines/EngineRecords.h"
#include "history/JobRecord.h"
#include "platform/EventLoop.h"

namespace quorvel::app {

inline constexpr std::uint32_t WM_USER = 0x400;
inline constexpr std::uint32_t WM_APP = 0x8000;
inline constexpr std::uint32_t WM_CLOSE = 0x0010;
inline constexpr std::uint32_t WM_COMMAND = 0x0111;

inline constexpr std::uint32_t MSG_DEVICE_EVENT = WM_USER + 5000;   // 6024
inline constexpr std::uint32_t MSG_ALL_STOPPED = WM_USER + 5001;    // 6025, not handled
inline constexpr std::uint32_t MSG_CHECKSUM = WM_USER + 5003;       // 6027, to the preparation window
inline constexpr std::uint32_t MSG_SLOT_PROGRESS = WM_USER + 5004;  // 6028
inline constexpr std::uint32_t MSG_PAC_PROGRESS = WM_USER + 5005;   // 6029, to the preparation window
inline constexpr std::uint32_t MSG_SPRD_BEGIN = WM_APP + 201;       // 0x80C9
inline constexpr std::uint32_t MSG_SPRD_STEP_NAMED = WM_APP + 202;
inline constexpr std::uint32_t MSG_SPRD_PROGRESS = WM_APP + 208;
inline constexpr std::uint32_t MSG_SPRD_RESULT = WM_APP + 217;
inline constexpr std::uint32_t MSG_COLUMN_RESIZED = 0xA713;

// Control and menu command ids of WM_COMMAND.
enum class CommandId : std::uint32_t {
    START_STOP = 1019,
    SETTINGS = 1020,
    HELP = 1021,
    REMOVE_BIND = 32778,
    REMOVE_ALL_BIND = 32779,
    REMOVE_STATISTICS = 32783,
    MERGE_REPEAT_BIND = 32798,
};

// Timer ids besides the slots' 0..15.
inline constexpr int TIMER_CLOCK = 1000;
inline constexpr int TIMER_PLACE_CELLS = 1001;

// ---- to the station thread ----

// A phone appeared in or left the monitored device list (sent: binding runs meanwhile).
struct DeviceEvent {
    std::string instanceId;
    std::string friendlyName;
    EventKind kind = EventKind::MTK;
    bool arrived = false;  // false: it disappeared
    std::string location;  // empty when the socket was not found
    static constexpr std::uint32_t Number() { return MSG_DEVICE_EVENT; }
};

// A control or menu command. `autoStop` marks a Start/Stop the station sends itself to
// end a run: it only stops, so it never starts a run the operator stopped while it was
// on its way.
struct Command {
    CommandId id;
    bool autoStop = false;
    static constexpr std::uint32_t Number() { return WM_COMMAND; }
};

// Every worker has stopped; nobody handles it.
struct AllStopped {
    static constexpr std::uint32_t Number() { return MSG_ALL_STOPPED; }
};

// Message 6028 in its kinds. A slot's status text (kind 0).
struct SlotStatus {
    int slot = 0;
    std::string text;
    static constexpr std::uint32_t Number() { return MSG_SLOT_PROGRESS; }
};

// Which number of the slot's bar a SlotProgress sets (kinds 2..4).
enum class BarValue : std::uint8_t { PERCENT = 2, DONE = 3, TOTAL = 4 };

struct SlotBar {
    int slot = 0;
    BarValue what = BarValue::PERCENT;
    std::uint32_t value = 0;
    static constexpr std::uint32_t Number() { return MSG_SLOT_PROGRESS; }
};

// The engine's account of a failed job (kind 6), sent just before its verdict.
struct SlotAccount {
    int slot = 0;
    std::string step;   // the step the job was in, in words
    std::string error;  // why it failed, as the engine said it
    static constexpr std::uint32_t Number() { return MSG_SLOT_PROGRESS; }
};

// The job switched its phone to DA mode (kind 7), sent just before the status that says
// so: the slot becomes DA_BINDED by this, in any language, never by the status's words.
struct SlotDaSwitched {
    int slot = 0;
    static constexpr std::uint32_t Number() { return MSG_SLOT_PROGRESS; }
};

// The phone the job is flashing, as the engine read it (kind 8): it goes into the job's
// outcome, never onto the row. Sent before the verdict; a later one adds to the first.
struct SlotIdentity {
    int slot = 0;
    PhoneIdentity device{};
    static constexpr std::uint32_t Number() { return MSG_SLOT_PROGRESS; }
};

// The job's verdict (kind 5).
struct SlotVerdict {
    int slot = 0;
    bool passed = false;
    static constexpr std::uint32_t Number() { return MSG_SLOT_PROGRESS; }
};

// The SPRD engine's messages, keyed by the phone's COM port number. The steps are
// indices of the SPRD step names.
enum class SprdStep : int {
    WAITING = 0,
    CHECK_BAUD = 1,
    CONNECTING = 2,
    ERASING = 3,
    DOWNLOADING = 4,
    CHANGE_BAUD = 9,
    FINISH = 10,
    UNPLUGGED = 11,
    ENUMERATING = 13,
};

// The engine begins on the port: its step names count from the first again.
struct SprdBegin {
    unsigned long port = 0;
    static constexpr std::uint32_t Number() { return MSG_SPRD_BEGIN; }
};

// The engine's next step has a name (GetStepName).
struct SprdStepNamed {
    unsigned long port = 0;
    static constexpr std::uint32_t Number() { return MSG_SPRD_STEP_NAMED; }
};

// The engine entered a step; only some steps have a message of their own.
struct SprdStepEntered {
    unsigned long port = 0;
    SprdStep step = SprdStep::WAITING;
    constexpr std::uint32_t Number() const {
        switch (step) {
            case SprdStep::CHECK_BAUD: return WM_APP + 204;
            case SprdStep::CONNECTING: return WM_APP + 205;
            case SprdStep::ERASING: return WM_APP + 206;
            case SprdStep::DOWNLOADING: return WM_APP + 207;
            case SprdStep::CHANGE_BAUD: return WM_APP + 214;
            default: return WM_APP + 203;
        }
    }
};

struct SprdProgress {
    unsigned long port = 0;
    std::uint32_t percent = 0;
    static constexpr std::uint32_t Number() { return MSG_SPRD_PROGRESS; }
};

// The phone on the port, as the engine read it; as SlotIdentity.
struct SprdIdentity {
    unsigned long port = 0;
    PhoneIdentity device{};
    static constexpr std::uint32_t Number() { return MSG_SPRD_RESULT; }
};

// The port's result.
struct SprdResult {
    unsigned long port = 0;
    std::string error;         // empty when the port passed
    bool reEnumerate = false;  // the phone now re-enumerates on its download port
    static constexpr std::uint32_t Number() { return MSG_SPRD_RESULT; }
};

// ---- to the preparation window ----

// Checksum validation progress of one file (6027).
struct ChecksumProgress {
    std::string path;
    std::uint8_t percent = 0;  // of this file, 0..100
    std::uint64_t bytesDone = 0;
    std::uint64_t bytesTotal = 0;
    static constexpr std::uint32_t Number() { return MSG_CHECKSUM; }
};

// A text the checksum validation wants shown in a message box (6027).
struct ChecksumNote {
    std::string text;
    static constexpr std::uint32_t Number() { return MSG_CHECKSUM; }
};

// The checksum validation's verdict (6027).
struct ChecksumResult {
    bool passed = false;
    static constexpr std::uint32_t Number() { return MSG_CHECKSUM; }
};

// PAC extraction (6029): begins with the package's size, moves on in percent, ends.
struct PacStarted {
    std::uint64_t packageSize = 0;
    static constexpr std::uint32_t Number() { return MSG_PAC_PROGRESS; }
};
struct PacPercent {
    int percent = 0;
    static constexpr std::uint32_t Number() { return MSG_PAC_PROGRESS; }
};
struct PacEnded {
    bool ok = false;
    static constexpr std::uint32_t Number() { return MSG_PAC_PROGRESS; }
};

// The window's work is over: it closes.
struct CloseWindow {
    static constexpr std::uint32_t Number() { return WM_CLOSE; }
};

using Message =
    std::variant<DeviceEvent, Command, AllStopped, SlotStatus, SlotBar, SlotAccount, SlotIdentity, SlotDaSwitched,
                 SlotVerdict, SprdBegin, SprdStepNamed, SprdStepEntered, SprdProgress, SprdIdentity, SprdResult,
                 ChecksumProgress, ChecksumNote, ChecksumResult, PacStarted, PacPercent, PacEnded, CloseWindow>;

// The console message number of `message`, for logs.
inline std::uint32_t NumberOf(const Message& message) {
    return std::visit([](const auto& m) { return m.Number(); }, message);
}

// Overloaded lambdas for std::visit.
template <class... Fs>
struct Overloaded : Fs... {
    using Fs::operator()...;
};
template <class... Fs>
Overloaded(Fs...) -> Overloaded<Fs...>;

// A window as its message senders see it. Any thread may call. Send waits until the
// receiver has handled the message and returns its result; Post does not wait.
class MessageWindow {
public:
    virtual ~MessageWindow() = default;
    virtual platform::LResult Send(Message message) = 0;
    virtual void Post(Message message) = 0;
    virtual void SetTimer(int id, platform::Millis period) = 0;
    virtual void KillTimer(int id) = 0;
};

// What the station thread runs for messages and timers. Called on the station thread only.
class MessageHandler : public platform::TimerHandler {
public:
    virtual platform::LResult HandleMessage(const Message& message) = 0;
};

}  // namespace quorvel::app
