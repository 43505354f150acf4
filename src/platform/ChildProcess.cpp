#include "platform/ChildProcess.h"
#include "platform/ErrnoText.h"

#include <dirent.h>
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

extern char** environ;

namespace quorvel::platform {

namespace {

// The program's path as execve takes it: PATH searched for a bare name, as execvp does.
std::string FindProgram(const std::string& name) {
    if (name.find('/') != std::string::npos) return name;
    const char* path = std::getenv("PATH");
    std::string dirs = path && *path ? path : "/usr/local/bin:/usr/bin:/bin";
    std::size_t from = 0;
    for (;;) {
        const std::size_t colon = dirs.find(':', from);
        std::string dir = dirs.substr(from, colon == std::string::npos ? std::string::npos : colon - from);
        std::string candidate = (dir.empty() ? "." : dir) + "/" + name;
        struct stat st {};
        if (::stat(candidate.c_str(), &st) == 0 && S_ISREG(st.st_mode) && ::access(candidate.c_str(), X_OK) == 0)
            return candidate;
        if (colon == std::string::npos) return {};
        from = colon + 1;
    }
}

std::string NewToken() {
    static std::atomic<unsigned> sequence{0};
    static const unsigned long long process = [] {
        unsigned long long r = 0;
        if (::getrandom(&r, sizeof r, 0) != static_cast<ssize_t>(sizeof r)) r = 0;
        return r & 0xffffffffffffull;
    }();
    char text[64];
    std::snprintf(text, sizeof text, "%d.%llx.%u", static_cast<int>(::getpid()), process, ++sequence);
    return text;
}

// Field 22 of /proc/<pid>/stat: when the process started, in clock ticks since boot.
// Empty when the process is gone. With the pid it names one process for good.
std::string StartTime(pid_t pid) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
    std::string stat;
    if (!std::getline(in, stat)) return {};
    const std::size_t paren = stat.rfind(')');  // the command name may hold blanks
    if (paren == std::string::npos) return {};
    std::istringstream fields(stat.substr(paren + 2));
    std::string f;
    for (int i = 3; i <= 22 && fields >> f; ++i) {
        if (i == 22) return f;
    }
    return {};
}

// The pid the kernel handed out last in this pid namespace; -1 when unknown.
long LastPid() {
    std::ifstream in("/proc/sys/kernel/ns_last_pid");
    long pid = -1;
    return in >> pid ? pid : -1;
}

// Kills every process of this machine whose environment carries `token`, round after
// round until none is left (one may fork while a round runs). Returns how many. With
// `after` (a pid), only processes made since that pid was handed out are read: pids are
// handed out in rising order, wrapping at most once within a job.
int KillTokenHolders(const std::string& token, long after = -1) {
    const std::string entry = std::string(ChildProcess::kJobVariable) + "=" + token;
    const pid_t self = ::getpid();
    int killed = 0;
    for (int round = 0; round < 10; ++round) {
        int found = 0;
        const long last = after > 0 ? LastPid() : -1;
        const auto candidate = [&](long pid) {
            if (last < 0) return true;
            return last >= after ? pid > after && pid <= last : pid > after || pid <= last;
        };
        DIR* proc = ::opendir("/proc");
        if (!proc) return killed;
        while (const dirent* d = ::readdir(proc)) {
            char* end = nullptr;
            const long pid = std::strtol(d->d_name, &end, 10);
            if (pid <= 0 || *end || pid == self || !candidate(pid)) continue;
            const std::string path = std::string("/proc/") + d->d_name + "/environ";
            const UniqueFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
            if (!fd) continue;
            char buf[65536];
            const ssize_t n = ::read(fd.get(), buf, sizeof buf);
            if (n <= 0) continue;
            for (const char *p = buf, *stop = buf + n; p < stop;) {
                const char* nul = static_cast<const char*>(std::memchr(p, '\0', static_cast<std::size_t>(stop - p)));
                const std::size_t len = static_cast<std::size_t>((nul ? nul : stop) - p);
                if (len == entry.size() && std::memcmp(p, entry.data(), len) == 0) {
                    if (::kill(static_cast<pid_t>(pid), SIGKILL) == 0) ++found;
                    break;
                }
                if (!nul) break;
                p = nul + 1;
            }
        }
        ::closedir(proc);
        killed += found;
        if (found == 0) break;
    }
    return killed;
}

}  // namespace

