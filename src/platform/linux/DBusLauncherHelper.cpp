// SPDX-License-Identifier: GPL-3.0-or-later
#include "DBusLauncherHelper.h"

#include "BuildConfig.h"
#include "DBusNames.h"

#include <QDBusMessage>

void DBusLauncherHelper::stopIfRunning(std::function<void()> stopping)
{
    // Without a session bus there is no helper to stop.
    QDBusConnection bus = QDBusConnection::sessionBus();
    whenNameOwned(bus, QStringLiteral(CORVEL_HELPER_ID), [bus, stopping](bool running) {
        if (!running)
            return;
        stopping();
        QDBusMessage signal = QDBusMessage::createSignal(QStringLiteral("/org/corvel/Corvel"),
                                                         QStringLiteral(CORVEL_APP_ID),
                                                         QStringLiteral("killLauncher"));
        signal << QStringLiteral(CORVEL_APP_ID);
        QDBusConnection(bus).send(signal);
    });
}
