#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <unistd.h>

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
    std::function<std::string(int)> nodeOf = [this](int n) {
        asked.push_back(n);
        return n == 5 ? pty.Slave() : std::string();
    };
    ComProbe probe{clock, [this](int n) { return nodeOf(n); }};
};

TEST_F(ComProbeTest, ReadyPortIsOpenedAndClosedAtOnce) {
    ASSERT_FALSE(pty.Slave().empty());
    const auto [ok, took] = Run("MTK USB Port (COM5)");
    EXPECT_TRUE(ok);
    EXPECT_EQ(took, 60);
    EXPECT_EQ(asked, std::vector<int>{5});
    // Closed again: someone else can open it now.
    SerialPort again;
    EXPECT_TRUE(again.Open(pty.Slave(), 115200));
}

TEST_F(ComProbeTest, PortThatAppearsOnTheFortiethAttempt) {
    nodeOf = [this](int) {
        asked.push_back(0);
        return asked.size() < 40 ? std::string("/nonexistent/tty") : pty.Slave();
    };
    const auto [ok, took] = Run("Port (COM5)");
    EXPECT_TRUE(ok);
    EXPECT_EQ(asked.size(), 40u);
    EXPECT_EQ(took, 39 * 10 + 60);
}

TEST_F(ComProbeTest, PortHeldByAnotherOpenerFailsEveryAttempt) {
    const int other = ::open(pty.Slave().c_str(), O_RDWR | O_NOCTTY);
    ASSERT_GE(other, 0);
    ASSERT_EQ(::flock(other, LOCK_EX | LOCK_NB), 0);
    ::ioctl(other, TIOCEXCL);
    const auto [ok, took] = Run("Port (COM5)");
    EXPECT_FALSE(ok);
    EXPECT_EQ(asked.size(), 100u);
    EXPECT_EQ(took, 1000);
    ::close(other);
}

TEST_F(ComProbeTest, NamesThatAreNoComPort) {
    // Too short: fails without a single attempt.
    EXPECT_FALSE(Run("Phone (C1)").first);
    EXPECT_TRUE(asked.empty());
    // The first group is not the port: port 0, which never opens.
    const auto [ok, took] = Run("Phone (Android) (COM5)");
    EXPECT_FALSE(ok);
    EXPECT_EQ(asked.front(), 0);
    EXPECT_EQ(took, 1000);
}

}  // namespace
}  // namespace quorvel::devices
