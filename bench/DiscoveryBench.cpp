// SPDX-License-Identifier: GPL-3.0-or-later
// Discovery of a simulated household running as a separate process: the time from the
// search's start to the last "deviceDiscovered", each player's time from its SSDP answer to
// its event, and this process's peak memory. Run it through scripts/netns (scripts/bench).
//   corvel-bench-discovery PLAYERS
#include "BenchFigures.h"
#include "BenchSimulator.h"
#include "DeviceDiscovery.h"
#include "Log.h"
#include "NotificationCenter.h"
#include "Notifications.h"

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <map>
#include <QCoreApplication>
#include <QElapsedTimer>
#include <QProcess>
#include <QTimer>

namespace {

} // namespace

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    const int players = argc > 1 ? std::max(1, atoi(argv[1])) : 32;

    QProcess simulator;
    const auto started = startSimulator(simulator, players, 10000);
    if (!started)
        return 1;
    std::map<QUrl, int> indexOf;
    for (const auto &[index, location] : *started)
        indexOf[location] = index;

    if (qEnvironmentVariableIsSet("CORVEL_BENCH_LOG")) {
        Logging::setDefaultLevel(LogLevel::Info);
        Logging::attach(&Log::shared());
    }
    DeviceDiscovery discovery;
    std::map<QUrl, qint64> eventAt;
    NotificationCenter::defaultCenter().addObserver(
        Notifications::deviceDiscovered, [&](const Notification &n) {
            const QUrl location =
                n.userInfo.value(UserInfoKey::deviceInfo).value<DeviceInfo>().location;
            eventAt.emplace(location, monotonicNanoseconds());
            if (int(eventAt.size()) == players)
                app.quit();
        });
    QTimer::singleShot(20000, &app, &QCoreApplication::quit);
    const qint64 start = monotonicNanoseconds();
    discovery.searchForDevices(8.0);
    app.exec();

    std::map<int, qint64> answeredAt;
    simulator.waitForReadyRead(200);
    while (simulator.canReadLine() || simulator.waitForReadyRead(100)) {
        const QList<QByteArray> parts = simulator.readLine().trimmed().split(' ');
        if (parts.value(0) == "answer")
            answeredAt.emplace(parts.value(1).toInt(), parts.value(2).toLongLong());
    }
    simulator.kill();
    simulator.waitForFinished();

    std::vector<double> latencies;
    qint64 lastEvent = start, lastAnswer = start;
    for (const auto &[location, at] : eventAt) {
        lastEvent = std::max(lastEvent, at);
        const auto answered = answeredAt.find(indexOf[location]);
        if (answered != answeredAt.end()) {
            latencies.push_back(double(at - answered->second) / 1e6);
            lastAnswer = std::max(lastAnswer, answered->second);
        }
    }
    std::printf(
        "| discovery, %d player%s | %zu found; search to last event %.1f ms (last answer to "
        "last event %.1f ms); answer to event median %.1f ms, p99 %.1f ms | %.1f |\n",
        players, players == 1 ? "" : "s", eventAt.size(), double(lastEvent - start) / 1e6,
        double(lastEvent - lastAnswer) / 1e6, percentile(latencies, 0.5),
        percentile(latencies, 0.99), peakMiB());
    return int(eventAt.size()) == players ? 0 : 1;
}
