#pragma once
// Keeps the PC from suspending or idling into sleep while phones are being flashed:
// a suspend mid-download can leave a phone unusable. The station holds it from an
// accepted Start to the Stop. Implementations must never fail the caller: with no
// power manager to ask, holding simply does nothing. Called on the station thread.

namespace quorvel::platform {

class SleepInhibitor {
public:
    virtual ~SleepInhibitor() = default;
    // Takes (true) or releases (false) the inhibitor; a repeated value changes nothing.
    virtual void Hold(bool on) = 0;
};

}  // namespace quorvel::platform
