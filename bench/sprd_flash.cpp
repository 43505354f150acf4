// The native SPRD engine's cost: flashes one image (512 MiB unless --mib N) to a phone on
// the socket transport, and copies the same bytes raw through the same kind of socket in
// the same run. Prints the engine thread's CPU time, its throughput against the raw copy
// (target: at least 90 %), its share of one core at 40 MB/s (target: under 5 %), and what
// the measured wire overhead allows for a 4 GB package on sixteen phones behind one USB 2.0
// hub against the 480 Mb/s bound.
//   sprd_flash [--mib N] [--chunk BYTES]... [--model]
// --model answers with the simulated phone's device model (hashing every partition, as
// quorvel-sprd-phone does) instead of the bench's own minimal responder.
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "engines/sprd/Codes.h"
#include "engines/sprd/FdTransport.h"
#include "engines/sprd/Frame.h"
#include "engines/sprd/PhoneModel.h"
#include "engines/sprd/Plan.h"
#include "engines/sprd/Session.h"

namespace {

using namespace quorvel::sprd;
using Bytes = std::vector<std::uint8_t>;
using SteadyClock = std::chrono::steady_clock;

double ThreadCpuSeconds() {
    timespec t{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
    return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) / 1e9;
}

int Listen(const std::string& path) {
    ::unlink(path.c_str());
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::strncpy(addr.sun_path, path.c_str(), sizeof addr.sun_path - 1);
    if (fd < 0 || ::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 || ::listen(fd, 2) != 0) {
        std::perror("listen");
        std::_Exit(1);  // the phone's thread may run: no static destructors under it
    }
    return fd;
}

void SendAll(int fd, const Bytes& b) {
    for (std::size_t done = 0; done < b.size();) {
        const ssize_t n = ::send(fd, b.data() + done, b.size() - done, MSG_NOSIGNAL);
        if (n <= 0) return;
        done += static_cast<std::size_t>(n);
    }
}

// The least a phone must do: decode, acknowledge, answer check baud and the partition table.
class MinimalPhone {
public:
    explicit MinimalPhone(std::uint64_t systemBytes)
        : systemMib_(static_cast<std::uint32_t>((systemBytes >> 20) + 1)) {}
    Bytes Receive(std::span<const std::uint8_t> in) {
        Bytes out;
        if (!synced_ && std::all_of(in.begin(), in.end(), [](std::uint8_t b) { return b == kFlag; })) {
            const Bytes ver = {'S', 'P', 'R', 'D', '3', 0};
            EncodeFrame(rep::VER, ver, check_, escaping_, out);
        }
        decoder_.Feed(in);
        while (auto d = decoder_.Next()) {
            if (d->kind != Decoded::FRAME) {
                EncodeFrame(rep::VERIFY_ERROR, {}, check_, escaping_, out);
                continue;
            }
            const std::uint16_t type = d->frame.type;
            if (type == cmd::READ_PARTITION) {
                Bytes table;
                PutPartitionName("system", table);
                for (int i = 0; i < 4; ++i) table.push_back(static_cast<std::uint8_t>(systemMib_ >> (8 * i)));
                EncodeFrame(rep::PARTITION_TABLE, table, check_, escaping_, out);
                continue;
            }
            EncodeFrame(rep::ACK, {}, check_, escaping_, out);
            if (type == cmd::CONNECT) synced_ = true;
            if (type == cmd::EXEC_DATA) {
                synced_ = false;
                check_ = Check::LOADER_SUM;
            }
            if (type == cmd::DISABLE_TRANSCODE) {
                escaping_ = false;
                decoder_.SetEscaping(false);
            }
            if (type == cmd::NORMAL_RESET) done_ = true;
        }
        return out;
    }
    bool Done() const { return done_; }

private:
    FrameDecoder decoder_{Check::DETECT};
    Check check_ = Check::BOOT_ROM_CRC;
    bool escaping_ = true, synced_ = false, done_ = false;
    std::uint32_t systemMib_;
};

// Serves one connection with `respond` (bytes in, bytes out) until the host closes.
template <typename Respond>
void Serve(int listener, Respond respond) {
    const int fd = ::accept(listener, nullptr, nullptr);
    std::vector<std::uint8_t> buf(std::size_t{256} * 1024);
    for (;;) {
        const ssize_t n = ::read(fd, buf.data(), buf.size());
        if (n <= 0) break;
        if (!respond(std::span<const std::uint8_t>(buf.data(), static_cast<std::size_t>(n)), fd)) break;
    }
    ::close(fd);
}

// Counts what crosses the wire, both ways.
class Counting : public Transport {
public:
    explicit Counting(Transport& inner) : inner_(inner) {}
    bool Write(std::span<const std::uint8_t> b) override {
        out += b.size();
        ++writes;
        return inner_.Write(b);
    }
    long Read(std::span<std::uint8_t> b, int ms) override {
        const long n = inner_.Read(b, ms);
        if (n > 0) in += static_cast<std::uint64_t>(n);
        return n;
    }
    bool Reopen(int ms, std::string& e) override { return inner_.Reopen(ms, e); }
    std::string Name() const override { return inner_.Name(); }
    std::uint64_t out = 0, in = 0, writes = 0;

private:
    Transport& inner_;
};

struct Quiet : SessionObserver {
    void Step(int) override {}
    void Status(const std::string&) override {}
    void Progress(std::uint64_t, std::uint64_t) override {}
    void Log(const std::string&) override {}
};

struct FlashRun {
    double seconds = 0, cpu = 0;
    std::uint64_t wireOut = 0, wireIn = 0, writes = 0;
    bool ok = false;
    std::string error;
};

FlashRun Flash(const std::string& dir, const Plan& plan, std::size_t chunk, bool model, std::uint64_t bytes) {
    const std::string sock = dir + "phone.sock";
    const int listener = Listen(sock);
    std::thread phone([&] {
        if (model) {
            PhoneConfig config;
            config.partitions = {{"system", static_cast<std::uint32_t>((bytes >> 20) + 1)}};
            config.nvPartition = "none";
            PhoneModel m(config);
            Serve(listener, [&](std::span<const std::uint8_t> in, int fd) {
                for (auto& a : m.Receive(in)) {
                    if (a.kind == PhoneAction::SEND) SendAll(fd, a.bytes);
                    if (a.kind == PhoneAction::RESET) return false;
                }
                return true;
            });
        } else {
            MinimalPhone m(bytes);
            Serve(listener, [&](std::span<const std::uint8_t> in, int fd) {
                SendAll(fd, m.Receive(in));
                return !m.Done();
            });
        }
    });
    FlashRun r;
    {
        FdTransport link(FdTransport::UNIX, sock);
        std::string error;
        if (!link.Open(5000, error)) {
            std::fprintf(stderr, "%s\n", error.c_str());
            std::_Exit(1);  // the phone's thread runs: no static destructors under it
        }
        Counting counted(link);
        Quiet quiet;
        SessionOptions options;
        options.chunk = chunk;
        Session session(counted, plan, options, quiet);
        const double cpu0 = ThreadCpuSeconds();
        const auto t0 = SteadyClock::now();
        r.ok = session.Run();
        r.seconds = std::chrono::duration<double>(SteadyClock::now() - t0).count();
        r.cpu = ThreadCpuSeconds() - cpu0;
        r.error = session.Error();
        r.wireOut = counted.out;
        r.wireIn = counted.in;
        r.writes = counted.writes;
    }
    phone.join();
    ::close(listener);
    ::unlink(sock.c_str());
    return r;
}

// The same bytes through the same kind of socket, nothing but read and write.
double RawCopy(const std::string& dir, const std::string& image, std::size_t chunk) {
    const std::string sock = dir + "raw.sock";
    const int listener = Listen(sock);
    std::thread sink([&] { Serve(listener, [](std::span<const std::uint8_t>, int) { return true; }); });
    double s = 0;
    {
        FdTransport link(FdTransport::UNIX, sock);
        std::string error;
        link.Open(5000, error);
        std::FILE* f = std::fopen(image.c_str(), "rb");
        Bytes buf(chunk);
        const auto t0 = SteadyClock::now();
        for (std::size_t n; (n = std::fread(buf.data(), 1, buf.size(), f)) > 0;)
            link.Write(std::span<const std::uint8_t>(buf.data(), n));
        std::fclose(f);
        s = std::chrono::duration<double>(SteadyClock::now() - t0).count();
    }  // closed: the sink ends
    sink.join();
    ::close(listener);
    ::unlink(sock.c_str());
    return s;
}

}  // namespace

