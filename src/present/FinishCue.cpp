#include "present/FinishCue.h"

#include <algorithm>
#include <cmath>

namespace quorvel::app {

namespace {

struct Tone {
    double hz;  // 0: silence
    int ms;
};

void Append(std::vector<std::int16_t>& out, const Tone& tone, int rate) {
    constexpr double kPi = 3.14159265358979323846;
    constexpr double kAmplitude = 0.4 * 32767;  // loud enough on a bench, not startling
    const int n = tone.ms * rate / 1000;
    const int fade = std::min(n / 2, rate / 200);  // 5 ms
    for (int i = 0; i < n; ++i) {
        double gain = 1.0;
        if (i < fade) gain = static_cast<double>(i) / fade;
        if (n - 1 - i < fade) gain = static_cast<double>(n - 1 - i) / fade;
        const double v = tone.hz > 0 ? std::sin(2 * kPi * tone.hz * i / rate) * kAmplitude * gain : 0.0;
        out.push_back(static_cast<std::int16_t>(std::lround(v)));
    }
}

}  // namespace

std::optional<Cue> CueFor(JobResult result) {
    switch (result) {
        case JobResult::Pass: return Cue::Pass;
        case JobResult::Fail: return Cue::Fail;
        case JobResult::Interrupted: return std::nullopt;
    }
    return std::nullopt;
}

std::vector<std::int16_t> CueSamples(Cue cue, int rate) {
    static constexpr Tone kPass[] = {{880, 110}, {0, 40}, {1320, 180}};
    static constexpr Tone kFail[] = {{330, 160}, {0, 90}, {330, 160}, {0, 90}, {330, 160}};
    std::vector<std::int16_t> out;
    if (rate <= 0) return out;
    if (cue == Cue::Pass)
        for (const Tone& t : kPass) Append(out, t, rate);
    else
        for (const Tone& t : kFail) Append(out, t, rate);
    return out;
}

}  // namespace quorvel::app
