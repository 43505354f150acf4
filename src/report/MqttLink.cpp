#include "report/MqttLink.h"

#include <mosquitto.h>

#include <cerrno>
#include <condition_variable>
#include <mutex>

#include "platform/ErrnoText.h"

namespace quorvel::report {

namespace {

struct LibraryInit {
    LibraryInit() { mosquitto_lib_init(); }
};

void EnsureLibrary() {
    static LibraryInit init;
}

// The library's words without their full stop: they go inside sentences of ours.
std::string Words(std::string text) {
    while (!text.empty() && (text.back() == '.' || text.back() == ' ')) text.pop_back();
    return text;
}

std::string ErrorText(int rc) {
    return Words(rc == MOSQ_ERR_ERRNO ? platform::ErrnoText(errno) : mosquitto_strerror(rc));
}

// Applies what the settings say to a new client; empty or the reason it failed.
std::string Configure(struct mosquitto* mosq, const ReportSettings& s) {
    mosquitto_int_option(mosq, MOSQ_OPT_PROTOCOL_VERSION, MQTT_PROTOCOL_V311);
    if (!s.user.empty()) {
        const int rc =
            mosquitto_username_pw_set(mosq, s.user.c_str(), s.password.empty() ? nullptr : s.password.c_str());
        if (rc != MOSQ_ERR_SUCCESS) return ErrorText(rc);
    }
    if (s.tls) {
        const int rc = mosquitto_tls_set(mosq, s.caFile.empty() ? nullptr : s.caFile.c_str(),
                                         s.caFile.empty() ? "/etc/ssl/certs" : nullptr, nullptr, nullptr, nullptr);
        if (rc != MOSQ_ERR_SUCCESS) return "TLS: " + ErrorText(rc);
    }
    return {};
}

}  // namespace

MqttLink::MqttLink(const ReportSettings& settings, const std::string& clientId, Listener& listener)
    : settings_(settings), listener_(listener) {
    EnsureLibrary();
    // A persistent session is not needed: the outbox resends whatever was not acknowledged.
    mosq_ = mosquitto_new(clientId.c_str(), true, this);
    if (mosq_) {
        mosquitto_connect_callback_set(mosq_, &MqttLink::OnConnect);
        mosquitto_disconnect_callback_set(mosq_, &MqttLink::OnDisconnect);
        mosquitto_publish_callback_set(mosq_, &MqttLink::OnPublish);
        mosquitto_reconnect_delay_set(mosq_, 1, 60, true);
    }
}

MqttLink::~MqttLink() {
    Stop();
    if (mosq_) mosquitto_destroy(mosq_);
}

bool MqttLink::Start(const Will& will, std::string& error) {
    if (!mosq_) {
        error = "cannot make an MQTT client";
        return false;
    }
    error = Configure(mosq_, settings_);
    if (!error.empty()) return false;
    int rc = will.topic.empty() ? MOSQ_ERR_SUCCESS
                                : mosquitto_will_set(mosq_, will.topic.c_str(), static_cast<int>(will.payload.size()),
                                                     will.payload.data(), 1, true);
    if (rc != MOSQ_ERR_SUCCESS) {
        error = ErrorText(rc);
        return false;
    }
    rc = mosquitto_connect_async(mosq_, settings_.host.c_str(), settings_.port, 30);
    const bool tryLater = rc != MOSQ_ERR_SUCCESS;
    const std::string why = tryLater ? ErrorText(rc) : std::string();
    // The loop reconnects by itself, also after a first attempt that failed.
    rc = mosquitto_loop_start(mosq_);
    if (rc != MOSQ_ERR_SUCCESS) {
        error = ErrorText(rc);
        return false;
    }
    started_ = true;
    if (tryLater) listener_.OnUnreachable(why);
    return true;
}

int MqttLink::Publish(const std::string& topic, const std::string& payload, bool retained) {
    if (!mosq_) return -1;
    int mid = -1;
    const int rc =
        mosquitto_publish(mosq_, &mid, topic.c_str(), static_cast<int>(payload.size()), payload.data(), 1, retained);
    return rc == MOSQ_ERR_SUCCESS ? mid : -1;
}

void MqttLink::Stop() {
    if (!started_) return;
    started_ = false;
    mosquitto_disconnect(mosq_);
    mosquitto_loop_stop(mosq_, false);
}

void MqttLink::OnConnect(struct mosquitto*, void* self, int rc) {
    auto& link = *static_cast<MqttLink*>(self);
    if (rc == 0)
        link.listener_.OnConnected();
    else
        link.listener_.OnRefused(Words(mosquitto_connack_string(rc)));
}

void MqttLink::OnDisconnect(struct mosquitto*, void* self, int rc) {
    // 0: our own goodbye.
    if (rc != 0) static_cast<MqttLink*>(self)->listener_.OnUnreachable(ErrorText(rc));
}

void MqttLink::OnPublish(struct mosquitto*, void* self, int mid) {
    static_cast<MqttLink*>(self)->listener_.OnAcknowledged(mid);
}

std::string ProbeBroker(const ReportSettings& settings, platform::Clock& clock, platform::Millis timeoutMs) {
    struct Probe final : MqttLink::Listener {
        std::mutex m;
        std::condition_variable cv;
        bool done = false;
        std::string result;
        void Finish(std::string r) {
            std::lock_guard g(m);
            if (done) return;
            done = true;
            result = std::move(r);
            cv.notify_all();
        }
        void OnConnected() override { Finish({}); }
        void OnRefused(const std::string& reason) override { Finish("refused: " + reason); }
        void OnUnreachable(const std::string& reason) override { Finish("unreachable: " + reason); }
        void OnAcknowledged(int) override {}
    } probe;
    MqttLink link(settings, "quorvel-check-" + settings.station, probe);
    std::string error;
    if (!link.Start({}, error)) return error;
    {
        std::unique_lock lk(probe.m);
        if (!clock.WaitFor(lk, probe.cv, timeoutMs, [&] { return probe.done; }))
            probe.result = "unreachable: no answer within " + std::to_string(timeoutMs / 1000) + " s";
    }
    link.Stop();
    return probe.result;
}

}  // namespace quorvel::report
