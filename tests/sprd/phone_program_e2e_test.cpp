// quorvel-sprd-phone as the engine meets it: a socket path, a "ready" line, a report at the
// end; the pseudo-terminal transport; and the replay of a recorded session.
#include <gtest/gtest.h>

#include <csignal>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "engines/sprd/Frame.h"
#include "engines/sprd/PhoneCodes.h"
#include "platform/ChildProcess.h"
#include "support/RunTool.h"
#include "support/TempDir.h"

using namespace quorvel;
using namespace quorvel::sprd;
using Bytes = std::vector<std::uint8_t>;

namespace {

struct Phone {
    std::unique_ptr<platform::ChildProcess> child;
    std::string out;

    // `captureErr`: keep its stderr for Err(), read once it has ended (short texts only).
    explicit Phone(const std::vector<std::string>& args, bool captureErr = false) {
        std::vector<std::string> argv = {test::ToolPath("quorvel-sprd-phone")};
        argv.insert(argv.end(), args.begin(), args.end());
        std::string error;
        child = platform::ChildProcess::Spawn(argv, captureErr, error);
        EXPECT_TRUE(child) << error;
    }
    std::string Err() {
        std::string text;
        char buf[512];
        for (long n; (n = child->ReadErr(buf, sizeof buf)) > 0;) text.append(buf, static_cast<std::size_t>(n));
        return text;
    }
    // Output up to the first line that holds `what`, within 10 s.
    bool WaitFor(const std::string& what) {
        char buf[512];
        for (int waited = 0; out.find(what) == std::string::npos && waited < 100; ++waited) {
            pollfd p{child->OutFd(), POLLIN, 0};
            ::poll(&p, 1, 100);
            for (long n; (n = child->ReadOut(buf, sizeof buf)) > 0;) out.append(buf, static_cast<std::size_t>(n));
        }
        return out.find(what) != std::string::npos;
    }
};

int Connect(const std::string& path) {
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::strncpy(addr.sun_path, path.c_str(), sizeof addr.sun_path - 1);
    if (::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
        ::close(fd);
        return -1;
    }
    return fd;
}

// Writes `out` and returns the first frame that comes back within 5 s (type -1: none).
Frame Exchange(int fd, const Bytes& out, Check check) {
    EXPECT_EQ(::write(fd, out.data(), out.size()), static_cast<ssize_t>(out.size()));
    FrameDecoder dec(check);
    std::uint8_t buf[4096];
    for (int i = 0; i < 50; ++i) {
        pollfd p{fd, POLLIN, 0};
        if (::poll(&p, 1, 100) <= 0) continue;
        const ssize_t n = ::read(fd, buf, sizeof buf);
        if (n <= 0) break;
        dec.Feed({buf, static_cast<std::size_t>(n)});
        while (auto d = dec.Next())
            if (d->kind == Decoded::FRAME) return d->frame;
    }
    return Frame{0xFFFF, {}};
}

std::string Hex(const Bytes& b) {
    std::string s;
    char x[3];
    for (auto v : b) {
        std::snprintf(x, sizeof x, "%02x", v);
        s += x;
    }
    return s;
}

}  // namespace

