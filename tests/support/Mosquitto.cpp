#include "support/Mosquitto.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <thread>

namespace quorvel::test {

namespace {

int FreePort() {
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof a;
    int port = 0;
    if (bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0 &&
        getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len) == 0)
        port = ntohs(a.sin_port);
    close(fd);
    return port;
}

bool Listening(int port) {
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    a.sin_port = htons(static_cast<std::uint16_t>(port));
    const bool ok = connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0;
    close(fd);
    return ok;
}

bool OnPath(const std::string& name) {
    for (const char* dir : {"/usr/sbin/", "/usr/bin/", "/usr/local/sbin/", "/usr/local/bin/"})
        if (access((std::string(dir) + name).c_str(), X_OK) == 0) return true;
    return false;
}

}  // namespace

Background::Background(const std::vector<std::string>& argv, const std::string& outFile) {
    std::vector<std::string> shell = {"sh", "-c", "f=$1; shift; exec \"$@\" >>\"$f\" 2>&1", "sh", outFile};
    shell.insert(shell.end(), argv.begin(), argv.end());
    std::string error;
    child_ = platform::ChildProcess::Spawn(shell, false, error);
}

int Background::Wait(int seconds) {
    pollfd p{child_ ? child_->ExitFd() : -1, POLLIN, 0};
    if (!child_ || ::poll(&p, 1, seconds * 1000) != 1) return -1;
    const auto exit = child_->Reap();
    child_.reset();
    return exit.signalled ? -1 : exit.code;
}

std::string Mosquitto::Missing() {
    for (const char* p : {"mosquitto", "mosquitto_sub", "mosquitto_pub"})
        if (!OnPath(p)) return std::string(p) + " is not installed (scripts/setup.sh installs it)";
    return {};
}

Mosquitto::Mosquitto() : port_(FreePort()) {
    dir.Write("mosquitto.conf", "listener " + std::to_string(port_) +
                                    " 127.0.0.1\nallow_anonymous true\npersistence true\npersistence_location " +
                                    dir.Path() + "\n");
}

Mosquitto::~Mosquitto() = default;

bool Mosquitto::Start() {
    broker_ = Background({"mosquitto", "-c", dir.File("mosquitto.conf")}, dir.File("broker.log"));
    for (int i = 0; i < 500; ++i) {
        if (Listening(port_)) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return false;
}

void Mosquitto::Kill(int sig) {
    broker_.Signal(sig);
    if (sig != SIGSTOP) broker_.Wait(10);
}

std::vector<std::string> Mosquitto::Client(const std::string& program, std::vector<std::string> args) const {
    // Line by line, so what a client printed is in its file at once.
    std::vector<std::string> argv{"stdbuf", "-oL", program, "-h", "127.0.0.1", "-p", std::to_string(port_)};
    argv.insert(argv.end(), args.begin(), args.end());
    return argv;
}

}  // namespace quorvel::test
