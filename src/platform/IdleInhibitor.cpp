// SPDX-License-Identifier: GPL-3.0-or-later
#include "IdleInhibitor.h"

#include "LinuxIdleInhibitor.h"

std::unique_ptr<IdleInhibitor> makeSystemIdleInhibitor()
{
    return std::make_unique<LinuxIdleInhibitor>(QDBusConnection::sessionBus(),
                                                QDBusConnection::systemBus());
}
