// Threads: main sets up, then waits for SIGINT/SIGTERM; libmosquitto's own thread runs the
// connection and every callback, so the de-duplication set and the files are touched by
// that thread alone until main has stopped it.
#include "Collect.h"

#include <fcntl.h>
#include <mosquitto.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <unordered_set>

#include "history/FleetHistory.h"
#include "platform/ErrnoText.h"
#include "platform/UniqueFd.h"
#include "report/ReportSettings.h"

namespace {

using namespace quorvel::app;

constexpr int kExitOk = 0;
constexpr int kExitFolder = 1;
constexpr int kExitUsage = 2;
constexpr const char* kTopic = "quorvel/+/jobs";
constexpr int kKeepAliveSeconds = 30;

// The station's own rule for a broker address; a bare host[:port] means mqtt://.
bool ParseBroker(const std::string& url, quorvel::report::BrokerAddress& out) {
    const std::string full = url.find("://") == std::string::npos ? "mqtt://" + url : url;
    return quorvel::report::ParseBrokerAddress(full, out).empty();
}

// A client id that stays the same for this host and folder, so the broker keeps our
// session (and what comes meanwhile) across restarts.
std::string DefaultClientId(const std::string& folder) {
    char host[64] = {};
    if (::gethostname(host, sizeof host - 1) != 0) std::strcpy(host, "host");
    std::error_code ec;
    const std::string path = std::filesystem::absolute(folder, ec).lexically_normal().string();
    std::uint32_t h = 2166136261u;  // FNV-1a
    for (unsigned char c : path) h = (h ^ c) * 16777619u;
    char id[128];
    std::snprintf(id, sizeof id, "quorvel-history-%.40s-%08x", host, h);
    return id;
}

// The station level of a quorvel/<Station>/jobs topic, or empty.
std::string StationOfTopic(const char* topic) {
    const std::string t = topic ? topic : "";
    if (t.rfind("quorvel/", 0) != 0 || t.size() < 14 || t.compare(t.size() - 5, 5, "/jobs") != 0) return "";
    const std::string station = t.substr(8, t.size() - 13);
    return station.find('/') == std::string::npos ? station : "";
}

class Collector {
public:
    explicit Collector(std::string folder) : folder_(std::move(folder)) {}

    // What the folder already holds is never written again.
    void Remember() {
        for (const StationJob& j : ReadFleetHistory({folder_}).jobs) seen_.insert(j.job.jobId);
    }
    std::size_t Known() const { return seen_.size(); }

    void Take(const mosquitto_message& m) {
        const std::string payload(static_cast<const char*>(m.payload), static_cast<std::size_t>(m.payloadlen));
        const std::string topicStation = StationOfTopic(m.topic);
        auto job = ParseJobsPayload(payload);
        if (!job || job->station != topicStation) {
            ++foreign_;
            return;
        }
        if (seen_.count(job->job.jobId)) {
            ++duplicates_;
            return;
        }
        // One line whatever the sender's layout: a line break can only stand between tokens.
        std::string line = payload;
        for (char& c : line)
            if (c == '\n' || c == '\r') c = ' ';
        line += '\n';
        char day[16];
        std::snprintf(day, sizeof day, "%08d.jsonl", LocalDay(job->job.end));
        const std::string dir = folder_ + "/" + job->station;
        std::error_code ec;
        std::filesystem::create_directories(dir, ec);
        const std::string path = dir + "/" + day;
        quorvel::platform::UniqueFd fd(::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644));
        const bool written = fd.get() >= 0 &&
                             ::write(fd.get(), line.data(), line.size()) == static_cast<ssize_t>(line.size()) &&
                             ::fdatasync(fd.get()) == 0;
        if (!written) {
            std::fprintf(stderr, "quorvel-history: job %s not written to %s: %s\n", job->job.jobId.c_str(),
                         path.c_str(), quorvel::platform::ErrnoText(errno).c_str());
            return;
        }
        seen_.insert(job->job.jobId);
        ++written_;
    }

    // Said once per change of the connection's state.
    void Say(const std::string& state) {
        if (state == said_) return;
        said_ = state;
        std::fprintf(stderr, "quorvel-history: %s\n", state.c_str());
    }

    void Summary() const {
        std::fprintf(stderr, "quorvel-history: %d job%s written, %d already there, %d other message%s ignored\n",
                     written_, written_ == 1 ? "" : "s", duplicates_, foreign_, foreign_ == 1 ? "" : "s");
    }

    bool subscribeRefused = false;

private:
    std::string folder_;
    std::unordered_set<std::string> seen_;
    std::string said_;
    int written_ = 0, duplicates_ = 0, foreign_ = 0;
};

// The libmosquitto session, closed however RunCollect returns.
struct Session {
    mosquitto* mosq = nullptr;
    ~Session() {
        if (mosq) mosquitto_destroy(mosq);
        mosquitto_lib_cleanup();
    }
};

}  // namespace

