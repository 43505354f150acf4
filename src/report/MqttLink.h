#pragma once
// The connection to the broker: the only place that speaks MQTT (through libmosquitto).
// QoS 1, a retained last will, TLS for mqtts://, user and password, reconnection backing
// off from 1 s to 60 s. The library's own thread runs the connection and calls the
// Listener; Publish may be called from any thread. The listener is never called with a
// lock of this class held, and this class takes no lock of its caller.

#include <memory>
#include <string>

#include "platform/Clock.h"
#include "report/ReportSettings.h"

struct mosquitto;

namespace quorvel::report {

class MqttLink {
public:
    // Called on the link's thread; must return quickly and never call Stop.
    class Listener {
    public:
        virtual ~Listener() = default;
        virtual void OnConnected() = 0;
        // The broker refused us (`reason`: its words), or the connection could not be made or was lost.
        virtual void OnRefused(const std::string& reason) = 0;
        virtual void OnUnreachable(const std::string& reason) = 0;
        // The broker acknowledged the message `Publish` numbered `id`.
        virtual void OnAcknowledged(int id) = 0;
    };

    struct Will {
        std::string topic, payload;
    };

    MqttLink(const ReportSettings& settings, const std::string& clientId, Listener& listener);
    ~MqttLink();
    MqttLink(const MqttLink&) = delete;
    MqttLink& operator=(const MqttLink&) = delete;

    // Starts connecting (never waits for the broker); the will (none with an empty topic)
    // is published, retained, when the broker loses us without a goodbye. False, with the reason, on a
    // setting the library refuses (a bad CA file); reachability comes to the listener.
    bool Start(const Will& will, std::string& error);
    // Queues a QoS 1 message; its id, or -1 when the library refused it.
    int Publish(const std::string& topic, const std::string& payload, bool retained);
    // Says goodbye (no will) and ends the link's thread. Idempotent.
    void Stop();

private:
    static void OnConnect(struct mosquitto*, void* self, int rc);
    static void OnDisconnect(struct mosquitto*, void* self, int rc);
    static void OnPublish(struct mosquitto*, void* self, int mid);

    ReportSettings settings_;
    Listener& listener_;
    struct mosquitto* mosq_ = nullptr;
    bool started_ = false;
};

// Connects once and says how it went within `timeoutMs`: empty when the broker accepted
// us, else the reason. For the bench check; any thread.
std::string ProbeBroker(const ReportSettings& settings, platform::Clock& clock, platform::Millis timeoutMs);

}  // namespace quorvel::report
