#pragma once
// One child program in its own process group, with its standard output on a pipe.
// Every descriptor the station holds stays out of the child, and the child is reaped
// exactly once, so no zombie and no descriptor is left behind, whatever the program does.
// Nothing it starts outlives it either:
// - the kernel kills the program when the thread that started it dies, so a station
//   killed by any signal takes its programs along;
// - its environment carries a token (kJobVariable) that its descendants inherit, so
//   those that left its process group are found in /proc and killed when it is reaped;
// - while it runs, a record (pid, start time, token) lies in the record folder, so a
//   station started after a kill ends what the killed one left (EndLeftovers).
// Threads: one reader thread calls ReadOut and Reap; any thread may call Signal. The
// destructor runs after the reader is done with the object.

#include <sys/types.h>

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "platform/UniqueFd.h"

namespace quorvel::platform {

class ChildProcess {
public:
    struct Exit {
        bool signalled = false;
        int code = 0;    // exit code when not signalled
        int signal = 0;  // the signal that ended it
    };

    static constexpr const char* kJobVariable = "QUORVEL_ENGINE_JOB";

    // Starts argv[0] (searched in PATH when it has no '/') with stdin /dev/null, stdout on
    // one pipe and stderr on another (on /dev/null when `captureStderr` is false). `recordDir`: the folder of the
    // running programs' records (none when empty). Null with `error` set on failure.
    static std::unique_ptr<ChildProcess> Spawn(const std::vector<std::string>& argv, bool captureStderr,
                                               std::string& error, const std::string& recordDir = {});
    // Ends what the records in `recordDir` name and is still running (the program's group
    // and every process carrying its token) and removes the records. Returns how many
    // processes it ended.
    static int EndLeftovers(const std::string& recordDir);
    ~ChildProcess();  // kills and reaps a child still there, closes the descriptors
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    pid_t Pid() const { return pid_; }

    // For a poll set: the output pipe (readable, or at its end) and a descriptor that
    // becomes readable once the program has exited.
    int OutFd() const { return out_.get(); }
    int ErrFd() const { return err_.get(); }  // -1 when not captured
    int ExitFd() const { return pidfd_.get(); }
    // Reads what the pipe holds without blocking: > 0 bytes read, 0 at the end of the
    // output, -1 when nothing is there now.
    long ReadOut(char* buffer, std::size_t size) { return ReadPipe(out_.get(), buffer, size); }
    long ReadErr(char* buffer, std::size_t size) { return ReadPipe(err_.get(), buffer, size); }

    // Sends `sig` to the whole process group while the leader is not yet reaped.
    void Signal(int sig);
    // Waits for the leader to exit, kills what is left of its group and reaps it.
    Exit Reap();

private:
    ChildProcess() = default;
    static long ReadPipe(int fd, char* buffer, std::size_t size);

    pid_t pid_ = -1;
    std::string token_;   // QUORVEL_ENGINE_JOB's value
    std::string record_;  // the record's path; empty when none
    UniqueFd out_;        // read end of stdout
    UniqueFd err_;        // read end of stderr
    UniqueFd pidfd_;      // readable when the child has exited
    std::mutex mutex_;    // guards reaped_ against Signal
    bool reaped_ = false;
    Exit exit_;
};

}  // namespace quorvel::platform
