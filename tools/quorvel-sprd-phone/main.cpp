// quorvel-sprd-phone: a simulated SPRD phone in download mode, for the native engine's tests,
// the simulated bench and replays of recorded sessions. See docs/sprd-engine.md.

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <map>
#include <memory>
#include <string>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include "Endpoint.h"
#include "Replay.h"
#include "engines/sprd/PhoneModel.h"
#include "platform/AtomicFile.h"
#include "platform/UniqueFd.h"

using namespace quorvel;
using sprdphone::Endpoint;

namespace {

const char* const kUsage =
    "usage: quorvel-sprd-phone --listen unix:PATH|pty:PATH [options]\n"
    "  Plays one SPRD phone in download mode; prints \"ready WHERE\" each time it listens.\n"
    "  --report FILE          at the end (and on SIGTERM) what was written where, as JSON\n"
    "  --dump DIR             also keep every written partition as DIR/NAME.img\n"
    "  --fault NAME[@N]       inject a fault (repeatable): %s\n"
    "  --reenumerate none|fdl1|fdl2   leave and come back after that loader runs\n"
    "  --absence-ms MS        how long a re-enumeration leaves the path (300)\n"
    "  --slow-ms MS           how long the slow fault holds its reply (20000)\n"
    "  --log-frames CHANCE    chance (0..1) of a log frame before each reply (0)\n"
    "  --seed N               for log frames and the factory calibration (1)\n"
    "  --partitions N:MIB,..  the table before any repartition (MIB 'rest' for the rest)\n"
    "  --storage-mib N        storage size (8192)\n"
    "  --nv-partition NAME    the calibration area (fixnv1)\n"
    "  --incompatible         EXEC of the second loader answers 0x96\n"
    "  --keep                 after a reset, boot again instead of ending\n"
    "  --replay LOG           play back an engine's --record log as the device side\n"
    "  --replay-silence-ms MS how long a replay waits for the host (10000)\n";

bool ParseUint(const char* s, unsigned long long& out) {
    if (!s || !*s || *s == '-') return false;
    char* end = nullptr;
    out = std::strtoull(s, &end, 10);
    return *end == '\0';
}

// --dump: each partition's received bytes at their offsets.
class Dumper {
public:
    explicit Dumper(std::string dir) : dir_(std::move(dir)) {}
    void Write(const std::string& name, std::uint64_t offset, std::span<const std::uint8_t> data) {
        const int fd = File(name);
        if (offset == 0) (void)::ftruncate(fd, 0);
        if (fd >= 0 &&
            ::pwrite(fd, data.data(), data.size(), static_cast<off_t>(offset)) != static_cast<ssize_t>(data.size()))
            std::fprintf(stderr, "quorvel-sprd-phone: cannot write %s/%s.img\n", dir_.c_str(), name.c_str());
    }
    void Erase(const std::string& name) {
        if (const int fd = File(name); fd >= 0) (void)::ftruncate(fd, 0);
    }

private:
    int File(const std::string& name) {
        auto it = files_.find(name);
        if (it != files_.end()) return it->second.get();
        const std::string path = dir_ + "/" + name + ".img";
        platform::UniqueFd& fd = files_[name];
        fd.reset(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644));
        return fd.get();
    }
    std::string dir_;
    std::map<std::string, platform::UniqueFd> files_;
};

}  // namespace

