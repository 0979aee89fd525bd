// SPDX-License-Identifier: GPL-3.0-or-later
#include "LinuxIdleInhibitor.h"

#include "DBusNames.h"
#include "Logging.h"

#include <fcntl.h>
#include <QDBusMessage>
#include <QDBusUnixFileDescriptor>
#include <unistd.h>

namespace {
const QString reason = QStringLiteral("Playing audio on Sonos speakers");
const QString appId = QStringLiteral("org.corvel.Corvel");

QDBusMessage call(const QDBusConnection &bus, const QString &service, const QString &path,
                  const QString &interface, const QString &method, const QVariantList &arguments)
{
    QDBusMessage message = QDBusMessage::createMethodCall(service, path, interface, method);
    message.setArguments(arguments);
    return bus.call(message, QDBus::Block, LinuxIdleInhibitor::callTimeoutMs);
}

std::optional<quint32> cookieOf(const QDBusMessage &reply, const QString &what, int *firstError)
{
    if (reply.type() == QDBusMessage::ReplyMessage && !reply.arguments().isEmpty())
        return reply.arguments().first().toUInt();
    logDebug(QStringLiteral("%1 inhibit failed: %2").arg(what, reply.errorMessage()));
    if (*firstError == 0)
        *firstError = LinuxIdleInhibitor::noLockTaken;
    return std::nullopt;
}
} // namespace

LinuxIdleInhibitor::LinuxIdleInhibitor(QDBusConnection sessionBus, QDBusConnection systemBus)
    : m_session(std::move(sessionBus)), m_system(std::move(systemBus))
{
}

LinuxIdleInhibitor::~LinuxIdleInhibitor()
{
    for (const auto &entry : std::map<quint32, Locks>(m_locks))
        release(entry.first);
}

int LinuxIdleInhibitor::create(const QString &name, quint32 *id)
{
    Locks locks;
    int firstError = 0;
    const QString gnome = QStringLiteral("org.gnome.SessionManager");
    const QString powerManagement = QStringLiteral("org.freedesktop.PowerManagement");
    if (busNameHasOwner(m_session, gnome)) {
        // Flag 4 blocks suspend only, not screen blanking; GNOME honours nothing else here.
        locks.gnomeCookie =
            cookieOf(call(m_session, gnome, QStringLiteral("/org/gnome/SessionManager"), gnome,
                          QStringLiteral("Inhibit"), {appId, 0u, reason, 4u}),
                     QStringLiteral("GNOME session"), &firstError);
    } else if (busNameHasOwner(m_session, powerManagement)) {
        const QString interface = QStringLiteral("org.freedesktop.PowerManagement.Inhibit");
        locks.powerManagementCookie =
            cookieOf(call(m_session, powerManagement,
                          QStringLiteral("/org/freedesktop/PowerManagement/Inhibit"), interface,
                          QStringLiteral("Inhibit"), {name, reason}),
                     QStringLiteral("PowerManagement"), &firstError);
    }
    if (m_system.isConnected()) {
        const QDBusMessage reply =
            call(m_system, QStringLiteral("org.freedesktop.login1"),
                 QStringLiteral("/org/freedesktop/login1"),
                 QStringLiteral("org.freedesktop.login1.Manager"), QStringLiteral("Inhibit"),
                 {QStringLiteral("idle"), name, reason, QStringLiteral("block")});
        if (reply.type() == QDBusMessage::ReplyMessage && !reply.arguments().isEmpty()) {
            const auto fd = qvariant_cast<QDBusUnixFileDescriptor>(reply.arguments().first());
            // The descriptor Qt hands over is closed with it, so keep a duplicate, never
            // inherited by the bridge.
            if (fd.isValid())
                locks.logindFd = fcntl(fd.fileDescriptor(), F_DUPFD_CLOEXEC, 0);
        } else {
            logDebug(QStringLiteral("logind inhibit failed: %1").arg(reply.errorMessage()));
            if (firstError == 0)
                firstError = noLockTaken;
        }
    }
    if (!locks.gnomeCookie && !locks.powerManagementCookie && locks.logindFd < 0)
        return firstError != 0 ? firstError : noLockTaken;
    *id = m_nextId++;
    m_locks.emplace(*id, locks);
    return 0;
}

int LinuxIdleInhibitor::release(quint32 id)
{
    const auto it = m_locks.find(id);
    if (it == m_locks.end())
        return noLockTaken;
    const Locks locks = it->second;
    m_locks.erase(it);
    if (locks.gnomeCookie) {
        call(m_session, QStringLiteral("org.gnome.SessionManager"),
             QStringLiteral("/org/gnome/SessionManager"),
             QStringLiteral("org.gnome.SessionManager"), QStringLiteral("Uninhibit"),
             {*locks.gnomeCookie});
    }
    if (locks.powerManagementCookie) {
        call(m_session, QStringLiteral("org.freedesktop.PowerManagement"),
             QStringLiteral("/org/freedesktop/PowerManagement/Inhibit"),
             QStringLiteral("org.freedesktop.PowerManagement.Inhibit"), QStringLiteral("UnInhibit"),
             {*locks.powerManagementCookie});
    }
    if (locks.logindFd >= 0)
        ::close(locks.logindFd);
    return 0;
}
