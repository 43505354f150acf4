#pragma once
// A slot's state as a value: where its job stands, what the engine has reported of it,
// the counts and the verdict. The slot's display changes it as the engines report and
// renders it into the row's texts; every decision (the worker's SPRD phases, the
// history, the bench tiles, the binding state) reads this value, never a row's text.
// Plain value; its owner guards it.

#include <cstdint>
#include <string>

#include "engines/EngineInterfaces.h"  // kUnknown
#include "engines/SlotOutcome.h"

namespace quorvel::engine {

enum class SlotStage {
    IDLE,       // no job yet
    FLASHING,   // a job runs
    SWITCHING,  // SPRD: the first phase passed and the phone goes to its download port
    PASS,       // the engine's verdict, or the worker's at the job's end
    FAIL,
    INTERRUPTED,  // failed because a Stop or the close cut it short
};

struct SlotState {
    SlotStage stage = SlotStage::IDLE;
    SlotOutcome outcome;       // the running or last job's end as the engine told it
    std::string status;        // the engine's last status, as the bar shows it
    std::string step;          // the step the engine last announced, for the outcome
    std::string sprdStepName;  // SPRD: the name of the step under way
    std::uint32_t done = 0;    // count or bytes; kUnknown: none
    std::uint32_t total = 0;   // kUnknown: none
    std::uint32_t percent = 100;
    std::uint32_t passCount = 0;  // jobs of this slot since start-up
    std::uint32_t jobCount = 0;
    int sprdPhase = 0;        // 0: first phase (to the download port), 1: second
    bool daSwitched = false;  // the job switched its phone to DA mode: the slot is DA_BINDED
};

}  // namespace quorvel::engine
