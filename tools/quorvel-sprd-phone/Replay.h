#pragma once
// Plays an engine's wire recording back as the device side: every host write must match
// the recorded one, and the recorded replies are sent in their place.
// Threads: the program's one thread.

#include <string>

#include "Endpoint.h"

namespace quorvel::sprdphone {

// Returns the exit status: 0 when the host wrote exactly what was recorded; 1 with a
// message on standard error naming the write that diverged; 2 when the log is unusable.
int Replay(const std::string& logPath, Endpoint& endpoint, int silenceMs);

}  // namespace quorvel::sprdphone
