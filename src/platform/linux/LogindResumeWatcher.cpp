// SPDX-License-Identifier: GPL-3.0-or-later
#include "LogindResumeWatcher.h"

#include "Logging.h"

#include <QDBusError>

LogindResumeWatcher::LogindResumeWatcher(QDBusConnection bus) : m_bus(std::move(bus)) {}

void LogindResumeWatcher::watch(std::function<void()> resumed)
{
    m_resumed = std::move(resumed);
    if (m_connected)
        return;
    // Subscribing sends a match rule without waiting for an answer.
    m_connected = m_bus.connect(
        QStringLiteral("org.freedesktop.login1"), QStringLiteral("/org/freedesktop/login1"),
        QStringLiteral("org.freedesktop.login1.Manager"), QStringLiteral("PrepareForSleep"), this,
        SLOT(handlePrepareForSleep(bool)));
    if (!m_connected)
        logWarning(QStringLiteral("Cannot watch for resume from suspend (no system bus): %1")
                       .arg(m_bus.lastError().message()));
}

void LogindResumeWatcher::handlePrepareForSleep(bool sleeping)
{
    if (sleeping)
        return;
    logInfo(QStringLiteral("The machine woke from suspend"));
    if (m_resumed)
        m_resumed();
}
