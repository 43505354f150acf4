#pragma once
// Plays the end-of-job cues on the sound card's default ALSA device, on a thread of its
// own so a worker telling of its job's end never waits for the sound. No sound device
// (a CI machine, a PC without speakers) only means silence; it is said once on stderr.
// Threads: Play from any thread; the player's thread owns the device.

#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>

#include "present/FinishCue.h"

namespace quorvel::console {

class CuePlayer {
public:
    CuePlayer();
    ~CuePlayer();  // drops cues not yet played, lets the one playing end

    // Queues the cue unless the same cue is already waiting: sixteen phones ending
    // together give one pass and one fail cue, not a minute of beeps.
    void Play(app::Cue cue);

private:
    void Run();
    void Sound(app::Cue cue);

    std::mutex mutex_;
    std::condition_variable wake_;
    std::deque<app::Cue> queue_;
    bool ending_ = false;
    bool failureSaid_ = false;  // player thread only
    std::thread thread_;
};

}  // namespace quorvel::console