std::unique_ptr<ChildProcess> ChildProcess::Spawn(const std::vector<std::string>& argv, bool captureStderr,
                                                  std::string& error, const std::string& recordDir) {
    if (argv.empty() || argv[0].empty()) {
        error = "no program given";
        return nullptr;
    }
    const std::string program = FindProgram(argv[0]);
    if (program.empty()) {
        error = platform::ErrnoText(ENOENT);
        return nullptr;
    }
    std::unique_ptr<ChildProcess> child(new ChildProcess);
    child->token_ = NewToken();
    // Everything the child needs is made here: after fork it may only make system calls.
    const std::string tokenEntry = std::string(kJobVariable) + "=" + child->token_;
    std::vector<char*> env;
    const std::size_t prefix = std::strlen(kJobVariable) + 1;
    for (char** e = environ; e && *e; ++e)
        if (std::strncmp(*e, tokenEntry.c_str(), prefix) != 0) env.push_back(*e);
    env.push_back(const_cast<char*>(tokenEntry.c_str()));
    env.push_back(nullptr);
    std::vector<char*> args;
    args.reserve(argv.size() + 1);
    for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);

    // The child's ends (out[1], err[1], report[1]) close in the parent once it has them.
    int out[2], err[2] = {-1, -1}, report[2];
    if (::pipe2(out, O_CLOEXEC) != 0) {
        error = platform::ErrnoText(errno);
        return nullptr;
    }
    child->out_.reset(out[0]);
    UniqueFd outWrite(out[1]);
    if (captureStderr && ::pipe2(err, O_CLOEXEC) != 0) {
        error = platform::ErrnoText(errno);
        return nullptr;
    }
    child->err_.reset(err[0]);
    UniqueFd errWrite(err[1]);
    if (::pipe2(report, O_CLOEXEC) != 0) {
        error = platform::ErrnoText(errno);
        return nullptr;
    }
    UniqueFd reportRead(report[0]), reportWrite(report[1]);
    // Only the station's ends: the program's writes keep blocking when a pipe is full.
    for (int fd : {out[0], err[0]})
        if (fd >= 0) ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) | O_NONBLOCK);

    const pid_t parent = ::getpid();
    // vfork, as posix_spawn does: the child borrows this memory until its exec, so no
    // page tables are copied. With every signal blocked, no handler of ours can run in it.
    sigset_t all, mask;
    sigfillset(&all);
    ::pthread_sigmask(SIG_SETMASK, &all, &mask);
    const pid_t pid = ::vfork();
    if (pid == 0) {
        // Its own process group, so one signal reaches everything it started; killed with
        // its starting thread; default dispositions and an empty mask.
        ::setpgid(0, 0);
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (::getppid() != parent) ::_exit(127);  // the station died before the line above
        struct sigaction dfl {};
        dfl.sa_handler = SIG_DFL;
        for (int sig = 1; sig < NSIG; ++sig) {
            struct sigaction now {};
            if (::sigaction(sig, nullptr, &now) != 0) continue;
            const bool reset = sig == SIGPIPE || sig == SIGTERM || sig == SIGINT || sig == SIGHUP || sig == SIGCHLD ||
                               sig == SIGQUIT || now.sa_handler != SIG_IGN;
            if (reset && now.sa_handler != SIG_DFL) ::sigaction(sig, &dfl, nullptr);
        }
        sigset_t none;
        sigemptyset(&none);
        ::pthread_sigmask(SIG_SETMASK, &none, nullptr);
        const int null = ::open("/dev/null", O_RDWR);
        ::dup2(null, 0);
        ::dup2(out[1], 1);
        ::dup2(err[1] >= 0 ? err[1] : null, 2);
        // Every other descriptor closes at the exec; the report pipe is already marked so.
        if (::syscall(SYS_close_range, 3u, ~0u, 4u /* CLOSE_RANGE_CLOEXEC */) != 0) {
            for (int fd = 3; fd < 65536; ++fd)
                if (fd != report[1]) ::close(fd);
        }
        ::execve(program.c_str(), args.data(), env.data());
        const int e = errno;
        [[maybe_unused]] const ssize_t w = ::write(report[1], &e, sizeof e);
        ::_exit(127);
    }
    const int forkError = errno;
    ::pthread_sigmask(SIG_SETMASK, &mask, nullptr);
    outWrite.reset();
    errWrite.reset();
    reportWrite.reset();  // so the read below ends at the exec
    if (pid < 0) {
        error = platform::ErrnoText(forkError);
        return nullptr;
    }
    ::setpgid(pid, pid);  // also here, so a signal to the group cannot come before the child's own call
    child->pid_ = pid;
    int execError = 0;
    ssize_t r;
    do {
        r = ::read(reportRead.get(), &execError, sizeof execError);
    } while (r < 0 && errno == EINTR);
    reportRead.reset();
    if (r == static_cast<ssize_t>(sizeof execError)) {
        error = platform::ErrnoText(execError);
        return nullptr;  // the destructor reaps it
    }
    child->pidfd_.reset(static_cast<int>(::syscall(SYS_pidfd_open, pid, 0)));
    if (!child->pidfd_) {
        error = std::string("cannot watch the program: ") + platform::ErrnoText(errno);
        return nullptr;  // the destructor kills and reaps it
    }
    if (!recordDir.empty()) {
        ::mkdir(recordDir.c_str(), 0775);
        const std::string path = recordDir + (recordDir.back() == '/' ? "" : "/") + child->token_;
        std::ofstream record(path, std::ios::trunc);
        record << pid << ' ' << StartTime(pid) << ' ' << child->token_ << '\n';
        if (record.flush()) child->record_ = path;
    }
    return child;
}

