// quorvel-ports: the socket map of a bench and its check. Lists every hub socket with
// the station's location text, what is plugged in and which slot it is bound to;
// --watch follows plugging live, --check reports what stands between the station and
// the phones, each with a one-line fix. Exit status: 0 fine, 1 findings, 2 usage.

#include <sys/stat.h>

#include <cstdio>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "devices/BenchSurvey.h"
#include "devices/UdevBackend.h"
#include "platform/Clock.h"
#include "platform/JsonText.h"
#include "report/BrokerCheck.h"

using namespace quorvel;
using platform::JsonQuote;

namespace {

const char* const kUsage =
    "usage: quorvel-ports [--json] [--watch | --check] [STATION_FOLDER]\n"
    "  Lists the hubs' sockets with the station's location texts, what is plugged into\n"
    "  each (IDs, class, driver, serial port, COM name) and the slot it is bound to in\n"
    "  STATION_FOLDER/Config/CommonSetting.ini.\n"
    "  --watch  print changes as phones come and go (Ctrl-C ends)\n"
    "  --check  check the bench set-up (and, with a station folder, its broker);\n"
    "           exit 1 when something needs fixing\n"
    "  --json   machine-readable output\n"
    "  Exit status: 0 fine, 1 the check found something to fix, 2 usage.\n";

int UsageError(const std::string& why) {
    std::fprintf(stderr, "quorvel-ports: %s (quorvel-ports --help tells more)\n", why.c_str());
    return 2;
}

bool IsDir(const std::string& path) {
    struct stat st;
    return ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

std::string Line(const devices::SocketRow& r) {
    std::string s = r.location;
    if (s.size() < 44) s.resize(44, ' ');
    if (r.ids.empty()) {
        s += " -";
    } else {
        s +=
            " " + r.ids + " class " + (r.cls.empty() ? "?" : r.cls) + " " + (r.driver.empty() ? "no driver" : r.driver);
        if (!r.node.empty()) s += " " + r.node + " " + r.com;
        if (!r.product.empty()) s += " \"" + r.product + "\"";
    }
    if (!r.binding.empty()) s += "  [" + r.binding + "]";
    return s;
}

std::string JsonRow(const devices::SocketRow& r) {
    return "{\"location\":" + JsonQuote(r.location) + ",\"ids\":" + JsonQuote(r.ids) +
           ",\"product\":" + JsonQuote(r.product) + ",\"class\":" + JsonQuote(r.cls) +
           ",\"driver\":" + JsonQuote(r.driver) + ",\"node\":" + JsonQuote(r.node) + ",\"com\":" + JsonQuote(r.com) +
           ",\"binding\":" + JsonQuote(r.binding) + "}";
}

std::vector<devices::SocketRow> Map(devices::UdevBackend& backend, const std::string& folder) {
    auto rows = backend.Sockets();
    devices::AddBindings(rows, folder);
    return rows;
}

}  // namespace

int main(int argc, char** argv) {
    bool json = false, watch = false, check = false;
    std::string folder;
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        if (a == "--json") {
            json = true;
        } else if (a == "--watch") {
            watch = true;
        } else if (a == "--check") {
            check = true;
        } else if (a == "--help" || a == "-h") {
            std::fputs(kUsage, stdout);
            return 0;
        } else if (!a.empty() && a[0] == '-') {
            return UsageError("unknown option " + a);
        } else if (folder.empty()) {
            folder = a;
        } else {
            return UsageError("one station folder only");
        }
    }
    if (watch && check) return UsageError("--watch and --check exclude each other");
    // A mistyped folder would otherwise show every socket as unbound.
    if (!folder.empty() && !IsDir(folder + "/Config"))
        return UsageError(folder + " is not a station folder (no Config folder in it)");
    const platform::SysPaths paths;
    devices::UdevBackend backend(paths, {});

    if (check) {
        devices::BenchFacts facts = devices::GatherSystemFacts(paths);
        backend.AddDeviceFacts(facts);
        auto findings = devices::CheckBench(facts);
        if (!folder.empty()) {
            platform::SystemClock clock;
            if (auto broker = report::CheckBroker(folder + "/", clock)) findings.push_back(std::move(*broker));
        }
        if (json) {
            std::printf("[");
            for (std::size_t i = 0; i < findings.size(); ++i)
                std::printf("%s{\"problem\":%s,\"fix\":%s}", i ? "," : "", JsonQuote(findings[i].problem).c_str(),
                            JsonQuote(findings[i].fix).c_str());
            std::printf("]\n");
        } else if (findings.empty()) {
            std::printf("bench check: nothing to fix\n");
        } else {
            for (const auto& f : findings) std::printf("%s\n  fix: %s\n", f.problem.c_str(), f.fix.c_str());
        }
        return findings.empty() ? 0 : 1;
    }

    auto rows = Map(backend, folder);
    if (json && !watch) {
        std::printf("[");
        for (std::size_t i = 0; i < rows.size(); ++i) std::printf("%s%s", i ? ",\n " : "", JsonRow(rows[i]).c_str());
        std::printf("]\n");
    } else {
        for (const auto& r : rows) std::printf("%s\n", json ? JsonRow(r).c_str() : Line(r).c_str());
        if (rows.empty()) std::fprintf(stderr, "no USB hubs found\n");
    }
    if (!watch) return 0;

    // Each change: the sockets whose contents changed, "+" now, "-" before.
    std::fflush(stdout);
    platform::SystemClock clock;
    std::uint64_t seen = backend.Changes().Generation();
    for (;;) {
        seen = backend.Changes().Wait(clock, seen, [] { return false; });
        clock.Sleep(200);  // let the serial node follow its interface
        seen = backend.Changes().Generation();
        auto now = Map(backend, folder);
        std::map<std::string, std::string> before;
        for (const auto& r : rows) before[r.location] = json ? JsonRow(r) : Line(r);
        for (const auto& r : now) {
            const std::string text = json ? JsonRow(r) : Line(r);
            auto it = before.find(r.location);
            if (it != before.end() && it->second == text) continue;
            if (it != before.end() && !json) std::printf("- %s\n", it->second.c_str());
            std::printf("%s%s\n", json ? "" : "+ ", text.c_str());
        }
        std::fflush(stdout);
        rows = std::move(now);
    }
}
