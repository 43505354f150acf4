#include "platform/ChildProcess.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

extern char** environ;

namespace quorvel::platform {

namespace {

void CloseFd(int& fd) {
    if (fd >= 0) ::close(fd);
    fd = -1;
}

// posix_spawn's attribute and file-action objects, destroyed on every path.
struct SpawnSetup {
    posix_spawnattr_t attr;
    posix_spawn_file_actions_t actions;
    SpawnSetup() {
        posix_spawnattr_init(&attr);
        posix_spawn_file_actions_init(&actions);
    }
    ~SpawnSetup() {
        posix_spawn_file_actions_destroy(&actions);
        posix_spawnattr_destroy(&attr);
    }
};

}  // namespace

std::unique_ptr<ChildProcess> ChildProcess::Spawn(const std::vector<std::string>& argv, int stderrFd,
                                                  std::string& error) {
    if (argv.empty() || argv[0].empty()) {
        error = "no program given";
        return nullptr;
    }
    std::unique_ptr<ChildProcess> child(new ChildProcess);
    int out[2];
    if (::pipe2(out, O_CLOEXEC) != 0) {
        error = std::strerror(errno);
        return nullptr;
    }
    child->out_ = out[0];
    // Only the station's end: the program's writes keep blocking when the pipe is full.
    ::fcntl(out[0], F_SETFL, ::fcntl(out[0], F_GETFL) | O_NONBLOCK);

    SpawnSetup s;
    // Its own process group, so one signal reaches everything it started; default
    // dispositions and an empty mask, whatever this process has set up.
    posix_spawnattr_setpgroup(&s.attr, 0);
    sigset_t none, defaults;
    sigemptyset(&none);
    sigemptyset(&defaults);
    for (int sig : {SIGPIPE, SIGTERM, SIGINT, SIGHUP, SIGCHLD, SIGQUIT}) sigaddset(&defaults, sig);
    posix_spawnattr_setsigmask(&s.attr, &none);
    posix_spawnattr_setsigdefault(&s.attr, &defaults);
    posix_spawnattr_setflags(&s.attr, POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    posix_spawn_file_actions_addopen(&s.actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&s.actions, out[1], 1);
    if (stderrFd >= 0)
        posix_spawn_file_actions_adddup2(&s.actions, stderrFd, 2);
    else
        posix_spawn_file_actions_addopen(&s.actions, 2, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addclosefrom_np(&s.actions, 3);

    std::vector<char*> args;
    for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    pid_t pid = -1;
    const int rc = posix_spawnp(&pid, args[0], &s.actions, &s.attr, args.data(), environ);
    ::close(out[1]);
    if (rc != 0) {
        error = std::strerror(rc);
        return nullptr;  // the destructor closes the rest; there is no child
    }
    child->pid_ = pid;
    child->pidfd_ = static_cast<int>(::syscall(SYS_pidfd_open, pid, 0));
    if (child->pidfd_ < 0) {
        error = std::string("cannot watch the program: ") + std::strerror(errno);
        return nullptr;  // the destructor kills and reaps it
    }
    return child;
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
    CloseFd(out_);
    CloseFd(pidfd_);
}

long ChildProcess::ReadOut(char* buffer, std::size_t size) {
    for (;;) {
        const ssize_t r = ::read(out_, buffer, size);
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
    ::kill(-pid_, SIGKILL);  // whatever it left running in its group
    int status = 0;
    while (::waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
    }
    reaped_ = true;
    if (WIFSIGNALED(status)) {
        exit_.signalled = true;
        exit_.signal = WTERMSIG(status);
    } else {
        exit_.code = WEXITSTATUS(status);
    }
    return exit_;
}

}  // namespace quorvel::platform
