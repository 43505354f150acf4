#include "engines/program/ProgramReader.h"
#include "platform/ErrnoText.h"

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace quorvel::engine {

using platform::Millis;

namespace {

// Bits of an epoll entry's data: the watch's id and which descriptor it is.
constexpr int kIdShift = 2;
constexpr std::uint64_t kKindMask = 3;
constexpr std::uint64_t kOut = 0, kExit = 1, kErr = 2;
// What is read of a pipe after its program exited: a process left outside the group
// may go on writing, and must not hold the reader.
constexpr std::size_t kDrainLimit = 1u << 20;

}  // namespace

std::shared_ptr<ProgramReader> ProgramReader::For(platform::Clock& clock) {
    static std::mutex mutex;
    static std::map<const platform::Clock*, std::weak_ptr<ProgramReader>> readers;
    std::lock_guard g(mutex);
    for (auto it = readers.begin(); it != readers.end();) it = it->second.expired() ? readers.erase(it) : std::next(it);
    if (auto r = readers[&clock].lock()) return r;
    std::shared_ptr<ProgramReader> r(new ProgramReader(clock));
    readers[&clock] = r;
    return r;
}

ProgramReader::ProgramReader(platform::Clock& clock) : clock_(clock) {
    epoll_.reset(::epoll_create1(EPOLL_CLOEXEC));
    if (epoll_) wake_.reset(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    epoll_event e{};
    e.events = EPOLLIN;
    e.data.u64 = 0;
    // Without its wake-up the reader could not be stopped: then it watches nothing.
    if (!epoll_ || !wake_ || ::epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, wake_.get(), &e) != 0) {
        setupError_ = errno;
        epoll_.reset();
        wake_.reset();
        return;
    }
    thread_ = std::thread([this] { Main(); });
}

ProgramReader::~ProgramReader() {
    if (!thread_.joinable()) return;
    {
        std::lock_guard g(mutex_);
        stop_ = true;
    }
    cv_.notify_all();
    const std::uint64_t one = 1;
    [[maybe_unused]] const ssize_t r = ::write(wake_.get(), &one, sizeof one);
    thread_.join();
}

std::string ProgramReader::Add(platform::ChildProcess& child, Client& client, Millis paceMs) {
    std::lock_guard g(mutex_);
    if (!epoll_) return std::string("cannot watch the program: ") + platform::ErrnoText(setupError_);
    const std::uint64_t id = nextId_++;
    epoll_event out{}, exit{}, err{};
    out.events = EPOLLIN;
    out.data.u64 = id << kIdShift | kOut;
    exit.events = EPOLLIN;
    exit.data.u64 = id << kIdShift | kExit;
    err.events = EPOLLIN;
    err.data.u64 = id << kIdShift | kErr;
    if (::epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, child.ExitFd(), &exit) != 0)
        return std::string("cannot watch the program: ") + platform::ErrnoText(errno);
    if (::epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, child.OutFd(), &out) != 0) {
        const int error = errno;
        ::epoll_ctl(epoll_.get(), EPOLL_CTL_DEL, child.ExitFd(), nullptr);
        return std::string("cannot watch the program: ") + platform::ErrnoText(error);
    }
    Watch w{&child, &client, paceMs};
    w.errOpen = child.ErrFd() >= 0 && ::epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, child.ErrFd(), &err) == 0;
    watches_.emplace(id, w);
    ids_[&client] = id;
    return {};
}

void ProgramReader::Remove(Client& client) {
    std::unique_lock lk(mutex_);
    auto it = ids_.find(&client);
    if (it == ids_.end()) return;
    const std::uint64_t id = it->second;
    auto w = watches_.find(id);
    if (w != watches_.end()) {
        if (!w->second.done) {
            ::epoll_ctl(epoll_.get(), EPOLL_CTL_DEL, w->second.child->ExitFd(), nullptr);
            if (w->second.outOpen) ::epoll_ctl(epoll_.get(), EPOLL_CTL_DEL, w->second.child->OutFd(), nullptr);
            if (w->second.errOpen) ::epoll_ctl(epoll_.get(), EPOLL_CTL_DEL, w->second.child->ErrFd(), nullptr);
        }
        watches_.erase(w);
    }
    ids_.erase(it);
    // A call to it under way ends first, unless it is that call removing its own client.
    if (std::this_thread::get_id() != thread_.get_id())
        clock_.WaitFor(lk, made_, platform::kForever, [&] { return calling_ != id; });
}

Millis ProgramReader::Pace(bool& unpaced) const {
    Millis pace = 0;
    unpaced = false;
    for (const auto& [id, w] : watches_) {
        if (w.done) continue;
        if (w.paceMs <= 0)
            unpaced = true;
        else
            pace = pace == 0 ? w.paceMs : std::min(pace, w.paceMs);
    }
    return pace;
}

bool ProgramReader::ReadOnce(std::uint64_t id, Millis now, bool paced, std::vector<Call>& calls) {
    static thread_local char buffer[16384];
    Watch& w = watches_.at(id);
    const long r = w.child->ReadOut(buffer, sizeof buffer);
    if (r > 0) {
        calls.push_back(Call{Call::OUTPUT, id, now, std::string(buffer, static_cast<std::size_t>(r)), paced});
        return true;
    }
    if (r == 0) {  // its end; the exit comes next
        ::epoll_ctl(epoll_.get(), EPOLL_CTL_DEL, w.child->OutFd(), nullptr);
        w.outOpen = false;
    }
    return false;
}

