// SPDX-License-Identifier: GPL-3.0-or-later
#include "LinuxIdleInhibitor.h"

#include "BuildConfig.h"
#include "DBusNames.h"
#include "Logging.h"

#include <memory>
#include <QDBusMessage>
#include <QDBusUnixFileDescriptor>

namespace {
const QString reason = QStringLiteral("Playing audio on Sonos speakers");
const QString gnome = QStringLiteral("org.gnome.SessionManager");
const QString gnomePath = QStringLiteral("/org/gnome/SessionManager");
const QString powerManagement = QStringLiteral("org.freedesktop.PowerManagement");
const QString powerManagementPath = QStringLiteral("/org/freedesktop/PowerManagement/Inhibit");
const QString powerManagementInterface = QStringLiteral("org.freedesktop.PowerManagement.Inhibit");

// Calls the method and hands its reply (or error) to done, later.
void call(const QDBusConnection &bus, const QString &service, const QString &path,
          const QString &interface, const QString &method, const QVariantList &arguments,
          std::function<void(const QDBusMessage &)> done)
{
    QDBusMessage message = QDBusMessage::createMethodCall(service, path, interface, method);
    message.setArguments(arguments);
    auto *watcher = new QDBusPendingCallWatcher(
        bus.asyncCall(message, LinuxIdleInhibitor::callTimeoutMs), QCoreApplication::instance());
    QObject::connect(watcher, &QDBusPendingCallWatcher::finished, watcher,
                     [watcher, done = std::move(done)](QDBusPendingCallWatcher *) {
                         watcher->deleteLater();
                         done(watcher->reply());
                     });
}

// Sends the method without waiting for, or looking at, its reply.
void send(const QDBusConnection &bus, const QString &service, const QString &path,
          const QString &interface, const QString &method, const QVariantList &arguments)
{
    call(bus, service, path, interface, method, arguments, [](const QDBusMessage &) {});
}

std::optional<quint32> cookieOf(const QDBusMessage &reply, const QString &what)
{
    if (reply.type() == QDBusMessage::ReplyMessage && !reply.arguments().isEmpty())
        return reply.arguments().first().toUInt();
    logDebug(QStringLiteral("%1 inhibit failed: %2").arg(what, reply.errorMessage()));
    return std::nullopt;
}
} // namespace

LinuxIdleInhibitor::LinuxIdleInhibitor(QDBusConnection sessionBus, QDBusConnection systemBus)
    : m_session(std::move(sessionBus)), m_system(std::move(systemBus))
{
}

void LinuxIdleInhibitor::create(const QString &name, Done done)
{
    // Two branches run side by side: the session's lock and logind's. The last to finish
    // reports the outcome.
    struct Pending
    {
        Locks locks;
        int branches = 2;
        Done done;
    };
    auto pending = std::make_shared<Pending>();
    pending->done = std::move(done);
    const auto branchDone = [this, pending] {
        if (--pending->branches > 0)
            return;
        const Locks &locks = pending->locks;
        if (!locks.gnomeCookie && !locks.powerManagementCookie && !locks.logind.isValid()) {
            pending->done(noLockTaken, 0);
            return;
        }
        const quint32 id = m_nextId++;
        m_locks.emplace(id, locks);
        pending->done(0, id);
    };

    const QDBusConnection session = m_session;
    whenNameOwned(session, gnome, [=](bool gnomeRuns) {
        if (gnomeRuns) {
            // Flag 4 blocks suspend only, not screen blanking; GNOME honours nothing else here.
            call(session, gnome, gnomePath, gnome, QStringLiteral("Inhibit"),
                 {QStringLiteral(CORVEL_APP_ID), 0u, reason, 4u}, [=](const QDBusMessage &reply) {
                     pending->locks.gnomeCookie = cookieOf(reply, QStringLiteral("GNOME session"));
                     branchDone();
                 });
            return;
        }
        whenNameOwned(session, powerManagement, [=](bool powerManagementRuns) {
            if (!powerManagementRuns) {
                branchDone();
                return;
            }
            call(session, powerManagement, powerManagementPath, powerManagementInterface,
                 QStringLiteral("Inhibit"), {name, reason}, [=](const QDBusMessage &reply) {
                     pending->locks.powerManagementCookie =
                         cookieOf(reply, QStringLiteral("PowerManagement"));
                     branchDone();
                 });
        });
    });

    if (!m_system.isConnected()) {
        QMetaObject::invokeMethod(QCoreApplication::instance(), branchDone, Qt::QueuedConnection);
        return;
    }
    call(m_system, QStringLiteral("org.freedesktop.login1"),
         QStringLiteral("/org/freedesktop/login1"),
         QStringLiteral("org.freedesktop.login1.Manager"), QStringLiteral("Inhibit"),
         {QStringLiteral("idle"), name, reason, QStringLiteral("block")},
         [=](const QDBusMessage &reply) {
             // Qt holds the descriptor as a duplicate that the bridge never inherits; an error's
             // text is no descriptor.
             pending->locks.logind =
                 qvariant_cast<QDBusUnixFileDescriptor>(reply.arguments().value(0));
             if (!pending->locks.logind.isValid())
                 logDebug(QStringLiteral("logind inhibit failed: %1").arg(reply.errorMessage()));
             branchDone();
         });
}

void LinuxIdleInhibitor::release(quint32 id)
{
    const auto it = m_locks.find(id);
    if (it == m_locks.end())
        return;
    const Locks locks = it->second;
    m_locks.erase(it);
    if (locks.gnomeCookie)
        send(m_session, gnome, gnomePath, gnome, QStringLiteral("Uninhibit"), {*locks.gnomeCookie});
    if (locks.powerManagementCookie)
        send(m_session, powerManagement, powerManagementPath, powerManagementInterface,
             QStringLiteral("UnInhibit"), {*locks.powerManagementCookie});
    // The last copy of logind's descriptor goes with locks, which releases that lock.
}
