// The native SPRD download engine: flashes one phone from the station's extracted package,
// speaking the engine line protocol (docs/engine-protocol.md) on standard output and the
// SPRD download protocol to the phone (docs/sprd-engine.md).
#include <signal.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "engines/sprd/Plan.h"
#include "engines/sprd/Scheme.h"
#include "engines/sprd/Session.h"
#include "engines/sprd/Transport.h"
#include "engines/sprd/WireRecorder.h"
#include "platform/JsonText.h"

namespace {

using namespace quorvel;
using namespace quorvel::sprd;

void Emit(const std::string& line) {
    std::fwrite(line.data(), 1, line.size(), stdout);
    std::fputc('\n', stdout);
    std::fflush(stdout);
}

void Result(bool ok, const std::string& error = "") {
    Emit(ok ? std::string("{\"t\":\"result\",\"ok\":true}")
            : "{\"t\":\"result\",\"ok\":false,\"error\":" + platform::JsonQuote(error) + "}");
}

void Usage(std::FILE* to = stderr) {
    std::fputs(
        "usage: quorvel-sprd-flash --package XML --files LIST --phase 1|2|all\n"
        "         [--transport usb|unix:PATH|pty:PATH] [--device ID] [--location LOC]\n"
        "         [--timeout-ms N] [--chunk BYTES] [--record] [NAME=VALUE ...]\n"
        "         [--baud-tries N] [--baud-interval-ms N] [--reenumerate-ms N] [--keep-escaping]\n"
        "       quorvel-sprd-flash --version | --help\n"
        "Flashes one SPRD phone; see docs/sprd-engine.md.\n",
        to);
}

// Job lines on standard output; the rest to standard error, which is the job's log.
class LineObserver : public SessionObserver {
public:
    void Step(int number) override { Emit("{\"t\":\"step\",\"step\":" + std::to_string(number) + "}"); }
    void Status(const std::string& text) override {
        Emit("{\"t\":\"status\",\"text\":" + platform::JsonQuote(text) + "}");
        std::fprintf(stderr, "%s\n", text.c_str());
        lastPercent_ = -1;
    }
    void Progress(std::uint64_t done, std::uint64_t total) override {
        // Each percent once: the station shows no finer, and a 4 GB image has a million chunks.
        const int percent = total ? static_cast<int>(done * 100 / total) : 100;
        if (percent == lastPercent_ && done != total) return;
        lastPercent_ = percent;
        Emit("{\"t\":\"progress\",\"done\":" + std::to_string(done) + ",\"total\":" + std::to_string(total) + "}");
    }
    void Log(const std::string& text) override { std::fprintf(stderr, "%s\n", text.c_str()); }

private:
    int lastPercent_ = -1;
};

bool ReadFile(const std::string& path, std::string& out) {
    std::ifstream in(path, std::ios::binary);
    if (!in) return false;
    std::ostringstream s;
    s << in.rdbuf();
    out = s.str();
    return true;
}

bool Number(const char* text, long min, long max, long& out) {
    char* end = nullptr;
    const long v = std::strtol(text, &end, 10);
    if (!end || *end || end == text || v < min || v > max) return false;
    out = v;
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    ::signal(SIGPIPE, SIG_IGN);
    const std::string hello = "{\"t\":\"hello\",\"protocol\":1,\"program\":\"quorvel-sprd-flash 1.0\"}";
    if (argc == 2 && std::strcmp(argv[1], "--version") == 0) {
        Emit(hello);
        return 0;
    }
    if (argc == 2 && (std::strcmp(argv[1], "--help") == 0 || std::strcmp(argv[1], "-h") == 0)) {
        Usage(stdout);
        return 0;
    }
    if (argc >= 2 && (std::strcmp(argv[1], "--preload") == 0 || std::strcmp(argv[1], "--verify") == 0)) {
        Usage();  // no package-wide operations: the station does its own
        return 2;
    }

    std::string package, files, transportName = "usb", device, location, productName, phase;
    long downloadType = 0;
    bool record = false;
    SessionOptions options;
    std::string bad;
    for (int i = 1; i < argc && bad.empty(); ++i) {
        const std::string a = argv[i];
        const bool hasValue = i + 1 < argc;
        long n = 0;
        auto value = [&]() -> const char* { return hasValue ? argv[++i] : nullptr; };
        auto number = [&](long min, long max) {
            const char* v = value();
            if (!v || !Number(v, min, max, n))
                bad = a + " wants a number from " + std::to_string(min) + " to " + std::to_string(max);
            return bad.empty();
        };
        if (a == "--package" && hasValue)
            package = value();
        else if (a == "--files" && hasValue)
            files = value();
        else if (a == "--phase" && hasValue)
            phase = value();
        else if (a == "--transport" && hasValue)
            transportName = value();
        else if (a == "--device" && hasValue)
            device = value();
        else if (a == "--location" && hasValue)
            location = value();
        else if (a == "--record")
            record = true;
        else if (a == "--keep-escaping")
            options.disableTranscode = false;
        else if (a == "--timeout-ms") {
            if (number(1, 600000)) options.replyMs = static_cast<int>(n);
        } else if (a == "--chunk") {
            if (number(2, 0xFFFE)) options.chunk = static_cast<std::size_t>(n);
        } else if (a == "--baud-tries") {
            if (number(1, 100)) options.baudTries = static_cast<int>(n);
        } else if (a == "--baud-interval-ms") {
            if (number(1, 60000)) options.baudIntervalMs = static_cast<int>(n);
        } else if (a == "--reenumerate-ms") {
            if (number(1, 600000)) options.reenumerateMs = static_cast<int>(n);
        } else if (a.rfind("ProductName=", 0) == 0)
            productName = a.substr(12);
        else if (a.rfind("DownloadType=", 0) == 0) {
            if (!Number(a.c_str() + 13, 0, 1, downloadType)) bad = "DownloadType must be 0 or 1";
        } else if (a.find('=') != std::string::npos && a[0] != '-')
            continue;  // options this engine does not use
        else
            bad = "unknown argument " + a;
    }
    if (bad.empty() && (phase == "1" || phase == "2" || phase == "all"))
        options.phase = phase == "1"   ? SessionOptions::PHASE1
                        : phase == "2" ? SessionOptions::PHASE2
                                       : SessionOptions::ALL;
    else if (bad.empty())
        bad = "--phase must be 1, 2 or all";
    if (bad.empty() && (package.empty() || files.empty())) bad = "--package and --files are required";
    Emit(hello);
    if (!bad.empty()) {
        Usage();
        Result(false, "engine command line: " + bad);
        return 2;
    }
    options.eraseMs = std::max(options.replyMs, 45000);
    std::fprintf(stderr, "quorvel-sprd-flash 1.0: phase %s, %s\n", phase.c_str(), transportName.c_str());

    // The plan first: a package that cannot be flashed fails before the phone is touched.
    std::string xml, list, error;
    Scheme scheme;
    std::vector<ListedFile> listed;
    Plan plan;
    if (!ReadFile(package, xml))
        error = "cannot read the package's configuration " + package;
    else if (!ReadFile(files, list))
        error = "cannot read the file list " + files;
    else if (ReadScheme(xml, productName, scheme, error) && ReadFileList(list, listed, error))
        MakePlan(scheme, listed, static_cast<int>(downloadType), plan, error);
    if (!error.empty()) {
        Result(false, "Preparing: " + error);
        return 1;
    }
    LineObserver observer;
    observer.Log("product " + scheme.product + ", " + scheme.choice + ": " + std::to_string(plan.steps.size()) +
                 " entries, " + std::to_string(plan.ImageBytes()) + " image bytes");
    for (const auto& n : plan.notes) observer.Log(n);

    observer.Step(13);
    const int waitMs = options.phase == SessionOptions::PHASE1 ? 10000 : options.reenumerateMs;
    std::unique_ptr<Transport> transport = OpenTransport(transportName, device, location, waitMs, error);
    if (!transport) {
        Result(false, "Opening the phone: " + error);
        return 1;
    }
    if (record) transport = std::make_unique<WireRecorder>(std::move(transport), stderr);

    Session session(*transport, plan, options, observer);
    if (!session.Run()) {
        std::fprintf(stderr, "failed: %s\n", session.Error().c_str());
        Result(false, session.Error());
        return 1;
    }
    if (options.phase == SessionOptions::PHASE1) Emit("{\"t\":\"switch\"}");
    Result(true);
    return 0;
}
