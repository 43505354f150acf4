#include "slots/SlotDisplay.h"

#include <cstdio>
#include <ctime>
#include <iterator>

#include "packages/TextFormat.h"
#include "station/Station.h"
#include "station/Texts.h"

namespace quorvel::engine {

namespace {
using packages::Format;

bool Contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

app::SlotPhase PhaseOf(SlotStage stage) {
    switch (stage) {
        case SlotStage::IDLE: return app::SlotPhase::IDLE;
        case SlotStage::FLASHING:
        case SlotStage::SWITCHING: return app::SlotPhase::FLASHING;
        case SlotStage::PASS: return app::SlotPhase::PASS;
        case SlotStage::FAIL: return app::SlotPhase::FAIL;
        case SlotStage::INTERRUPTED: return app::SlotPhase::INTERRUPTED;
    }
    return app::SlotPhase::IDLE;
}
}  // namespace

void FillBoundRow(app::Station& station, int slot, app::SlotRow& row) {
    char number[16];
    std::snprintf(number, sizeof number, "%02d", slot + 1);
    row.cells[app::COL_NUMBER].text = number;
    row.cells[app::COL_DEVICE].icon = kIconPort;
    row.cells[app::COL_DEVICE].text = station.bindings.ComName(slot);
    row.cells[app::COL_DEVICE].colour = kColourGrey;
    row.cells[app::COL_BINDED].text = app::BindStateName(station.bindings.State(slot));
    row.cells[app::COL_BINDED].colour = kColourBlue;
    // Bar and label come hidden: an empty bar would read as a job at 0 %.
    row.progress.visible = false;
    row.result.visible = false;
}

SlotDisplay::SlotDisplay(app::Station& station) : station_(station) {}

// The bar shows its text as it is, so "%" appears once here where the original
// formats escape it for a second formatting pass.
std::string SlotDisplay::ComposeLocked(int row) const {
    const auto& lang = station_.language;
    const SlotState& s = state_;
    if (s.done == kUnknown || s.total == kUnknown) {
        if (Contains(s.status, lang.ChooseText(app::texts::kStatusDownloadComplete))) {
            const auto start = station_.slots.startTime.at(static_cast<std::size_t>(row & 0xF)).load();
            const double elapsed = static_cast<double>(station_.clock.WallSeconds() - start);
            const double speed = station_.validatedMegabytes.load() / (elapsed - 10);
            if (speed > 0 && speed < 20) return Format("%s(%u%%)(%.2f MB/s)", s.status.c_str(), s.percent, speed);
            return Format("%s(%u%%)", s.status.c_str(), s.percent);
        }
        if (Contains(s.status, lang.ChooseText(app::texts::kStatusMemoryTesting))) return s.status;
        return Format("%s(%u%%)", s.status.c_str(), s.percent);
    }
    if (s.total < 100) return Format("%s(%d/%d)(%u%%)", s.status.c_str(), s.done, s.total, s.percent);
    return Format("%s(%.2lf/%.2lfM)(%u%%)", s.status.c_str(), s.done / 1024.0 / 1024.0, s.total / 1024.0 / 1024.0,
                  s.percent);
}

void SlotDisplay::ShowComposedLocked(int row) {
    const std::string text = ComposeLocked(row);
    const int position = static_cast<int>(state_.percent);
    station_.slotList.EditRow(row, [&](app::SlotRow& r) {
        r.progress.position = position;
        r.progress.text = text;
        r.progress.visible = true;
    });
}

void SlotDisplay::ShowStageLocked(int row) {
    const SlotState& s = state_;
    const bool verdict = s.stage == SlotStage::PASS || s.stage == SlotStage::FAIL;
    station_.slotList.EditRow(row, [&](app::SlotRow& r) {
        r.phase = PhaseOf(s.stage);
        if (!verdict) return;
        r.progress.barColourFrom = s.stage == SlotStage::PASS ? kColourGreen : kColourRed;
        r.progress.textColour = app::kBlack;
        r.passCount = s.passCount;
        r.jobCount = s.jobCount;
    });
}

void SlotDisplay::Show(const app::SlotStatus& m) {
    const int row = m.slot;
    const auto& lang = station_.language;
    std::lock_guard g(mutex_);
    state_.status = m.text;
    state_.step = state_.status;
    if (Contains(state_.status, lang.ChooseText(app::texts::kStatusFormatting)) ||
        Contains(state_.status, lang.ChooseText(app::texts::kStatusEnterMeta))) {
        state_.total = kUnknown;
        ShowCell(row, app::COL_PROGRESS);
    }
    if (Contains(state_.status, lang.ChooseText(app::texts::kStatusBindIndex)))
        station_.slotList.EditRow(row, [](app::SlotRow& r) { r.progress.barColourFrom = kColourPurple; });
    ShowComposedLocked(row);
    NotifyLocked();
}

void SlotDisplay::Show(const app::SlotBar& m) {
    std::lock_guard g(mutex_);
    switch (m.what) {
        case app::BarValue::PERCENT: state_.percent = m.value; break;
        case app::BarValue::DONE: state_.done = m.value; break;
        case app::BarValue::TOTAL: state_.total = m.value; break;
    }
    ShowComposedLocked(m.slot);
    NotifyLocked();
}

// Not part of the bar's text: the engine's account of the job's end.
void SlotDisplay::Show(const app::SlotAccount& m) {
    std::lock_guard g(mutex_);
    state_.outcome.step = m.step;
    state_.outcome.error = m.error;
}

void SlotDisplay::ShowIdentity(const app::PhoneIdentity& device) {
    std::lock_guard g(mutex_);
    state_.outcome.device.Update(device);
    NotifyLocked();
}

void SlotDisplay::Show(const app::SlotDaSwitched& m) {
    std::lock_guard g(mutex_);
    state_.daSwitched = true;
    if (m.slot < app::kSlotCount) station_.bindings.SetState(m.slot, app::BindState::DaBinded);
}

void SlotDisplay::Show(const app::SlotVerdict& m) {
    std::lock_guard g(mutex_);
    if (m.passed) {
        state_.total = kUnknown;
        state_.percent = 100;
    }
    CountResultLocked(m.slot, m.passed);
}

void SlotDisplay::CountResultLocked(int row, bool passed) {
    SlotState& s = state_;
    if (passed) ++s.passCount;
    ++s.jobCount;
    s.stage = passed ? SlotStage::PASS : SlotStage::FAIL;
    s.outcome.result = passed ? SlotOutcome::Result::PASSED : SlotOutcome::Result::FAILED;
    // An engine that gave no account of a failure: its last status is all there is.
    if (!passed && s.outcome.step.empty() && s.outcome.error.empty()) s.outcome.step = s.step;
    ShowStageLocked(row);
    ShowComposedLocked(row);
    SetResult(row,
              Format("%s(%u/%u)", passed ? app::texts::kResultPass : app::texts::kResultFail, s.passCount, s.jobCount),
              passed ? kColourDarkGreen : kColourRed);
    NotifyLocked();
}

void SlotDisplay::ShowStep(int row, app::SprdStep step) {
    const int index = static_cast<int>(step);
    if (index < 0 || index >= static_cast<int>(std::size(app::texts::kSprdStepNames))) return;
    std::lock_guard g(mutex_);
    state_.status = app::texts::kSprdStepNames[index];
    state_.step = state_.status;
    const int position = static_cast<int>(state_.percent);
    const std::string text = state_.status;
    station_.slotList.EditRow(row, [&](app::SlotRow& r) {
        r.progress.position = position;
        r.progress.text = text;
        r.progress.visible = true;
    });
    NotifyLocked();
}

void SlotDisplay::ShowSprdProgress(int row, std::uint32_t percent) {
    std::lock_guard g(mutex_);
    const std::string text = Format("[Step:%s] %s(%u%%)", state_.sprdStepName.c_str(), state_.status.c_str(), percent);
    station_.slotList.EditRow(row, [&](app::SlotRow& r) {
        r.progress.position = static_cast<int>(percent);
        r.progress.text = text;
        r.progress.visible = true;
    });
    // The SPRD engine's percent lives on its bar only; observers get it with the state.
    if (observer_) {
        SlotState shown = state_;
        shown.percent = percent;
        observer_(shown);
    }
}

void SlotDisplay::SprdFinished(int row, const app::SprdResult& result) {
    std::lock_guard g(mutex_);
    const std::string& error = result.error;
    const bool passed = error.empty();
    SlotState& s = state_;
    s.status = app::texts::kSprdStepNames[static_cast<int>(app::SprdStep::FINISH)];
    if (passed && s.sprdPhase == 0 && result.reEnumerate) {
        s.stage = SlotStage::SWITCHING;
        station_.slotList.EditRow(row, [](app::SlotRow& r) {
            r.progress.text = app::texts::kSprdStepNames[static_cast<int>(app::SprdStep::ENUMERATING)];
            r.progress.visible = true;
        });
        SetResult(row, app::texts::kResultOnSwitch, kColourBlue);
        NotifyLocked();
        return;
    }
    std::string barText = passed ? app::texts::kBarPassed : app::texts::kBarFailed;
    if (!passed && !error.empty()) barText += ": " + error;
    if (passed) ++s.passCount;
    ++s.jobCount;
    s.stage = passed ? SlotStage::PASS : SlotStage::FAIL;
    s.outcome.result = passed ? SlotOutcome::Result::PASSED : SlotOutcome::Result::FAILED;
    s.outcome.step = passed ? "" : s.step;
    s.outcome.error = error;
    ShowStageLocked(row);
    SetResult(row,
              Format("%s(%u/%u)", passed ? app::texts::kResultPass : app::texts::kResultFail, s.passCount, s.jobCount),
              passed ? kColourDarkGreen : kColourRed);
    station_.slotList.EditRow(row, [&](app::SlotRow& r) { r.progress.text = barText; });
    NotifyLocked();
}

void SlotDisplay::SetStepName(int, const std::string& name) {
    std::lock_guard g(mutex_);
    state_.sprdStepName = name;
    if (!name.empty()) state_.step = name;
    NotifyLocked();
}

void SlotDisplay::SetSprdPhase(int phase) {
    std::lock_guard g(mutex_);
    state_.sprdPhase = phase;
}

void SlotDisplay::ShowCell(int row, int column) {
    station_.slotList.EditRow(row, [column](app::SlotRow& r) {
        if (column == app::COL_PROGRESS) {
            r.progress.barColourTo = kColourBlue;
            r.progress.textColour = app::kWhite;
            r.progress.backTextColour = app::kBlack;
            r.progress.visible = true;
        } else if (column == app::COL_RESULT) {
            r.result.visible = true;
        }
    });
}

void SlotDisplay::HideCell(int row, int column) {
    station_.slotList.EditRow(row, [column](app::SlotRow& r) {
        if (column == app::COL_PROGRESS) r.progress.visible = false;
        if (column == app::COL_RESULT) r.result.visible = false;
    });
}

void SlotDisplay::SetResult(int row, const std::string& text, app::Rgb colour) {
    station_.slotList.EditRow(row, [&](app::SlotRow& r) {
        r.result.text = text;
        r.result.textColour = colour;
        r.result.visible = true;
    });
}

SlotState SlotDisplay::State() const {
    std::lock_guard g(mutex_);
    return state_;
}

SlotStage SlotDisplay::Stage() const {
    std::lock_guard g(mutex_);
    return state_.stage;
}

void SlotDisplay::BeginJob(int row) {
    std::lock_guard g(mutex_);
    state_.stage = SlotStage::FLASHING;
    state_.outcome = {};
    state_.step.clear();
    // The last job's bar is not this one's: reports and tiles start it at nothing done.
    state_.percent = 0;
    state_.done = 0;
    state_.total = 0;
    state_.daSwitched = false;
    ShowStageLocked(row);
    NotifyLocked();
}

SlotOutcome SlotDisplay::Outcome() const {
    std::lock_guard g(mutex_);
    SlotOutcome outcome = state_.outcome;
    // No verdict yet (the job ends without one): the step it had reached.
    if (outcome.result == SlotOutcome::Result::NONE && outcome.step.empty()) outcome.step = state_.step;
    return outcome;
}

void SlotDisplay::EndJob(int row, const SlotOutcome& outcome, bool interrupted) {
    std::lock_guard g(mutex_);
    state_.outcome = outcome;
    state_.stage = interrupted                                     ? SlotStage::INTERRUPTED
                   : outcome.result == SlotOutcome::Result::PASSED ? SlotStage::PASS
                                                                   : SlotStage::FAIL;
    station_.slotList.EditRow(row, [&](app::SlotRow& r) { r.phase = PhaseOf(state_.stage); });
    NotifyLocked();
}

void SlotDisplay::SetStateObserver(std::function<void(const SlotState&)> observer) {
    std::lock_guard g(mutex_);
    observer_ = std::move(observer);
}

void SlotDisplay::NotifyLocked() const {
    if (observer_) observer_(state_);
}

void ShowSlotElapsed(app::Station& station, int slot) {
    if (slot < 0 || slot >= app::kSlotCount) return;
    const std::time_t elapsed = static_cast<std::time_t>(
        station.clock.WallSeconds() - station.slots.startTime[static_cast<std::size_t>(slot)].load());
    std::tm tm{};
    gmtime_r(&elapsed, &tm);
    char buf[32];
    std::strftime(buf, sizeof buf, "%H:%M:%S", &tm);
    station.slotList.SetCellText(slot, app::COL_TIMER, buf);
}

}  // namespace quorvel::engine