int main(int argc, char** argv) {
    std::uint64_t mib = 512;
    bool model = false;
    std::vector<std::size_t> chunks;
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        if (a == "--mib" && i + 1 < argc)
            mib = std::strtoull(argv[++i], nullptr, 10);
        else if (a == "--chunk" && i + 1 < argc)
            chunks.push_back(std::strtoul(argv[++i], nullptr, 10));
        else if (a == "--model")
            model = true;
        else {
            std::fprintf(stderr, "usage: sprd_flash [--mib N] [--chunk BYTES]... [--model]\n");
            return 2;
        }
    }
    if (chunks.empty()) chunks = {4096, 65534};
    const std::string dir =
        (std::filesystem::temp_directory_path() / ("quorvel-sprd-bench-" + std::to_string(::getpid()))).string() + "/";
    std::filesystem::create_directories(dir);
    const std::uint64_t bytes = mib << 20;
    {
        // Random bytes: 2 in 256 need escaping, as in a real image.
        std::ofstream out(dir + "system.img", std::ios::binary);
        Bytes block(1 << 20);
        std::uint32_t x = 2463534242u;
        for (std::uint64_t done = 0; done < bytes; done += block.size()) {
            for (auto& b : block) {
                x ^= x << 13;
                x ^= x >> 17;
                x ^= x << 5;
                b = static_cast<std::uint8_t>(x);
            }
            out.write(reinterpret_cast<const char*>(block.data()), static_cast<std::streamsize>(block.size()));
        }
        const Bytes loader(4096, 0x11);
        std::ofstream(dir + "fdl.bin", std::ios::binary).write(reinterpret_cast<const char*>(loader.data()), 4096);
    }
    Plan plan;
    plan.fdl = {dir + "fdl.bin", 0x5000, 4096};
    plan.fdl2 = {dir + "fdl.bin", 0x9efffe00, 4096};
    PlanStep system;
    system.id = "SYSTEM";
    system.partition = "system";
    system.path = dir + "system.img";
    system.size = bytes;
    plan.steps.push_back(system);

    std::printf("SPRD flash of %llu MiB over a Unix socket, responder: %s\n", static_cast<unsigned long long>(mib),
                model ? "the simulated phone's device model" : "minimal");
    for (std::size_t chunk : chunks) {
        const double raw = RawCopy(dir, dir + "system.img", chunk);
        const FlashRun r = Flash(dir, plan, chunk, model, bytes);
        if (!r.ok) {
            std::printf("chunk %zu: flash failed: %s\n", chunk, r.error.c_str());
            continue;
        }
        const double rawMBps = static_cast<double>(bytes) / raw / 1e6;
        const double mbps = static_cast<double>(bytes) / r.seconds / 1e6;
        const double cpuPerByte = r.cpu / static_cast<double>(bytes);
        const double coreAt40 = cpuPerByte * 40e6 * 100;
        // Wire bytes per image byte: frames, escapes, the replies.
        const double overhead = static_cast<double>(r.wireOut + r.wireIn) / static_cast<double>(bytes);
        std::printf(
            "chunk %5zu: raw copy %8.1f MB/s | engine %8.1f MB/s = %5.1f %% of raw | engine CPU %.2f s "
            "(%.2f ns/byte) = %.2f %% of one core at 40 MB/s | wire %.4f bytes per image byte, %llu writes\n",
            chunk, rawMBps, mbps, 100 * mbps / rawMBps, r.cpu, cpuPerByte * 1e9, coreAt40, overhead,
            static_cast<unsigned long long>(r.writes));
        // Sixteen phones, one USB 2.0 hub, a 4 GB package: the bus carries every wire byte.
        const double busBytesPerSecond = 480e6 / 8;
        const double package = 4e9;
        const double busSecondsPerPhone = package * overhead / busBytesPerSecond;
        const double phonesPerHourBus = 3600 / busSecondsPerPhone;
        const double cpuPerPhone = cpuPerByte * package;
        std::printf(
            "            4 GB x 16 phones on one hub: %.0f s of bus per phone at 480 Mb/s -> at most %.1f phones "
            "per hour; engines' CPU %.1f s per phone (%.1f %% of one core while the bus is full)\n",
            busSecondsPerPhone, phonesPerHourBus, cpuPerPhone, 100 * cpuPerPhone / busSecondsPerPhone);
    }
    std::filesystem::remove_all(dir);
    return 0;
}
