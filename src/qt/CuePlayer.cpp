#include "qt/CuePlayer.h"

#include <alsa/asoundlib.h>

#include <algorithm>
#include <cstdio>

namespace quorvel::console {

namespace {
constexpr unsigned kRate = 44100;
constexpr unsigned kLatencyUs = 100000;

// The library's own messages would repeat on every cue of a PC without a sound card.
void Quiet(const char*, int, const char*, int, const char*, ...) {}
}  // namespace

CuePlayer::CuePlayer() {
    snd_lib_error_set_handler(Quiet);
    thread_ = std::thread([this] { Run(); });
}

CuePlayer::~CuePlayer() {
    {
        std::lock_guard g(mutex_);
        ending_ = true;
        queue_.clear();
    }
    wake_.notify_all();
    thread_.join();
}

void CuePlayer::Play(app::Cue cue) {
    {
        std::lock_guard g(mutex_);
        if (ending_ || std::find(queue_.begin(), queue_.end(), cue) != queue_.end()) return;
        queue_.push_back(cue);
    }
    wake_.notify_one();
}

void CuePlayer::Run() {
    for (;;) {
        app::Cue cue;
        {
            std::unique_lock lk(mutex_);
            wake_.wait(lk, [&] { return ending_ || !queue_.empty(); });
            if (ending_) return;
            cue = queue_.front();
            queue_.pop_front();
        }
        Sound(cue);
    }
}

void CuePlayer::Sound(app::Cue cue) {
    snd_pcm_t* pcm = nullptr;
    // Non-blocking open: a device another program holds must not stall the queue.
    int rc = snd_pcm_open(&pcm, "default", SND_PCM_STREAM_PLAYBACK, SND_PCM_NONBLOCK);
    if (rc >= 0) rc = snd_pcm_nonblock(pcm, 0);
    if (rc >= 0)
        rc = snd_pcm_set_params(pcm, SND_PCM_FORMAT_S16, SND_PCM_ACCESS_RW_INTERLEAVED, 1, kRate, 1, kLatencyUs);
    if (rc >= 0) {
        const std::vector<std::int16_t> samples = app::CueSamples(cue, static_cast<int>(kRate));
        std::size_t done = 0;
        while (rc >= 0 && done < samples.size()) {
            const snd_pcm_sframes_t n = snd_pcm_writei(pcm, samples.data() + done, samples.size() - done);
            if (n < 0) {
                rc = snd_pcm_recover(pcm, static_cast<int>(n), 1);  // an underrun is not an error
                continue;
            }
            done += static_cast<std::size_t>(n);
        }
        if (rc >= 0) snd_pcm_drain(pcm);
    }
    if (pcm) snd_pcm_close(pcm);
    if (rc < 0 && !failureSaid_) {
        failureSaid_ = true;
        std::fprintf(stderr, "quorvel: no sound for the end-of-job cue: %s\n", snd_strerror(rc));
    }
}

}  // namespace quorvel::console
