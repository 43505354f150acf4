#pragma once
// The audible cue at the end of a slot's job, for an operator who is not looking at the
// screen. Pass and fail differ in rhythm as well as pitch, so they are told apart on a
// noisy bench and by ears that miss one of the two pitches. Plain functions; any thread.

#include <cstdint>
#include <optional>
#include <vector>

#include "history/JobRecord.h"

namespace quorvel::app {

enum class Cue { Pass, Fail };

// The cue for a job's end; none for a job cut short by a Stop or a close, which the
// operator caused and expects.
std::optional<Cue> CueFor(JobResult result);

// The cue as mono signed 16-bit samples at `rate` Hz, each tone faded in and out so it
// does not click: a pass is two short rising tones, a failure three low pulses.
std::vector<std::int16_t> CueSamples(Cue cue, int rate);

}  // namespace quorvel::app
