#include "qt/LogindInhibitor.h"

#include <unistd.h>

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <QDBusUnixFileDescriptor>
#include <cstdio>

namespace quorvel::console {

namespace {
constexpr int kCallTimeoutMs = 5000;
}

LogindInhibitor::~LogindInhibitor() = default;

void LogindInhibitor::Hold(bool on) {
    QMetaObject::invokeMethod(
        this,
        [this, on] {
            wanted_ = on;
            Apply();
        },
        Qt::QueuedConnection);
}

void LogindInhibitor::Apply() {
    if (!wanted_) fd_.reset();
    if (!wanted_ || fd_ || asking_) return;
    QDBusConnection bus = QDBusConnection::systemBus();
    if (!bus.isConnected()) return;
    QDBusMessage call = QDBusMessage::createMethodCall(
        QStringLiteral("org.freedesktop.login1"), QStringLiteral("/org/freedesktop/login1"),
        QStringLiteral("org.freedesktop.login1.Manager"), QStringLiteral("Inhibit"));
    call << QStringLiteral("sleep:idle") << QStringLiteral("Quorvel") << QStringLiteral("Phones are being flashed")
         << QStringLiteral("block");
    asking_ = true;
    auto* watcher = new QDBusPendingCallWatcher(bus.asyncCall(call, kCallTimeoutMs), this);
    connect(watcher, &QDBusPendingCallWatcher::finished, this, [this](QDBusPendingCallWatcher* w) {
        w->deleteLater();
        asking_ = false;
        const QDBusPendingReply<QDBusUnixFileDescriptor> reply = *w;
        if (reply.isError()) {
            if (!refusalSaid_) {
                refusalSaid_ = true;
                std::fprintf(stderr, "quorvel: the PC may suspend during a run: %s\n",
                             qPrintable(reply.error().message()));
            }
            return;
        }
        // The reply's descriptor closes with it; ours is held until Stop.
        fd_.reset(::dup(reply.value().fileDescriptor()));
        Apply();  // a Stop may have come meanwhile
    });
}

}  // namespace quorvel::console
