// An engine program that behaves as the station's simulated engines do, speaking the
// engine line protocol (docs/engine-protocol.md); or replays a recorded session.
// Also has misbehaving modes, so that the station's fault handling can be shown.
#include <signal.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "engines/program/EngineProtocol.h"
#include "platform/JsonText.h"
#include "sim/SimEngines.h"

namespace {

namespace protocol = quorvel::engine::protocol;

struct Options {
    std::string platform = "MTK";
    long durationMs = 6000;
    bool pass = true;
    int failingStep = -1;
    unsigned long long sizeBytes = 32ull << 20;
    double speedMBps = 16.0;
    bool switchPort = true;
    long sprdPhase1Ms = 3000;
    int phase = 1;
    double timeScale = 1.0;
    int progressRate = 0;  // progress lines a second during the transfer; 0: ten in all
    int announce = protocol::kVersion;
    std::string misbehave;         // crash, garbage, silent, no-result, ignore-term, no-hello, late-result
    std::string device;            // the phone's device instance ID ({device})
    unsigned long long phone = 1;  // the bench's number for the phone: its identity
    bool stamp = false;            // progress "done" = the monotonic clock in microseconds, for latency benchmarks
    std::string replay;
    std::string package;    // {package}: checked by --preload
    std::string operation;  // preload or verify
    std::string checksum;   // --verify: the package's checksum list
};

Options g;

void Usage() {
    std::puts(
        "usage: quorvel-sim-engine [--platform MTK|FP|SPRD] [--phase 1|2] [--duration MS] [--fail]\n"
        "         [--fail-step N] [--size BYTES] [--speed MBPS] [--no-switch] [--sprd-phase1 MS]\n"
        "         [--time-scale F] [--progress-rate N] [--stamp] [--protocol N]\n"
        "         [--misbehave MODE[@DEVICE]] [--device ID] [--phone N]\n"
        "       quorvel-sim-engine --version   (writes its hello and exits)\n"
        "       quorvel-sim-engine --preload [--package FILE]   (passes when FILE lists an entry)\n"
        "       quorvel-sim-engine --verify CHECKSUM [--fail]   (checks the files beside CHECKSUM)\n"
        "MODE: crash, garbage, silent, no-result, ignore-term, no-hello or late-result (SPRD: the\n"
        "first phase's result 15 s after its switch); with @DEVICE only for\n"
        "the job whose --device is DEVICE. N: the phone's identity (chip, serial, IMEI) is derived\n"
        "from it, as the in-process simulated engines derive theirs.\n"
        "       quorvel-sim-engine --replay LOG [--time-scale F]\n"
        "Other arguments (NAME=VALUE options, paths) are accepted and ignored.");
}

void Emit(const std::string& line) {
    std::fputs(line.c_str(), stdout);
    std::fputc('\n', stdout);
    std::fflush(stdout);
}

void SleepMs(double ms) {
    ms /= g.timeScale;
    if (ms <= 0) return;
    timespec ts{static_cast<time_t>(ms / 1000), static_cast<long>(static_cast<long long>(ms * 1e6) % 1000000000LL)};
    while (nanosleep(&ts, &ts) != 0) {
    }
}

double NowMs() {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<double>(ts.tv_sec) * 1000.0 + static_cast<double>(ts.tv_nsec) / 1e6;
}

void Status(const char* key) {
    Emit(std::string("{\"t\":\"status\",\"key\":") + quorvel::platform::JsonQuote(key) + "}");
}
void Device() {
    const quorvel::app::PhoneIdentity d = quorvel::engine::SimPhoneIdentity(g.platform, g.phone);
    using quorvel::platform::JsonQuote;
    Emit("{\"t\":\"device\",\"chip\":" + JsonQuote(d.chip) + ",\"serial\":" + JsonQuote(d.serial) +
         ",\"imei\":" + JsonQuote(d.imei) + "}");
}
void Step(int step) {
    Emit("{\"t\":\"step\",\"step\":" + std::to_string(step) + "}");
}
void Result(bool ok, const std::string& error = "") {
    Emit(std::string("{\"t\":\"result\",\"ok\":") + (ok ? "true" : "false") +
         (error.empty() ? "" : ",\"error\":" + quorvel::platform::JsonQuote(error)) + "}");
}
double NowMs();
void Progress(unsigned long long done, unsigned long long total) {
    if (g.stamp) {
        total = 0xFFFFFFFFull;
        done = static_cast<unsigned long long>(NowMs() * 1000.0) & total;
    }
    Emit("{\"t\":\"progress\",\"done\":" + std::to_string(done) + ",\"total\":" + std::to_string(total) +
         ",\"percent\":" + std::to_string(total ? done * 100 / total : 0) + "}");
}
void Percent(int p) {
    Emit("{\"t\":\"progress\",\"percent\":" + std::to_string(p) + "}");
}

double TransferMs(unsigned long long bytes) {
    return g.speedMBps <= 0 ? 0 : static_cast<double>(bytes) / (1024.0 * 1024.0) / g.speedMBps * 1000.0;
}

// The transfer in `chunks` steps over `ms`; or, with a progress rate, one line per period.
// Returns false when it stops at the failing point (half way).
bool Transfer(double ms, bool failing, bool bytes) {
    const int chunks = g.progressRate > 0 ? std::max(1, static_cast<int>(ms / 1000.0 * g.progressRate)) : 10;
    if (bytes && !g.stamp) Emit("{\"t\":\"progress\",\"done\":0,\"total\":" + std::to_string(g.sizeBytes) + "}");
    for (int i = 1; i <= chunks; ++i) {
        SleepMs(ms / chunks);
        if (bytes)
            Progress(g.sizeBytes * static_cast<unsigned long long>(i) / chunks, g.sizeBytes);
        else
            Percent(i * 100 / chunks);
        if (failing && i * 2 >= chunks) return false;
    }
    return true;
}

int MtkJob() {
    const bool daSwitch = g.platform == "MTK";
    auto failsAt = [&](int step) { return !g.pass && g.failingStep == step; };
    const double setupMs = static_cast<double>(g.durationMs) / 10;
    Status("bind");
    SleepMs(setupMs);
    if (failsAt(0)) return Result(false), 0;
    Device();
    if (daSwitch && g.switchPort) {
        SleepMs(setupMs);
        Emit("{\"t\":\"switch\"}");
        if (failsAt(1)) return Result(false), 0;
    }
    Status("downloading");
    const double ms = static_cast<double>(g.durationMs) - 2 * setupMs + TransferMs(g.sizeBytes);
    if (!Transfer(ms, failsAt(2), true)) return Result(false), 0;
    Result(g.pass);
    return 0;
}

int SprdJob() {
    static const char* const names[] = {"Waiting",        "Checking baudrate", "Connecting", "Erasing flash",
                                        "Downloading...", "Reading Flash",     "Reseting",   "Read Chip Type",
                                        "Read NV Item",   "Change Baud",       "Finish",     "Unplugged",
                                        "Paused",         "Enumerating port"};
    const bool phase1 = g.phase == 1;
    static const int p1[] = {1, 2, 4}, p2[] = {1, 2, 3, 4, 9};
    const int* steps = phase1 ? p1 : p2;
    const int count = phase1 ? 3 : 5;
    const int firstIndex = phase1 ? 0 : 3;
    const double stepMs = static_cast<double>(phase1 ? g.sprdPhase1Ms : g.durationMs) / count;
    for (int i = 0; i < count; ++i) {
        const int step = steps[i];
        Step(step);
        const bool failing = !g.pass && g.failingStep == firstIndex + i;
        if (step == 4) {
            if (!Transfer(stepMs + (phase1 ? 0 : TransferMs(g.sizeBytes)), failing, false))
                return Result(false, std::string(names[step]) + " failed"), 0;
        } else {
            SleepMs(stepMs);
        }
        if (failing) return Result(false, std::string(names[step]) + " failed"), 0;
        if (phase1 && step == 2) Device();
    }
    if (!g.pass && !phase1) return Result(false, "Download failed"), 0;
    if (phase1 && g.switchPort) Emit("{\"t\":\"switch\"}");
    // A phone slow to come back: the switch is said, its result comes after the station gave up.
    if (phase1 && g.misbehave == "late-result") SleepMs(15000);
    Result(true);
    return 0;
}

// The package-wide operations, as the in-process engine does them: a pre-load passes when
// the package file is there; a verification reports each file beside the checksum list.
int Operation() {
    namespace fs = std::filesystem;
    std::error_code ec;
    if (g.operation == "preload") {
        // Refused as the in-process simulated engines refuse it: missing, or nothing in it.
        if (!g.package.empty())
            if (const std::string problem = quorvel::engine::SimPackageProblem(g.package); !problem.empty())
                return Result(false, problem), 0;
        return Result(true), 0;
    }
    std::vector<fs::path> files;
    for (fs::directory_iterator it(fs::path(g.checksum).parent_path(), ec), end; !ec && it != end; it.increment(ec))
        if (it->is_regular_file(ec) && it->path().filename() != fs::path(g.checksum).filename())
            files.push_back(it->path());
    std::sort(files.begin(), files.end());
    for (const auto& file : files) {
        const auto size = static_cast<unsigned long long>(fs::file_size(file, ec));
        for (unsigned long long half = 0; half <= 2; ++half) {
            Emit("{\"t\":\"progress\",\"file\":" + quorvel::platform::JsonQuote(file.string()) +
                 ",\"done\":" + std::to_string(size * half / 2) + ",\"total\":" + std::to_string(size) + "}");
            SleepMs(20);
        }
    }
    Result(g.pass, g.pass ? "" : "checksum mismatch");
    return 0;
}

// Writes the recorded protocol lines (objects with an "at" time) again at their times.
int Replay() {
    std::ifstream in(g.replay);
    if (!in) {
        std::fprintf(stderr, "cannot read %s\n", g.replay.c_str());
        return 2;
    }
    const double start = NowMs();
    std::string line;
    while (std::getline(in, line)) {
        const auto obj = protocol::ParseObject(line);
        if (!obj) continue;
        auto at = obj->find("at");
        if (at == obj->end() || at->second.kind != protocol::Value::NUMBER) continue;
        const double due = at->second.number / g.timeScale - (NowMs() - start);
        if (due > 0) SleepMs(due * g.timeScale);
        Emit(line);
    }
    return 0;
}

}  // namespace

