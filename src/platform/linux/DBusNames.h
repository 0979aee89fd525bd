// SPDX-License-Identifier: GPL-3.0-or-later
// Asks a bus whether a program owns a name, without waiting: how Corvel tells that a
// service runs.
#pragma once

#include <functional>
#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>

// Calls done(owned) later on the main loop; false as well when the bus is not there at all.
inline void whenNameOwned(const QDBusConnection &bus, const QString &name,
                          std::function<void(bool)> done, int timeoutMs = 1000)
{
    if (!bus.isConnected()) {
        QMetaObject::invokeMethod(
            QCoreApplication::instance(), [done] { done(false); }, Qt::QueuedConnection);
        return;
    }
    QDBusMessage message = QDBusMessage::createMethodCall(
        QStringLiteral("org.freedesktop.DBus"), QStringLiteral("/org/freedesktop/DBus"),
        QStringLiteral("org.freedesktop.DBus"), QStringLiteral("NameHasOwner"));
    message << name;
    // Owned by the application, so a call still pending at exit is freed with it.
    auto *watcher = new QDBusPendingCallWatcher(bus.asyncCall(message, timeoutMs),
                                                QCoreApplication::instance());
    QObject::connect(watcher, &QDBusPendingCallWatcher::finished, watcher,
                     [watcher, done](QDBusPendingCallWatcher *) {
                         const QDBusPendingReply<bool> reply = *watcher;
                         watcher->deleteLater();
                         done(!reply.isError() && reply.value());
                     });
}
