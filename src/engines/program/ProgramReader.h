#pragma once
// One thread reads the standard output of every running engine program of a clock,
// so sixteen programs cost one wake-up per round rather than one thread each. While
// nothing but progress comes, it reads once per pacing interval: lines wait in their
// pipes and are taken together, and progress held back (it came sooner than its
// interval) is handed on in the next round. It also sees each program exit, drains what the pipe
// held and reaps it. A program that writes fast gets one buffer per round, so it
// cannot starve the others.
// Threads: Add and Remove from a job's thread; the Client calls run on the reader's
// own thread, one at a time, in the order the program wrote, with no lock held (the
// reader's included: a call may block, or Remove its own client). After Remove returns,
// no call for that client runs or will run.

#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "platform/ChildProcess.h"
#include "platform/Clock.h"
#include "platform/UniqueFd.h"

namespace quorvel::engine {

class ProgramReader {
public:
    class Client {
    public:
        // What OnOutput answers, as bits.
        static constexpr unsigned PROGRESS_ONLY = 1;  // every complete line was progress: may wait a round
        static constexpr unsigned HOLDING = 2;        // it holds progress for OnRound to hand on
        // Output of the program, read in the round that began at `now`.
        virtual unsigned OnOutput(const char* data, std::size_t size, platform::Millis now) = 0;
        // A round began at `now`, a whole pacing interval after the one in which it held
        // progress. True while it still holds some.
        virtual bool OnRound(platform::Millis now) = 0;
        // What the program wrote on its standard error; never paced.
        virtual void OnStderr(const char* data, std::size_t size) = 0;
        // The program exited and was reaped; after its last OnOutput and OnStderr.
        virtual void OnExit(const platform::ChildProcess::Exit& exit) = 0;

    protected:
        ~Client() = default;
    };

    // The reader of `clock`'s programs, started on first use; it ends with its last holder.
    static std::shared_ptr<ProgramReader> For(platform::Clock& clock);
    ~ProgramReader();
    ProgramReader(const ProgramReader&) = delete;
    ProgramReader& operator=(const ProgramReader&) = delete;

    // Watches `child` for `client` until Remove. `paceMs` > 0: the client's progress may
    // wait that long; 0: every line is read at once (no pacing while it runs). Empty, or
    // why it cannot be watched.
    std::string Add(platform::ChildProcess& child, Client& client, platform::Millis paceMs);
    void Remove(Client& client);

private:
    // A Client call, read under the lock and made after it is released.
    struct Call {
        enum Kind { OUTPUT, ROUND, STDERR, EXIT } kind;
        std::uint64_t id;
        platform::Millis now = 0;
        std::string data;    // OUTPUT, STDERR
        bool paced = false;  // OUTPUT: its answer decides whether the next round may wait
    };

    explicit ProgramReader(platform::Clock& clock);
    void Main();
    // With mutex_ held: the calls of one readiness, appended to `calls`. ReadOnce is false
    // when nothing more is there; ReadErr likewise, or at the end of the standard error.
    bool ReadOnce(std::uint64_t id, platform::Millis now, bool paced, std::vector<Call>& calls);
    bool ReadErr(std::uint64_t id, std::vector<Call>& calls);
    void Finish(std::uint64_t id, platform::Millis now, std::vector<Call>& calls);
    // Without mutex_: makes the calls in order, skipping those of removed clients. True
    // when every paced output was progress only.
    bool Make(const std::vector<Call>& calls);
    // The shortest pacing interval of the watches; `unpaced`: one of them is not paced.
    platform::Millis Pace(bool& unpaced) const;

    struct Watch {
        platform::ChildProcess* child;
        Client* client;
        platform::Millis paceMs;
        bool outOpen = true;
        bool errOpen = false;
        bool holding = false;
        bool done = false;  // exited and reaped
    };

    platform::Clock& clock_;
    platform::UniqueFd epoll_;
    platform::UniqueFd wake_;  // eventfd: ends the epoll wait on shutdown
    int setupError_ = 0;       // errno of a failed set-up: no program can be watched
    std::mutex mutex_;
    std::condition_variable cv_;    // the pacing wait
    std::condition_variable made_;  // a call has returned
    std::uint64_t calling_ = 0;     // the watch whose client is being called; 0: none
    bool stop_ = false;
    std::uint64_t nextId_ = 1;
    std::map<std::uint64_t, Watch> watches_;
    std::map<const Client*, std::uint64_t> ids_;
    std::thread thread_;
};

}  // namespace quorvel::engine
