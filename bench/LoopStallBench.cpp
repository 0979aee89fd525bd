// SPDX-License-Identifier: GPL-3.0-or-later
// How long the event loop is kept from running: a 1 ms timer measures its own lateness while
// Corvel starts, searches a household of 32 simulated players, ends a stale bridge and
// launches its own, and opens the preferences window. Prints the longest stall of each phase.
// It searches, so run it through scripts/netns (scripts/bench).
//   corvel-bench-loopstall
#include "AirConnect.h"
#include "Controller.h"
#include "DeviceDiscovery.h"
#include "Log.h"
#include "Notifications.h"
#include "Settings.h"
#include "SpeakerSimulator.h"
#include "WindowFactory.h"

#include <cstdio>
#include <QApplication>
#include <QElapsedTimer>
#include <QFile>
#include <QProcess>
#include <QTemporaryDir>
#include <QTimer>

int main(int argc, char *argv[])
{
    qputenv("QT_QPA_PLATFORM", "offscreen");
    QTemporaryDir home;
    qputenv("XDG_CONFIG_HOME", home.filePath(QStringLiteral("config")).toUtf8());
    qputenv("XDG_RUNTIME_DIR", home.path().toUtf8());
    qputenv("XDG_STATE_HOME", home.filePath(QStringLiteral("state")).toUtf8());
    // The bridge, and a stale one of the same name left by an earlier run that takes 300 ms
    // to go when asked.
    const QString bridge = home.filePath(QStringLiteral("airupnp-loopstall"));
    QFile::copy(QStringLiteral(FAKE_BRIDGE), bridge);
    QFile::setPermissions(bridge, QFile::ReadOwner | QFile::ExeOwner);
    qputenv("CORVEL_BRIDGE", bridge.toUtf8());
    qputenv("FAKE_BRIDGE_READY_MS", "200");
    qputenv("FAKE_BRIDGE_TERM_DELAY_MS", "300");
    QProcess::startDetached(bridge, {});

    QApplication app(argc, argv);
    QApplication::setApplicationVersion(QStringLiteral("0.0.0"));
    QString phase = QStringLiteral("start-up");
    std::map<QString, qint64> worst;
    QElapsedTimer clock;
    clock.start();
    qint64 last = clock.nsecsElapsed();
    QTimer probe;
    probe.setTimerType(Qt::PreciseTimer);
    QObject::connect(&probe, &QTimer::timeout, [&] {
        const qint64 now = clock.nsecsElapsed();
        worst[phase] = std::max(worst[phase], now - last - 1000000);
        last = now;
    });
    probe.start(1);

    SpeakerSimulator simulator(SpeakerSimulator::household(32, 8));
    QString error;
    if (!simulator.start(&error)) {
        std::fprintf(stderr, "simulator: %s\n", qPrintable(error));
        return 1;
    }
    DeviceDiscovery discovery;
    AirConnect supervisor;
    const Platform platform = Platform::system();
    Controller controller(AppServices::real(), platform, false);
    WindowFactory windows(controller, platform);
    auto &center = NotificationCenter::defaultCenter();
    center.addObserver(Notifications::discoveryStarted,
                       [&](const Notification &) { phase = QStringLiteral("search of 32"); });
    center.addObserver(Notifications::discoveryComplete, [&](const Notification &) {
        phase = QStringLiteral("bridge launch after a stale one");
    });
    center.addObserver(Notifications::serviceReady, [&](const Notification &) {
        QTimer::singleShot(0, &app, [&] {
            phase = QStringLiteral("opening Preferences");
            windows.show(Windows::Kind::Preferences);
            QTimer::singleShot(500, &app, &QCoreApplication::quit);
        });
    });
    QTimer::singleShot(0, &app, [&] {
        Logging::attach(&Log::shared());
        controller.startCrashReporting();
        Logging::setDefaultLevel(LogLevel::Warning);
    });
    QTimer::singleShot(100, &app, [&] { controller.start(); });
    QTimer::singleShot(30000, &app, &QCoreApplication::quit);
    app.exec();
    controller.shutdown();
    qint64 longest = 0;
    for (const auto &[name, stall] : worst) {
        std::printf("| loop stall, %s | longest %.1f ms | |\n", qPrintable(name),
                    double(stall) / 1e6);
        longest = std::max(longest, stall);
    }
    std::printf("| loop stall, whole run | longest %.1f ms | |\n", double(longest) / 1e6);
    return 0;
}