// The value of a numeric option, whole; anything else ends the program with a usage
// error, so a typo never runs a job with a zero in its place.
static double Number(const std::string& option, const std::string& text) {
    char* end = nullptr;
    errno = 0;
    const double v = std::strtod(text.c_str(), &end);
    if (text.empty() || *end != '\0' || errno != 0 || !std::isfinite(v) || v < 0) {
        std::fprintf(stderr, "quorvel-sim-engine: %s needs a number, not \"%s\" (--help tells more)\n", option.c_str(),
                     text.c_str());
        std::exit(2);  // NOLINT(concurrency-mt-unsafe): options are read before any thread starts
    }
    return v;
}

int main(int argc, char** argv) {
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        auto next = [&]() -> std::string { return i + 1 < argc ? argv[++i] : ""; };
        auto number = [&] { return Number(a, next()); };
        if (a == "--platform")
            g.platform = next();
        else if (a == "--phase")
            g.phase = static_cast<int>(number());
        else if (a == "--duration")
            g.durationMs = static_cast<long>(number());
        else if (a == "--fail")
            g.pass = false;
        else if (a == "--fail-step")
            g.pass = false, g.failingStep = static_cast<int>(number());
        else if (a == "--size")
            g.sizeBytes = static_cast<unsigned long long>(number());
        else if (a == "--speed")
            g.speedMBps = number();
        else if (a == "--no-switch")
            g.switchPort = false;
        else if (a == "--sprd-phase1")
            g.sprdPhase1Ms = static_cast<long>(number());
        else if (a == "--time-scale")
            g.timeScale = std::max(1e-3, number());
        else if (a == "--progress-rate")
            g.progressRate = static_cast<int>(number());
        else if (a == "--protocol")
            g.announce = static_cast<int>(number());
        else if (a == "--misbehave")
            g.misbehave = next();
        else if (a == "--replay")
            g.replay = next();
        else if (a == "--device")
            g.device = next();
        else if (a == "--phone")
            g.phone = static_cast<unsigned long long>(number());
        else if (a == "--package")
            g.package = next();
        else if (a == "--preload")
            g.operation = "preload";
        else if (a == "--verify")
            g.operation = "verify", g.checksum = next();
        else if (a == "--stamp")
            g.stamp = true;
        else if (a == "--help" || a == "-h")
            return Usage(), 0;
        else if (a == "--version")
            g.misbehave = "version";
    }
    if (!g.replay.empty()) return Replay();
    if (const auto at = g.misbehave.find('@'); at != std::string::npos)
        g.misbehave = g.misbehave.substr(at + 1) == g.device ? g.misbehave.substr(0, at) : "";
    if (g.misbehave == "ignore-term") signal(SIGTERM, SIG_IGN);
    if (g.misbehave != "no-hello")
        Emit("{\"t\":\"hello\",\"protocol\":" + std::to_string(g.announce) +
             ",\"program\":\"quorvel-sim-engine 1.0\"}");
    if (g.misbehave == "version") return 0;  // the hello is the answer
    if (!g.operation.empty()) return Operation();
    std::fprintf(stderr, "quorvel-sim-engine: %s job, phase %d\n", g.platform.c_str(), g.phase);
    Emit("simulated engine started");  // free text: goes to the job log
    if (g.misbehave == "crash") {
        Status("bind");
        // The default action, even where a sanitizer catches the signal for its report.
        struct sigaction dfl {};
        dfl.sa_handler = SIG_DFL;
        sigaction(SIGSEGV, &dfl, nullptr);
        raise(SIGSEGV);
    }
    if (g.misbehave == "garbage") {
        Emit("{\"t\":\"progress\",\"percent\":");
        return 0;
    }
    if (g.misbehave == "no-result") {
        Status("bind");
        return 3;
    }
    if (g.misbehave == "silent" || g.misbehave == "ignore-term") {
        for (;;) pause();
    }
    return g.platform == "SPRD" ? SprdJob() : MtkJob();
}
