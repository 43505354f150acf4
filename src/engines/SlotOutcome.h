#pragma once
// How a slot's job ended, as a typed value: the result, the step the job was in, the
// engine's reason in its own words and the phone it flashed. The engines fill it on their
// result path (the account, identity and SPRD result messages), the slot's SlotDisplay
// keeps it, the worker completes it at the job's end, and the history and the row's
// tooltip read it, so no reason is ever recovered from a display text. Plain value; any
// thread.

#include <cstdint>
#include <string>

#include "history/JobRecord.h"

namespace quorvel::engine {

struct SlotOutcome {
    enum class Result { NONE, PASSED, FAILED };
    Result result = Result::NONE;  // NONE: no verdict has come yet
    std::string step;              // the step the job was in, in words; empty on a pass
    std::string error;             // why it failed, as the engine said it; empty on a pass
    app::PhoneIdentity device{};   // the phone, as far as the engine told it
    bool operator==(const SlotOutcome&) const = default;
};

}  // namespace quorvel::engine
