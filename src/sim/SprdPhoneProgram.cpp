#include "sim/SprdPhoneProgram.h"

#include <poll.h>
#include <signal.h>

#include <cerrno>
#include <chrono>
#include <filesystem>

namespace quorvel::sim {

namespace {

// Reads what a phone wrote without blocking; true once `word` was seen at a line's start.
bool Drain(platform::ChildProcess& child, std::string& pending, const char* word) {
    bool seen = false;
    char buffer[4096];
    for (long n; (n = child.ReadOut(buffer, sizeof buffer)) > 0;) {
        pending.append(buffer, static_cast<std::size_t>(n));
        for (std::size_t nl; (nl = pending.find('\n')) != std::string::npos; pending.erase(0, nl + 1))
            seen = seen || (word && pending.compare(0, std::char_traits<char>::length(word), word) == 0);
    }
    return seen;
}

}  // namespace

std::vector<std::string> SprdPhoneArgs(const engine::PhoneProfile& p) {
    std::vector<std::string> a{"--reenumerate", p.sprdStays ? "none" : "fdl2"};
    if (!p.sprdFault.empty()) a.insert(a.end(), {"--fault", p.sprdFault});
    return a;
}

SprdPhonePrograms::SprdPhonePrograms(std::string program, std::string runDir, std::string reportDir)
    : program_(std::move(program)), runDir_(std::move(runDir)), reportDir_(std::move(reportDir)) {
    std::error_code ec;
    std::filesystem::create_directories(runDir_, ec);
    std::filesystem::create_directories(reportDir_, ec);
}

SprdPhonePrograms::~SprdPhonePrograms() {
    std::vector<int> coms;
    {
        std::lock_guard g(mutex_);
        for (const auto& [com, r] : running_) coms.push_back(com);
    }
    for (int com : coms) End(com);
    std::error_code ec;
    std::filesystem::remove_all(runDir_, ec);
}

std::string SprdPhonePrograms::ReportPath(int com, std::uint64_t plug) const {
    return reportDir_ + "/com" + std::to_string(com) + "_plug" + std::to_string(plug) + ".json";
}

bool SprdPhonePrograms::Start(int com, std::uint64_t plug, const engine::PhoneProfile& profile, std::string& error) {
    End(com);  // a phone left behind on this port never serves the next one
    const std::string socket = runDir_ + "/com" + std::to_string(com) + ".sock";
    std::error_code ec;
    std::filesystem::remove(socket, ec);
    std::vector<std::string> argv{program_, "--listen", "unix:" + socket, "--report", ReportPath(com, plug)};
    for (auto& a : SprdPhoneArgs(profile)) argv.push_back(std::move(a));
    auto child = platform::ChildProcess::Spawn(argv, -1, error);
    if (!child) {
        error = program_ + ": " + error;
        return false;
    }
    // It is a process: the wait is in real time, whatever the station clock does.
    const auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(kReadyMs);
    std::string pending;
    for (;;) {
        if (Drain(*child, pending, "ready")) break;
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(until - std::chrono::steady_clock::now()).count();
        pollfd fds[2] = {{child->OutFd(), POLLIN, 0}, {child->ExitFd(), POLLIN, 0}};
        if (left <= 0 || ::poll(fds, 2, static_cast<int>(left)) == 0) {
            error = program_ + " did not listen within " + std::to_string(kReadyMs) + " ms";
            return false;  // the child's destructor kills it
        }
        if (fds[1].revents && !(fds[0].revents & POLLIN)) {
            const auto exit = child->Reap();
            error = program_ + " ended before it listened (" +
                    (exit.signalled ? "signal " + std::to_string(exit.signal) : "code " + std::to_string(exit.code)) +
                    ")";
            return false;
        }
    }
    std::lock_guard g(mutex_);
    running_[com].child = std::move(child);
    return true;
}

void SprdPhonePrograms::End(int com) {
    std::unique_ptr<platform::ChildProcess> child;
    {
        std::lock_guard g(mutex_);
        auto it = running_.find(com);
        if (it == running_.end()) return;
        child = std::move(it->second.child);
        running_.erase(it);
    }
    std::string ignored;
    Drain(*child, ignored, nullptr);
    child->Signal(SIGTERM);
    pollfd exited{child->ExitFd(), POLLIN, 0};
    while (::poll(&exited, 1, 3000) < 0 && errno == EINTR) {
    }
    if (!(exited.revents & POLLIN)) child->Signal(SIGKILL);
    child->Reap();
}

}  // namespace quorvel::sim
