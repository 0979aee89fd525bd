// SPDX-License-Identifier: GPL-3.0-or-later
#include "SystemSleep.h"

#include "Logging.h"

namespace {
std::unique_ptr<IdleInhibitor> &backendSlot()
{
    static std::unique_ptr<IdleInhibitor> backend;
    return backend;
}
} // namespace

void SystemSleep::setBackend(std::unique_ptr<IdleInhibitor> backend)
{
    backendSlot() = std::move(backend);
}

IdleInhibitor &SystemSleep::backend()
{
    if (!backendSlot())
        backendSlot() = makeSystemIdleInhibitor();
    return *backendSlot();
}

void SystemSleep::disableIdleSleep()
{
    if (assertionResult)
        return;
    assertionResult = backend().create(QStringLiteral("Corvel"), &assertionID);
    if (*assertionResult == 0)
        logInfo(QStringLiteral("Preventing system from idle sleeping"));
    else
        logWarning(QStringLiteral("Failed to disable system idle sleep"));
}

void SystemSleep::enableIdleSleep()
{
    if (!assertionResult)
        return;
    backend().release(assertionID);
    assertionResult.reset();
    logInfo(QStringLiteral("Allowing user idle sleep again"));
}
