// SPDX-License-Identifier: GPL-3.0-or-later
#include "SystemSleep.h"

#include "Logging.h"

SystemSleep::SystemSleep(std::shared_ptr<IdleInhibitor> backend) : m_backend(std::move(backend)) {}

SystemSleep::~SystemSleep()
{
    *m_alive = false;
}

void SystemSleep::disableIdleSleep()
{
    if (m_creating) {
        m_releaseWhenCreated = false; // started again before the lock arrived: keep it
        return;
    }
    if (assertionResult)
        return;
    m_creating = true;
    m_backend->create(QStringLiteral("Corvel"), [this, alive = m_alive](int result, quint32 id) {
        if (!*alive)
            return;
        m_creating = false;
        assertionResult = result;
        assertionID = id;
        if (result == 0)
            logInfo(QStringLiteral("Preventing system from idle sleeping"));
        else
            logWarning(QStringLiteral("Failed to disable system idle sleep"));
        if (m_releaseWhenCreated) {
            m_releaseWhenCreated = false;
            enableIdleSleep();
        }
    });
}

void SystemSleep::enableIdleSleep()
{
    if (m_creating) {
        m_releaseWhenCreated = true;
        return;
    }
    if (!assertionResult)
        return;
    m_backend->release(assertionID);
    assertionResult.reset();
    logInfo(QStringLiteral("Allowing user idle sleep again"));
}
