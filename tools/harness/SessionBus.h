// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <csignal>
#include <QProcess>
#include <sys/prctl.h>

// A session bus of the caller's own, on a socket file (abstract sockets belong to the network
// namespace, which the bus would not share with a desktop anyway).
struct SessionBus
{
    explicit SessionBus(const QString &dir)
    {
        // The bus ends with its owner, even one that crashed before its destructor ran.
        daemon.setChildProcessModifier([] { ::prctl(PR_SET_PDEATHSIG, SIGKILL); });
        daemon.start(QStringLiteral("dbus-daemon"), {"--session", "--nofork", "--print-address",
                                                     "--address=unix:path=" + dir + "/bus"});
        if (daemon.waitForReadyRead(5000))
            address = QString::fromUtf8(daemon.readLine()).trimmed();
    }
    ~SessionBus()
    {
        daemon.kill();
        daemon.waitForFinished();
    }
    QProcess daemon;
    QString address;
};
