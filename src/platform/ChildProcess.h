#pragma once
// One child program in its own process group, with its standard output on a pipe.
// Every descriptor the station holds stays out of the child (close-from in the
// spawn), and the child is reaped exactly once, so no zombie and no descriptor is
// left behind, whatever the program does.
// Threads: one reader thread calls ReadOut and Reap; any thread may call Signal. The
// destructor runs after the reader is done with the object.

#include <sys/types.h>

#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace quorvel::platform {

class ChildProcess {
public:
    struct Exit {
        bool signalled = false;
        int code = 0;    // exit code when not signalled
        int signal = 0;  // the signal that ended it
    };

    // Starts argv[0] (searched in PATH when it has no '/') with stdin /dev/null, stdout a
    // pipe and stderr on `stderrFd` (/dev/null when -1). Null with `error` set on failure.
    static std::unique_ptr<ChildProcess> Spawn(const std::vector<std::string>& argv, int stderrFd, std::string& error);
    ~ChildProcess();  // kills and reaps a child still there, closes the descriptors
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    pid_t Pid() const { return pid_; }

    // For a poll set: the output pipe (readable, or at its end) and a descriptor that
    // becomes readable once the program has exited.
    int OutFd() const { return out_; }
    int ExitFd() const { return pidfd_; }
    // Reads what the pipe holds without blocking: > 0 bytes read, 0 at the end of the
    // output, -1 when nothing is there now.
    long ReadOut(char* buffer, std::size_t size);

    // Sends `sig` to the whole process group while the leader is not yet reaped.
    void Signal(int sig);
    // Waits for the leader to exit, kills what is left of its group and reaps it.
    Exit Reap();

private:
    ChildProcess() = default;

    pid_t pid_ = -1;
    int out_ = -1;      // read end of stdout
    int pidfd_ = -1;    // readable when the child has exited
    std::mutex mutex_;  // guards reaped_ against Signal
    bool reaped_ = false;
    Exit exit_;
};

}  // namespace quorvel::platform
