// SPDX-License-Identifier: GPL-3.0-or-later
// Resumes as systemd-logind announces them: PrepareForSleep(false) on the system bus.
#pragma once

#include "ResumeWatcher.h"

#include <QDBusConnection>
#include <QObject>

class LogindResumeWatcher : public QObject, public ResumeWatcher
{
    Q_OBJECT

public:
    explicit LogindResumeWatcher(QDBusConnection bus);
    void watch(std::function<void()> resumed) override;

private slots:
    void handlePrepareForSleep(bool sleeping);

private:
    QDBusConnection m_bus;
    std::function<void()> m_resumed;
    bool m_connected = false;
};
