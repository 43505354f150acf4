#pragma once
// A mosquitto broker of the test's own on loopback, on a free port, with its
// persistence in a temporary folder (a restart keeps the sessions and queued
// messages). Also starts the command-line clients and other programs in the background.

#include <memory>
#include <string>
#include <vector>

#include "platform/ChildProcess.h"
#include "support/TempDir.h"

namespace quorvel::test {

// A background process whose output goes to a file; killed (SIGKILL), with everything it
// started, when destroyed. Called from the test's thread only.
class Background {
public:
    Background() = default;
    Background(const std::vector<std::string>& argv, const std::string& outFile);
    void Signal(int sig) const {
        if (child_) child_->Signal(sig);
    }
    // Waits for its end (at most `seconds`); its exit status, or -1.
    int Wait(int seconds = 60);

private:
    std::unique_ptr<platform::ChildProcess> child_;
};

class Mosquitto {
public:
    // Empty when the broker and its clients are installed, else why not.
    static std::string Missing();

    Mosquitto();
    ~Mosquitto();
    // Starts it and waits until it listens; false when it does not within 5 s.
    bool Start();
    void Kill(int sig);  // and waits for its end, unless the signal only pauses it
    void Signal(int sig) const { broker_.Signal(sig); }
    int Port() const { return port_; }
    std::string Url() const { return "mqtt://127.0.0.1:" + std::to_string(port_); }
    // mosquitto_sub / mosquitto_pub argument lists for this broker.
    std::vector<std::string> Client(const std::string& program, std::vector<std::string> args) const;

    TempDir dir;

private:
    int port_ = 0;
    Background broker_;
};

}  // namespace quorvel::test
