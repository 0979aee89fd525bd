// SPDX-License-Identifier: GPL-3.0-or-later
// Suites that send or answer SSDP call this first: they run only inside the private network
// namespace that scripts/netns makes, never on the host's own interfaces.
#pragma once

#include <QNetworkInterface>
#include <QTest>

#define CORVEL_REQUIRE_PRIVATE_NETWORK()                                                           \
    do {                                                                                           \
        if (qEnvironmentVariable("CORVEL_IN_NETNS") != QLatin1String("1"))                         \
            QSKIP("Needs the private network namespace of scripts/netns; not run on the host");    \
        for (const QNetworkInterface &interface : QNetworkInterface::allInterfaces()) {            \
            if (!interface.flags().testFlag(QNetworkInterface::IsLoopBack))                        \
                QSKIP("A non-loopback interface is present; refusing to search");                  \
        }                                                                                          \
    } while (false)
