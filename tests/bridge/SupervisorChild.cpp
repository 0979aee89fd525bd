// SPDX-License-Identifier: GPL-3.0-or-later
// Runs the bridge supervisor in its own process and prints the bridge's pid, so a test can
// kill this process with SIGKILL and check that the bridge goes with it.
#include "AirConnect.h"
#include "NotificationCenter.h"
#include "Notifications.h"

#include <cstdio>
#include <QCoreApplication>

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    if (argc < 2)
        return 2;
    AirConnect bridge;
    bridge.setConfigPath(QString::fromLocal8Bit(argv[1]));
    NotificationCenter::defaultCenter().addObserver(
        Notifications::serviceStarted, [&bridge](const Notification &) {
            std::printf("%lld\n", static_cast<long long>(bridge.process()->processId()));
            std::fflush(stdout);
        });
    bridge.start({});
    return app.exec();
}
