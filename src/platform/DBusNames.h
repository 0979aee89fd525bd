// SPDX-License-Identifier: GPL-3.0-or-later
// Whether a program currently owns a name on a bus: how Corvel tells that a service runs.
#pragma once

#include <QDBusConnection>
#include <QDBusConnectionInterface>

// False as well when the bus is not there at all.
inline bool busNameHasOwner(const QDBusConnection &bus, const QString &name)
{
    return bus.isConnected() && bus.interface() &&
           bus.interface()->isServiceRegistered(name).value();
}
