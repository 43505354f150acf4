#pragma once
// A slot's row: keeps the slot's state (slots/SlotState) as the engines' and the
// worker's messages change it, and renders it into the row's bar and result texts.
// Threads: the message operations (Show, ShowStep, ShowSprdProgress,
// SprdFinished, SetStepName) run on the station thread; JobStart's cell updates,
// SetSprdPhase, BeginJob, State, Outcome and EndJob come from the slot's worker. The
// state sits under one lock, the row itself is in the thread-safe slot-list model.

#include <cstdint>
#include <functional>
#include <mutex>
#include <string>

#include "engines/EngineInterfaces.h"
#include "slots/SlotState.h"
#include "station/Messages.h"
#include "station/SlotListModel.h"

namespace quorvel::app {
class Station;
}

namespace quorvel::engine {

inline constexpr app::Rgb kColourBlue = app::MakeRgb(0, 0, 255);
inline constexpr app::Rgb kColourRed = app::MakeRgb(255, 0, 0);
inline constexpr app::Rgb kColourGreen = app::MakeRgb(0, 255, 0);
inline constexpr app::Rgb kColourDarkGreen = app::MakeRgb(52, 107, 36);
inline constexpr app::Rgb kColourPurple = app::MakeRgb(102, 51, 153);
inline constexpr app::Rgb kColourGrey = 0x808080;
inline constexpr int kIconPort = app::kIconSocket;
inline constexpr int kIconDevice = app::kIconPhone;

// A bound slot's row as drawn before its phone comes: number, the bound port's name in
// grey with the port icon, the binding state in blue.
void FillBoundRow(app::Station& station, int slot, app::SlotRow& row);

class SlotDisplay {
public:
    explicit SlotDisplay(app::Station& station);
    SlotDisplay(const SlotDisplay&) = delete;
    SlotDisplay& operator=(const SlotDisplay&) = delete;

    // The slot messages of the worker and the MTK-style engines, for the slot they name.
    void Show(const app::SlotStatus& message);
    void Show(const app::SlotBar& message);
    void Show(const app::SlotAccount& message);
    void Show(const app::SlotIdentity& message) { ShowIdentity(message.device); }
    void Show(const app::SlotDaSwitched& message);
    void Show(const app::SlotVerdict& message);
    // The SPRD engine's messages.
    void ShowStep(int row, app::SprdStep step);
    void ShowSprdProgress(int row, std::uint32_t percent);
    void SprdFinished(int row, const app::SprdResult& result);
    // The phone's identity joins the job's outcome; it never shows on the row.
    void ShowIdentity(const app::PhoneIdentity& device);
    void SetStepName(int row, const std::string& name);
    void SetSprdPhase(int phase);

    // Cell operations (column 2 bar, column 4 result).
    void ShowCell(int row, int column);
    void HideCell(int row, int column);
    void SetResult(int row, const std::string& text, app::Rgb colour);

    // The slot's state: what the worker's decisions read.
    SlotState State() const;
    SlotStage Stage() const;

    // The worker's job begins: the outcome starts empty and the row shows a flash.
    void BeginJob(int row);
    // What the engine has said of the running (or last) job's end so far.
    SlotOutcome Outcome() const;
    // The worker's final word on the job: the row shows its verdict, or that it was cut short.
    void EndJob(int row, const SlotOutcome& outcome, bool interrupted);

    // Told of each change of the state with the new value, on the changing thread under
    // the display's lock, so in order: it must return at once and never call back.
    void SetStateObserver(std::function<void(const SlotState&)> observer);

private:
    // The bar text for the current fields; called with mutex_ held.
    std::string ComposeLocked(int row) const;
    void ShowComposedLocked(int row);
    void CountResultLocked(int row, bool passed);
    // The row's phase and counts for the state's stage.
    void ShowStageLocked(int row);
    void NotifyLocked() const;

    app::Station& station_;
    mutable std::mutex mutex_;
    SlotState state_;                                 // under mutex_
    std::function<void(const SlotState&)> observer_;  // under mutex_
};

// The slot timer's tick: column 3 = time since the slot's job started, "%H:%M:%S".
void ShowSlotElapsed(app::Station& station, int slot);

}  // namespace quorvel::engine
