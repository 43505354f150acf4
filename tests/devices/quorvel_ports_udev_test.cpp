// quorvel-ports on a mocked bench, run as a technician runs it.

#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>

#include <algorithm>
#include <chrono>

#include "UmockdevBench.h"
#include "support/Golden.h"
#include "support/TempDir.h"

namespace quorvel::devices {
namespace {

const std::string kHub = "pci-0000:00:14.0-usbv2-0:1\\";

// "<location padded to its column> <rest>", as a map line reads.
std::string Row(const std::string& location, const std::string& rest) {
    std::string s = kHub + location;
    s.resize(44, ' ');
    return s + " " + rest;
}

// `quorvel-ports --watch` in a child, its output read as it comes.
class Watch {
public:
    explicit Watch(const std::string& folder) {
        int fds[2];
        if (::pipe(fds) != 0) return;
        pid_ = ::fork();
        if (pid_ == 0) {
            ::dup2(fds[1], 1);
            ::close(fds[0]);
            const std::string tool = test::ToolPath("quorvel-ports");
            ::execl(tool.c_str(), tool.c_str(), "--watch", folder.c_str(), static_cast<char*>(nullptr));
            ::_exit(127);
        }
        ::close(fds[1]);
        fd_ = fds[0];
    }
    ~Watch() {
        if (pid_ > 0) {
            ::kill(pid_, SIGTERM);
            ::waitpid(pid_, nullptr, 0);
        }
        if (fd_ >= 0) ::close(fd_);
    }
    // What it printed since the last call, once that holds `text` (at most 10 s).
    std::string Until(const std::string& text) {
        const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        while (out_.find(text) == std::string::npos && std::chrono::steady_clock::now() < end) {
            pollfd p{fd_, POLLIN, 0};
            if (::poll(&p, 1, 100) <= 0) continue;
            char buf[4096];
            const ssize_t n = ::read(fd_, buf, sizeof buf);
            if (n <= 0) break;
            out_.append(buf, static_cast<std::size_t>(n));
        }
        return std::exchange(out_, "");
    }

private:
    pid_t pid_ = -1;
    int fd_ = -1;
    std::string out_;
};

class QuorvelPortsTest : public test::UmockdevBench {
protected:
    void SetUp() override { station.Write("Config/CommonSetting.ini", "[USBPORTINFO]\nIndex0=" + kHub + "PORT1\n"); }
    void Build() {
        usb1 = RootHub("0000:00:14.0", "usb1", " 2.00", "480", "1");
        RootHub("0000:00:1d.0", "usb2", " 1.10", "12", "2");
        hub = Hub(usb1, "1-1", "1", "2");
    }
    std::string usb1, hub;
    test::TempDir station;
};

TEST_F(QuorvelPortsTest, MapAndUsage) {
    RUN_UNDER_UMOCKDEV();
    Build();
    Phone(hub, "1-1.2", "0e8d", "2000", "1.2", "MT65xx Preloader", "ttyACM0");
    // The 1.1 root hub has no sockets in the map.
    const std::pair<const char*, std::string> runs[] = {
        {"map", station.Path()},
        {"map_json", "--json " + station.Path()},
        {"watch_and_check", "--watch --check"},
        {"unknown_option", "--bogus"},
        {"not_a_station", station.Path() + "nowhere"},
        {"help", "--help"},
    };
    for (const auto& [name, args] : runs) {
        EXPECT_TRUE(test::MatchesGolden(std::string("quorvel-ports/") + name + ".txt",
                                        test::RunTranscript("quorvel-ports", args, {{station.Path(), "$DIR/"}})));
    }
    // The check exits 1 exactly when it has something to fix.
    const auto check = test::RunCommand(test::ToolPath("quorvel-ports") + " --check --json");
    EXPECT_EQ(check.exitCode, check.out == "[]\n" ? 0 : 1) << check.out;
}

// Plug a phone whose serial port comes late, then pull it: each change is one
// "-" old and "+" new line of the socket, with its binding.
TEST_F(QuorvelPortsTest, WatchFollowsASocketAsAPhoneComesGetsItsPortAndLeaves) {
    RUN_UNDER_UMOCKDEV();
    Build();
    Watch watch(station.Path());
    const std::string empty = Row("PORT1", "-  [slot 1 (HS)]");
    ASSERT_NE(watch.Until(empty).find(empty), std::string::npos);

    const std::string phone = Phone(hub, "1-1.1", "0e8d", "2000", "1.1", "MT65xx Preloader", nullptr);
    Announce(phone);
    const std::string bare = Row("PORT1", "0e8d:2000 class 02 cdc_acm \"MT65xx Preloader\"  [slot 1 (HS)]");
    EXPECT_EQ(watch.Until(bare), "- " + empty + "\n+ " + bare + "\n");

    Announce(Tty(phone + "/1-1.1:1.0", "ttyACM0"));
    const std::string ready =
        Row("PORT1", "0e8d:2000 class 02 cdc_acm /dev/ttyACM0 COM1 \"MT65xx Preloader\"  [slot 1 (HS)]");
    EXPECT_EQ(watch.Until(ready), "- " + bare + "\n+ " + ready + "\n");

    Unplug(phone);
    EXPECT_EQ(watch.Until("+ " + empty), "- " + ready + "\n+ " + empty + "\n");
}

}  // namespace
}  // namespace quorvel::devices
