#include "support/Unprivileged.h"

#include <sys/wait.h>
#include <unistd.h>

namespace quorvel::test {

int RunInChild(const std::function<int()>& check) {
    const pid_t pid = ::fork();
    if (pid == 0) ::_exit(check());
    int status = 0;
    if (pid < 0 || ::waitpid(pid, &status, 0) != pid || !WIFEXITED(status)) return -1;
    return WEXITSTATUS(status);
}

int RunUnprivileged(const std::function<int()>& check) {
    return RunInChild([&] {
        if (::geteuid() == 0 && (::setgid(65534) != 0 || ::setuid(65534) != 0)) return 120;
        return check();
    });
}

}  // namespace quorvel::test
