// SPDX-License-Identifier: GPL-3.0-or-later
// Asks a bus whether a program owns a name, without waiting: how Corvel tells that a
// service runs.
#pragma once

#include <functional>
#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>

// Makes the call without waiting; done(reply) follows on the main loop, with an error reply
// when the bus is not there at all.
inline void callWithoutWaiting(const QDBusConnection &bus, const QDBusMessage &message,
                               std::function<void(const QDBusMessage &)> done, int timeoutMs = 1000)
{
    if (!bus.isConnected()) {
        const QDBusMessage error =
            message.createErrorReply(QDBusError::Disconnected, QStringLiteral("No bus"));
        QMetaObject::invokeMethod(
            QCoreApplication::instance(), [done, error] { done(error); }, Qt::QueuedConnection);
        return;
    }
    // Owned by the application, so a call still pending at exit is freed with it.
    auto *watcher = new QDBusPendingCallWatcher(bus.asyncCall(message, timeoutMs),
                                                QCoreApplication::instance());
    QObject::connect(watcher, &QDBusPendingCallWatcher::finished, watcher,
                     [watcher, done](QDBusPendingCallWatcher *) {
                         watcher->deleteLater();
                         done(watcher->reply());
                     });
}

// Calls done(owned) later on the main loop; false as well when the bus is not there at all.
inline void whenNameOwned(const QDBusConnection &bus, const QString &name,
                          std::function<void(bool)> done, int timeoutMs = 1000)
{
    QDBusMessage message = QDBusMessage::createMethodCall(
        QStringLiteral("org.freedesktop.DBus"), QStringLiteral("/org/freedesktop/DBus"),
        QStringLiteral("org.freedesktop.DBus"), QStringLiteral("NameHasOwner"));
    message << name;
    callWithoutWaiting(
        bus, message,
        [done](const QDBusMessage &reply) {
            done(reply.type() == QDBusMessage::ReplyMessage && reply.arguments().value(0).toBool());
        },
        timeoutMs);
}
