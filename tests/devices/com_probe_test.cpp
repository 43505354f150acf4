#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>

#include "DeviceTestKit.h"
#include "devices/ComProbe.h"

namespace quorvel::devices {
namespace {

class ComProbeTest : public ::testing::Test {
protected:
    // Runs the probe with the clock driven; returns the result and the virtual time it took.
    std::pair<bool, platform::Millis> Run(const std::string& name) {
        test::ClockDriver driver(clock);
        const auto t0 = clock.Now();
        const bool ok = probe.Probe(name);
        return {ok, clock.Now() - t0};
    }

    platform::ManualClock clock;
    test::Pty pty;
    std::vector<int> asked;
    std::function<std::string(int)> nodeOf;
    ComProbe probe{clock, [this](int n) { return nodeOf(n); }};
};

// Attempts 10 ms apart, 100 in all; an open port is held 50 ms and let settle 10 ms.
TEST_F(ComProbeTest, AttemptsUntilThePortOpens) {
    ASSERT_FALSE(pty.Slave().empty());
    const struct {
        const char* name;
        std::size_t nodeFrom;  // the attempt from which the node is there
        bool held;             // locked by another opener in this process
        bool ok;
        platform::Millis took;
        std::vector<int> asked;  // the COM numbers asked for, the first few
    } cases[] = {
        {"MTK USB Port (COM5)", 1, false, true, 60, {5}},
        {"Port (COM5)", 40, false, true, 39 * 10 + 60, {5, 5, 5}},
        {"Port (COM5)", 1, true, false, 1000, {5, 5, 5}},
        {"Phone (C1)", 1, false, false, 0, {}},                        // too short: no attempt at all
        {"Phone (Android) (COM5)", 1, false, false, 1000, {0, 0, 0}},  // the first group is not the port
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        asked.clear();
        nodeOf = [&](int n) {
            asked.push_back(n);
            return asked.size() >= c.nodeFrom && n == 5 ? pty.Slave() : std::string("/nonexistent/tty");
        };
        const int other = c.held ? ::open(pty.Slave().c_str(), O_RDWR | O_NOCTTY) : -1;
        if (c.held) {
            ASSERT_EQ(::flock(other, LOCK_EX | LOCK_NB), 0);
            ::ioctl(other, TIOCEXCL);
        }
        const auto [ok, took] = Run(c.name);
        EXPECT_EQ(ok, c.ok);
        EXPECT_EQ(took, c.took);
        EXPECT_EQ(std::vector<int>(asked.begin(), asked.begin() + std::min(asked.size(), c.asked.size())), c.asked);
        if (c.held) ::close(other);
        // Closed again: someone else can open it now.
        SerialPort again;
        EXPECT_TRUE(again.Open(pty.Slave(), 115200));
    }
}

// Another process holds the port (as root we could open it anyway): every attempt
// fails, and its pending input, line settings and exclusive flag stay as they were.
TEST_F(ComProbeTest, PortHeldByAnotherProcessIsLeftAlone) {
    const int master = pty.Master();
    const std::string slave = pty.Slave();
    ASSERT_FALSE(slave.empty());
    int ready[2], done[2];
    ASSERT_EQ(::pipe(ready), 0);
    ASSERT_EQ(::pipe(done), 0);
    const pid_t child = ::fork();
    if (child == 0) {
        const int fd = ::open(slave.c_str(), O_RDWR | O_NOCTTY);
        termios tio{};
        ::tcgetattr(fd, &tio);
        ::cfmakeraw(&tio);
        ::cfsetspeed(&tio, B9600);
        ::tcsetattr(fd, TCSANOW, &tio);
        ::ioctl(fd, TIOCEXCL);
        char c = 1;
        [[maybe_unused]] auto w = ::write(ready[1], &c, 1);
        [[maybe_unused]] auto r = ::read(done[0], &c, 1);
        char got[8] = {};
        int excl = 0;
        ::ioctl(fd, TIOCGEXCL, &excl);
        ::tcgetattr(fd, &tio);
        const bool intact =
            ::read(fd, got, 5) == 5 && std::string(got) == "hello" && excl == 1 && ::cfgetispeed(&tio) == B9600;
        ::_exit(intact ? 0 : 1);
    }
    char c = 0;
    ASSERT_EQ(::read(ready[0], &c, 1), 1);
    ASSERT_EQ(::write(master, "hello", 5), 5);
    nodeOf = [&](int) { return slave; };
    const auto [ok, took] = Run("Port (COM5)");
    EXPECT_FALSE(ok);
    EXPECT_EQ(took, 1000);
    ASSERT_EQ(::write(done[1], &c, 1), 1);
    int status = 0;
    ::waitpid(child, &status, 0);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "the holder's port was disturbed";
    for (int fd : {ready[0], ready[1], done[0], done[1]}) ::close(fd);
}

// A node we may not open is retried within the attempts and reported once.
TEST_F(ComProbeTest, NoPermissionIsReportedOnce) {
    const std::string node = ::testing::TempDir() + "quorvel-ttyACM3";
    { std::ofstream(node) << ""; }
    ASSERT_EQ(::chmod(node.c_str(), 0), 0);
    const pid_t child = ::fork();
    if (child == 0) {
        if (::getuid() == 0 && ::setuid(65534) != 0) ::_exit(99);
        std::vector<std::string> said;
        test::ClockDriver driver(clock);
        ComProbe p(
            clock, [&](int) { return node; }, [&](const std::string& t) { said.push_back(t); });
        const bool ok = p.Probe("Port (COM4)") || p.Probe("Port (COM4)");
        const bool once =
            said == std::vector<std::string>{"no permission on " + node + ": is the udev rule installed?"};
        ::_exit(!ok && once ? 0 : 1);
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    ::unlink(node.c_str());
}

}  // namespace
}  // namespace quorvel::devices