int RunCollect(const CollectOptions& o) {
    quorvel::report::BrokerAddress broker;
    if (!ParseBroker(o.broker, broker)) {
        std::fprintf(stderr,
                     "quorvel-history: --collect needs a broker such as mqtt://host:1883 or mqtts://host:8883, not "
                     "\"%s\" (quorvel-history --help tells more)\n",
                     o.broker.c_str());
        return kExitUsage;
    }
    std::string password;
    if (!o.passwordFile.empty()) {
        std::ifstream in(o.passwordFile);
        if (!in || !std::getline(in, password)) {
            std::fprintf(stderr, "quorvel-history: cannot read the password file %s\n", o.passwordFile.c_str());
            return kExitFolder;
        }
        if (!password.empty() && password.back() == '\r') password.pop_back();
    }
    std::error_code ec;
    std::filesystem::create_directories(o.folder, ec);
    if (::access(o.folder.c_str(), W_OK) != 0) {
        std::fprintf(stderr, "quorvel-history: cannot write to %s: %s\n", o.folder.c_str(),
                     quorvel::platform::ErrnoText(ec ? ec.value() : errno).c_str());
        return kExitFolder;
    }

    // Taken by sigwait below; blocked before libmosquitto starts its thread, which inherits the mask.
    sigset_t stop;
    sigemptyset(&stop);
    sigaddset(&stop, SIGINT);
    sigaddset(&stop, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stop, nullptr);

    Collector collector(o.folder);
    collector.Remember();
    mosquitto_lib_init();
    Session session;
    const std::string clientId = o.clientId.empty() ? DefaultClientId(o.folder) : o.clientId;
    session.mosq = mosquitto_new(clientId.c_str(), false, &collector);  // a persistent session
    if (!session.mosq) {
        std::fprintf(stderr, "quorvel-history: the MQTT library could not start: %s\n",
                     quorvel::platform::ErrnoText(errno).c_str());
        return kExitFolder;
    }
    mosquitto* mosq = session.mosq;
    if (!o.user.empty()) mosquitto_username_pw_set(mosq, o.user.c_str(), password.empty() ? nullptr : password.c_str());
    if (broker.tls) {
        const int rc = mosquitto_tls_set(mosq, o.caFile.empty() ? nullptr : o.caFile.c_str(),
                                         o.caFile.empty() ? "/etc/ssl/certs" : nullptr, nullptr, nullptr, nullptr);
        if (rc != MOSQ_ERR_SUCCESS) {
            std::fprintf(stderr, "quorvel-history: TLS settings refused: %s\n", mosquitto_strerror(rc));
            return kExitFolder;
        }
    }
    mosquitto_reconnect_delay_set(mosq, 1, 60, true);
    mosquitto_connect_callback_set(mosq, [](mosquitto* m, void* self, int rc) {
        auto& c = *static_cast<Collector*>(self);
        if (rc != 0) {
            c.Say(std::string("the broker refused the connection: ") + mosquitto_connack_string(rc) + "; trying again");
            return;
        }
        c.Say("connected; collecting");
        mosquitto_subscribe(m, nullptr, kTopic, 1);
    });
    mosquitto_disconnect_callback_set(mosq, [](mosquitto*, void* self, int rc) {
        if (rc != 0) static_cast<Collector*>(self)->Say("connection to the broker lost; trying again");
    });
    mosquitto_subscribe_callback_set(mosq, [](mosquitto*, void* self, int, int count, const int* granted) {
        if (count >= 1 && granted[0] > 2) {
            auto& c = *static_cast<Collector*>(self);
            c.Say(std::string("the broker refused the subscription to ") + kTopic);
            c.subscribeRefused = true;
            ::kill(::getpid(), SIGTERM);
        }
    });
    mosquitto_message_callback_set(mosq, [](mosquitto*, void* self, const mosquitto_message* m) {
        if (m) static_cast<Collector*>(self)->Take(*m);
    });
    std::fprintf(stderr, "quorvel-history: collecting %s into %s (%zu jobs already there), client id %s\n",
                 o.broker.c_str(), o.folder.c_str(), collector.Known(), clientId.c_str());
    const int rc = mosquitto_connect_async(mosq, broker.host.c_str(), broker.port, kKeepAliveSeconds);
    if (rc != MOSQ_ERR_SUCCESS)
        collector.Say(std::string("broker not reachable yet (") + mosquitto_strerror(rc) + "); trying again");
    if (mosquitto_loop_start(mosq) != MOSQ_ERR_SUCCESS) {
        std::fprintf(stderr, "quorvel-history: the MQTT library could not start its thread\n");
        return kExitFolder;
    }
    int sig = 0;
    sigwait(&stop, &sig);
    // Without a connection to end, the library's thread would go on trying to make one.
    const bool connected = mosquitto_disconnect(mosq) == MOSQ_ERR_SUCCESS;
    mosquitto_loop_stop(mosq, !connected);
    collector.Summary();
    return collector.subscribeRefused ? kExitFolder : kExitOk;
}
