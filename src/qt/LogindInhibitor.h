#pragma once
// The sleep inhibitor of systemd-logind, asked over the system D-Bus: a "block"
// inhibitor for "sleep:idle", held as the file descriptor logind hands back and
// released by closing it. No system bus or a refusal leaves the PC as it was; the
// refusal is said once on stderr.
// Threads: Hold from any thread; the bus is used on the object's (GUI) thread only,
// asynchronously, so a slow logind never holds up Start or Stop.

#include <QObject>

#include "platform/SleepInhibitor.h"
#include "platform/UniqueFd.h"

namespace quorvel::console {

class LogindInhibitor : public QObject, public platform::SleepInhibitor {
    Q_OBJECT
public:
    explicit LogindInhibitor(QObject* parent = nullptr) : QObject(parent) {}
    ~LogindInhibitor() override;

    void Hold(bool on) override;

private:
    void Apply();  // brings the descriptor in line with wanted_

    bool wanted_ = false;
    bool asking_ = false;
    bool refusalSaid_ = false;
    platform::UniqueFd fd_;
};

}  // namespace quorvel::console
