#include "support/Unprivileged.h"

#include <sys/wait.h>
#include <unistd.h>

namespace quorvel::test {

int RunUnprivileged(const std::function<int()>& check) {
    pid_t pid = ::fork();
    if (pid < 0) return -1;
    if (pid == 0) {
        if (::geteuid() == 0 && (::setgid(65534) != 0 || ::setuid(65534) != 0)) ::_exit(120);
        ::_exit(check());
    }
    int status = 0;
    if (::waitpid(pid, &status, 0) != pid || !WIFEXITED(status)) return -1;
    return WEXITSTATUS(status);
}

}  // namespace quorvel::test
