// SPDX-License-Identifier: GPL-3.0-or-later
#include "Platform.h"

#include "DBusLauncherHelper.h"
#include "DBusNames.h"
#include "LinuxIdleInhibitor.h"
#include "PactlSoundOutputs.h"
#include "XdgAutostart.h"

Platform Platform::system()
{
    return Platform{std::make_shared<LinuxIdleInhibitor>(QDBusConnection::sessionBus(),
                                                         QDBusConnection::systemBus()),
                    std::make_shared<XdgAutostart>(), std::make_shared<DBusLauncherHelper>(),
                    std::make_shared<PactlSoundOutputs>()};
}

void Platform::whenTrayHostRegistered(std::function<void(bool)> done)
{
    whenNameOwned(QDBusConnection::sessionBus(), QStringLiteral("org.kde.StatusNotifierWatcher"),
                  std::move(done));
}