int ChildProcess::EndLeftovers(const std::string& recordDir) {
    int ended = 0;
    DIR* dir = ::opendir(recordDir.c_str());
    if (!dir) return 0;
    std::vector<std::string> names;
    while (const dirent* d = ::readdir(dir))
        if (d->d_name[0] != '.') names.emplace_back(d->d_name);
    ::closedir(dir);
    for (const auto& name : names) {
        const std::string path = recordDir + (recordDir.back() == '/' ? "" : "/") + name;
        // The name is the token, which begins with the recording station's pid. A record of a
        // station still alive (this one, or another on the same folder) is its own.
        const long station = std::strtol(name.c_str(), nullptr, 10);
        if (station > 0 && (station == ::getpid() || ::kill(static_cast<pid_t>(station), 0) == 0 || errno == EPERM))
            continue;
        std::ifstream in(path);
        long pid = 0;
        std::string start;
        in >> pid >> start;
        const std::string& token = name;
        if (pid > 0 && !start.empty() && StartTime(static_cast<pid_t>(pid)) == start) {
            // Still the program that was recorded: its group, then whatever carries its token.
            if (::kill(static_cast<pid_t>(-pid), SIGKILL) == 0) ++ended;
        }
        ended += KillTokenHolders(token);
        ::unlink(path.c_str());
    }
    return ended;
}

ChildProcess::~ChildProcess() {
    if (pid_ > 0) {
        bool reaped;
        {
            std::lock_guard g(mutex_);
            reaped = reaped_;
        }
        if (!reaped) {
            Signal(SIGKILL);
            Reap();
        }
    }
}

long ChildProcess::ReadPipe(int fd, char* buffer, std::size_t size) {
    for (;;) {
        const ssize_t r = ::read(fd, buffer, size);
        if (r >= 0) return static_cast<long>(r);
        if (errno == EINTR) continue;
        return errno == EAGAIN ? -1 : 0;  // a broken pipe reads as its end
    }
}

void ChildProcess::Signal(int sig) {
    std::lock_guard g(mutex_);
    if (!reaped_ && pid_ > 0) ::kill(-pid_, sig);
}

ChildProcess::Exit ChildProcess::Reap() {
    siginfo_t info{};
    // Leaves it a zombie, so its pid (and group id) cannot be reused before the sweep.
    while (::waitid(P_PID, static_cast<id_t>(pid_), &info, WEXITED | WNOWAIT) != 0 && errno == EINTR) {
    }
    std::lock_guard g(mutex_);
    if (reaped_) return exit_;
    ::kill(-pid_, SIGKILL);          // whatever it left running in its group
    KillTokenHolders(token_, pid_);  // and whatever left the group
    int status = 0;
    while (::waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
    }
    reaped_ = true;
    if (!record_.empty()) ::unlink(record_.c_str());
    if (WIFSIGNALED(status)) {
        exit_.signalled = true;
        exit_.signal = WTERMSIG(status);
    } else {
        exit_.code = WEXITSTATUS(status);
    }
    return exit_;
}

}  // namespace quorvel::platform