int main(int argc, char** argv) {
    sprd::PhoneConfig config;
    std::string where, report, dump, replay;
    bool keep = false;
    int silenceMs = 10000;
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        const char* v = i + 1 < argc ? argv[i + 1] : nullptr;
        unsigned long long n = 0;
        auto bad = [&](const std::string& why) {
            std::fprintf(stderr, "quorvel-sprd-phone: %s\n", why.c_str());
            std::fprintf(stderr, kUsage, sprd::PhoneFaultNames());
            return 2;
        };
        if (a == "--help" || a == "-h") {
            std::printf(kUsage, sprd::PhoneFaultNames());
            return 0;
        }
        if (a == "--keep") {
            keep = true;
            continue;
        }
        std::string error;
        if (const int took = sprd::ParsePhoneOption(a, v, config, error); took != 0) {
            if (took < 0) return bad(error);
            i += took - 1;
            continue;
        }
        if (!v) return bad(a + " needs a value");
        ++i;
        if (a == "--listen")
            where = v;
        else if (a == "--report")
            report = v;
        else if (a == "--dump")
            dump = v;
        else if (a == "--replay")
            replay = v;
        else if (a == "--replay-silence-ms" && ParseUint(v, n) && n < 3600000)
            silenceMs = static_cast<int>(n);
        else {
            return bad("bad option or value: " + a + " " + v);
        }
    }
    if (!Endpoint::Valid(where)) {
        std::fprintf(stderr, "quorvel-sprd-phone: --listen unix:PATH or pty:PATH is required\n");
        std::fprintf(stderr, kUsage, sprd::PhoneFaultNames());
        return 2;
    }

    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGTERM);
    sigaddset(&stopSignals, SIGINT);
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);
    std::signal(SIGPIPE, SIG_IGN);
    const int stopFd = ::signalfd(-1, &stopSignals, SFD_CLOEXEC);

    Endpoint endpoint(where, stopFd);
    std::string error;
    if (!endpoint.Open(error)) {
        std::fprintf(stderr, "quorvel-sprd-phone: %s\n", error.c_str());
        return 1;
    }
    std::printf("ready %s\n", where.c_str());
    std::fflush(stdout);
    if (!replay.empty()) return sprdphone::Replay(replay, endpoint, silenceMs);

    sprd::PhoneModel phone(config);
    std::unique_ptr<Dumper> dumper;
    if (!dump.empty()) {
        ::mkdir(dump.c_str(), 0755);
        dumper = std::make_unique<Dumper>(dump);
        phone.SetSinks([&](const std::string& name, std::uint64_t offset,
                           std::span<const std::uint8_t> data) { dumper->Write(name, offset, data); },
                       [&](const std::string& name) { dumper->Erase(name); });
    }

    std::vector<std::uint8_t> buf(1 << 16);
    bool done = false;
    while (!done && endpoint.Accept()) {
        const long got = endpoint.Read(buf);
        if (got < 0) break;  // stopping
        if (got == 0) {
            phone.HostClosed();
            endpoint.Hangup();
            continue;
        }
        for (const sprd::PhoneAction& act : phone.Receive({buf.data(), static_cast<std::size_t>(got)})) {
            bool ok = true;
            switch (act.kind) {
                case sprd::PhoneAction::SEND: ok = endpoint.Write(act.bytes); break;
                case sprd::PhoneAction::DELAY: ok = endpoint.Pause(static_cast<int>(act.ms)); break;
                case sprd::PhoneAction::REENUMERATE:
                case sprd::PhoneAction::RESET:
                    phone.HostClosed();
                    endpoint.Close();
                    if (act.kind == sprd::PhoneAction::RESET && !keep) {
                        done = true;
                        break;
                    }
                    ok = endpoint.Pause(
                             static_cast<int>(act.kind == sprd::PhoneAction::RESET ? config.absenceMs : act.ms)) &&
                         endpoint.Open(error);
                    if (!ok && !endpoint.Stopped()) std::fprintf(stderr, "quorvel-sprd-phone: %s\n", error.c_str());
                    if (ok) {
                        // Back on the path: a host must not mistake the old one for it.
                        std::printf("ready %s\n", where.c_str());
                        std::fflush(stdout);
                    }
                    break;
                case sprd::PhoneAction::UNPLUG:
                    endpoint.Close();
                    done = true;
                    break;
            }
            if (!ok) {
                if (endpoint.Stopped())
                    done = true;
                else if (endpoint.Connected()) {
                    phone.HostClosed();
                    endpoint.Hangup();
                }
                break;
            }
            if (done) break;
        }
    }
    endpoint.Close();
    if (!report.empty() && !platform::ReplaceFileAtomically(report, phone.ReportJson())) {
        std::fprintf(stderr, "quorvel-sprd-phone: cannot write %s\n", report.c_str());
        return 1;
    }
    return 0;
}
