// SPDX-License-Identifier: GPL-3.0-or-later
// Linux has no single switch against idle sleep, so this holds up to three locks and counts as
// created when at least one was taken: the GNOME session manager's (suspend only), else the
// freedesktop PowerManagement service's (KDE Plasma, XFCE), and always systemd-logind's "idle"
// inhibitor, which covers logind's own idle action on servers and minimal desktops. Every
// D-Bus call is asynchronous, with a short time-out.
#pragma once

#include "IdleInhibitor.h"

#include <map>
#include <optional>
#include <QDBusConnection>
#include <QDBusUnixFileDescriptor>

class LinuxIdleInhibitor : public IdleInhibitor
{
public:
    static constexpr int callTimeoutMs = 1000;
    static constexpr int noLockTaken = -1;

    // Gone, it closes logind's descriptors; the session services drop a lock when its owner
    // leaves the bus, so no call is made then.
    LinuxIdleInhibitor(QDBusConnection sessionBus, QDBusConnection systemBus);

    void create(const QString &name, Done done) override;
    void release(quint32 id) override;

private:
    struct Locks
    {
        std::optional<quint32> gnomeCookie;
        std::optional<quint32> powerManagementCookie;
        QDBusUnixFileDescriptor logind; // held open; closing it releases the lock
    };

    QDBusConnection m_session;
    QDBusConnection m_system;
    std::map<quint32, Locks> m_locks;
    quint32 m_nextId = 1;
};