bool ProgramReader::ReadErr(std::uint64_t id, std::vector<Call>& calls) {
    static thread_local char buffer[16384];
    Watch& w = watches_.at(id);
    const long r = w.child->ReadErr(buffer, sizeof buffer);
    if (r > 0) {
        calls.push_back(Call{Call::STDERR, id, 0, std::string(buffer, static_cast<std::size_t>(r))});
        return true;
    }
    if (r == 0) {
        ::epoll_ctl(epoll_.get(), EPOLL_CTL_DEL, w.child->ErrFd(), nullptr);
        w.errOpen = false;
    }
    return false;
}

void ProgramReader::Finish(std::uint64_t id, Millis now, std::vector<Call>& calls) {
    Watch& w = watches_.at(id);
    // Only what the pipes hold now: a leftover holder of a pipe must not keep the job open.
    for (std::size_t drained = 0; w.errOpen && drained < kDrainLimit; drained += 16384)
        if (!ReadErr(id, calls)) break;
    if (w.errOpen) ::epoll_ctl(epoll_.get(), EPOLL_CTL_DEL, w.child->ErrFd(), nullptr);
    w.errOpen = false;
    for (std::size_t drained = 0; w.outOpen && drained < kDrainLimit; drained += 16384)
        if (!ReadOnce(id, now, false, calls)) break;
    if (w.outOpen) ::epoll_ctl(epoll_.get(), EPOLL_CTL_DEL, w.child->OutFd(), nullptr);
    w.outOpen = false;
    ::epoll_ctl(epoll_.get(), EPOLL_CTL_DEL, w.child->ExitFd(), nullptr);
    w.done = true;
    w.holding = false;
    calls.push_back(Call{Call::EXIT, id, now, {}});
}

bool ProgramReader::Make(const std::vector<Call>& calls) {
    bool progressOnly = true;
    for (const Call& c : calls) {
        Client* client;
        platform::ChildProcess* child;
        {
            std::lock_guard g(mutex_);
            const auto it = watches_.find(c.id);
            if (it == watches_.end()) continue;  // removed since it was read
            client = it->second.client;
            child = it->second.child;
            calling_ = c.id;
        }
        unsigned got = 0;
        bool holding = false;
        switch (c.kind) {
            case Call::OUTPUT: got = client->OnOutput(c.data.data(), c.data.size(), c.now); break;
            case Call::ROUND: holding = client->OnRound(c.now); break;
            case Call::STDERR: client->OnStderr(c.data.data(), c.data.size()); break;
            case Call::EXIT: client->OnExit(child->Reap()); break;
        }
        {
            std::lock_guard g(mutex_);
            calling_ = 0;
            const auto it = watches_.find(c.id);
            if (it != watches_.end() && !it->second.done) {
                if (c.kind == Call::OUTPUT) it->second.holding = (got & Client::HOLDING) != 0;
                if (c.kind == Call::ROUND) it->second.holding = holding;
            }
        }
        made_.notify_all();
        if (c.kind == Call::OUTPUT && c.paced) progressOnly = progressOnly && (got & Client::PROGRESS_ONLY);
    }
    return progressOnly;
}

void ProgramReader::Main() {
    epoll_event events[64];
    bool progressOnly = false;
    Millis round = 0;
    std::vector<Call> calls;
    for (;;) {
        bool holding = false;
        {
            std::unique_lock lk(mutex_);
            for (const auto& [id, w] : watches_) holding = holding || w.holding;
            // Paced rounds begin a whole interval apart, so each program's progress is due
            // again when the next round reads it.
            bool unpaced;
            const Millis pace = Pace(unpaced);
            if (pace > 0 && (holding || (progressOnly && !unpaced)))
                clock_.WaitUntil(lk, cv_, round + pace, [&] { return stop_; });
        }
        const int n = ::epoll_wait(epoll_.get(), events, 64, holding ? 0 : -1);
        if (n < 0 && errno == EINTR) continue;
        calls.clear();
        bool sawOutput = false, quiet = true;  // quiet: nothing but output read in full
        {
            std::lock_guard g(mutex_);
            if (stop_ || n < 0) return;
            round = clock_.Now();
            for (auto& [id, w] : watches_)
                if (w.holding) calls.push_back(Call{Call::ROUND, id, round, {}});
            for (int i = 0; i < n; ++i) {
                const std::uint64_t data = events[i].data.u64;
                if (data == 0) {
                    std::uint64_t count;
                    [[maybe_unused]] const ssize_t r = ::read(wake_.get(), &count, sizeof count);
                    continue;
                }
                const std::uint64_t id = data >> kIdShift;
                auto it = watches_.find(id);
                if (it == watches_.end() || it->second.done) continue;
                if ((data & kKindMask) == kExit) {
                    Finish(id, round, calls);
                    quiet = false;
                } else if ((data & kKindMask) == kErr) {
                    if (it->second.errOpen) ReadErr(id, calls);
                    quiet = false;
                } else if (it->second.outOpen) {
                    sawOutput = true;
                    quiet = ReadOnce(id, round, true, calls) && quiet;
                }
            }
        }
        progressOnly = Make(calls) && quiet && sawOutput;
    }
}

}  // namespace quorvel::engine