TEST(SprdPhoneProgram, ServesUnixAndPtyAndReportsOnTerm) {
    test::TempDir dir;
    for (const std::string kind : {"unix", "pty"}) {
        SCOPED_TRACE(kind);
        const std::string path = dir.File(kind), report = dir.File(kind + ".json");
        Phone phone({"--listen", kind + ":" + path, "--report", report, "--reenumerate", "fdl1", "--absence-ms", "50"});
        ASSERT_TRUE(phone.WaitFor("ready " + kind + ":" + path + "\n")) << phone.out;
        int fd = kind == "unix" ? Connect(path) : ::open(path.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC);
        ASSERT_GE(fd, 0);
        Frame ver = Exchange(fd, Bytes{kFlag}, Check::BOOT_ROM_CRC);
        EXPECT_EQ(std::string(ver.payload.begin(), ver.payload.end()), std::string("SPRD3", 6));
        EXPECT_EQ(Exchange(fd, EncodeFrame(cmd::CONNECT, {}, Check::BOOT_ROM_CRC, true), Check::BOOT_ROM_CRC).type,
                  rep::ACK);
        const Bytes start = {0, 0, 0x50, 0, 0, 0, 0, 4};
        for (const auto& [type, payload] : std::vector<std::pair<std::uint16_t, Bytes>>{
                 {cmd::START_DATA, start}, {cmd::MIDST_DATA, {1, 2, 3, 4}}, {cmd::END_DATA, {}}, {cmd::EXEC_DATA, {}}})
            EXPECT_EQ(Exchange(fd, EncodeFrame(type, payload, Check::BOOT_ROM_CRC, true), Check::BOOT_ROM_CRC).type,
                      rep::ACK)
                << type;
        // The phone leaves and comes back on the same path, still running its first loader.
        // It says "ready" again once back: the old path may linger until it has left.
        ::close(fd);
        phone.out.clear();
        ASSERT_TRUE(phone.WaitFor("ready " + kind + ":" + path + "\n")) << phone.out;
        fd = kind == "unix" ? Connect(path) : ::open(path.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC);
        ASSERT_GE(fd, 0);
        ver = Exchange(fd, Bytes(4, kFlag), Check::LOADER_SUM);
        EXPECT_EQ(ver.type, rep::VER);
        ::close(fd);
        phone.child->Signal(SIGTERM);
        EXPECT_EQ(phone.child->Reap().code, 0);
        const std::string json = dir.Read(kind + ".json");
        EXPECT_NE(json.find("\"stage\":\"fdl1\""), std::string::npos) << json;
        EXPECT_NE(json.find("\"name\":\"@0x00005000\",\"size\":4,\"written\":4"), std::string::npos) << json;
    }
}

TEST(SprdPhoneProgram, ReplayChecksEachHostWrite) {
    test::TempDir dir;
    const Bytes connect = EncodeFrame(cmd::CONNECT, {}, Check::BOOT_ROM_CRC, true);
    const Bytes ack = EncodeFrame(rep::ACK, {}, Check::BOOT_ROM_CRC, true);
    const Bytes ver = EncodeFrame(rep::VER, Bytes{'S', 'P', 'R', 'D', '3', 0}, Check::BOOT_ROM_CRC, true);
    dir.Write("job.log",
              "engine started\n"
              "{\"rec\":\"sprd-wire\",\"at_ms\":1,\"dir\":\"out\",\"hex\":\"7e\"}\n"
              "{\"rec\":\"sprd-wire\",\"at_ms\":2,\"dir\":\"in\",\"hex\":\"" +
                  Hex(ver) +
                  "\"}\n"
                  "{\"rec\":\"sprd-wire\",\"at_ms\":3,\"dir\":\"out\",\"hex\":\"" +
                  Hex(connect) +
                  "\"}\n"
                  "{\"rec\":\"sprd-wire\",\"at_ms\":4,\"dir\":\"in\",\"hex\":\"" +
                  Hex(ack) + "\"}\n");
    std::string divergence;
    for (bool diverge : {false, true}) {
        SCOPED_TRACE(diverge ? "diverging host" : "faithful host");
        const std::string path = dir.File(diverge ? "b" : "a");
        Phone phone({"--listen", "unix:" + path, "--replay", dir.File("job.log"), "--replay-silence-ms", "3000"}, true);
        ASSERT_TRUE(phone.WaitFor("ready"));
        const int fd = Connect(path);
        ASSERT_GE(fd, 0);
        EXPECT_EQ(Exchange(fd, Bytes{kFlag}, Check::BOOT_ROM_CRC).type, rep::VER);
        Bytes second = connect;
        if (diverge) second = EncodeFrame(cmd::READ_PARTITION, {}, Check::BOOT_ROM_CRC, true);
        const Frame reply = Exchange(fd, second, Check::BOOT_ROM_CRC);
        ::close(fd);
        EXPECT_EQ(reply.type, diverge ? 0xFFFF : rep::ACK);
        EXPECT_EQ(phone.child->Reap().code, diverge ? 1 : 0);
        if (diverge) divergence = phone.Err();
    }
    // The divergence names the recorded frame and where it differs.
    EXPECT_NE(divergence.find("host write 2 of 2 (CONNECT frame (type 0x00), line 4) differs at byte 2"),
              std::string::npos)
        << divergence;
}
