#pragma once
// How a slot's job ended, as a typed value: the result, the step the job was in and the
// engine's reason in its own words. The engines fill it on their result path (the
// outcome message below, or the SPRD result record), the slot's SlotDisplay keeps it,
// the worker completes it at the job's end, and the history and the row's tooltip read
// it, so no reason is ever recovered from a display text. Plain value; any thread.

#include <cstdint>
#include <string>

namespace quorvel::engine {

struct SlotOutcome {
    enum class Result { NONE, PASSED, FAILED };
    Result result = Result::NONE;  // NONE: no verdict has come yet
    std::string step;              // the step the job was in, in words; empty on a pass
    std::string error;             // why it failed, as the engine said it; empty on a pass
    bool operator==(const SlotOutcome&) const = default;
};

// Message 6028 kind carrying a job's step and reason: lParam is a `const SlotOutcome*`,
// sent (never posted) just before the kind-5 verdict, so the pointer stays valid.
inline constexpr std::uint32_t kProgressOutcome = 6;
// Message 6028 kind telling that the job switched its phone to DA mode (lParam 0), sent
// just before the status that says so: the slot becomes DA_BINDED by this, in any
// language, never by the status's words.
inline constexpr std::uint32_t kProgressDaSwitched = 7;

}  // namespace quorvel::engine
