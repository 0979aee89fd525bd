// SPDX-License-Identifier: GPL-3.0-or-later
// The in-memory log and the bridge-output path, each measured in its own process so that the
// peak memory printed belongs to that benchmark alone. Prints one row of the bench table.
//   corvel-bench-core log | text | output | bridge
#include "AirConnect.h"
#include "BenchFigures.h"
#include "Log.h"
#include "NotificationCenter.h"
#include "Notifications.h"

#include <algorithm>
#include <cstdio>
#include <fcntl.h>
#include <QCoreApplication>
#include <QElapsedTimer>
#include <QTemporaryDir>
#include <QTimer>
#include <unistd.h>

namespace {
// The echo goes where a service's standard error would: a file, here /dev/null.
void echoToDevNull(Log &log)
{
    const int fd = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
    log.setEchoSink([fd](const QByteArray &line) {
        (void)!::write(fd, line.constData(), size_t(line.size()));
    });
}

const QString sampleLine =
    QStringLiteral("discoveredDevice(SSDPMSearchResponse(location: http://192.168.1.23:1400/xml/"
                   "device_description.xml, server: Linux UPnP/1.0 Sonos/57.3-81090 (ZPS3)))");

// Entries appended one after the other, echoed and mirrored to a session file as Corvel does.
int benchLogAppend()
{
    QTemporaryDir dir;
    Log log;
    echoToDevNull(log);
    log.setSessionFile(dir.filePath(QStringLiteral("session.log")));
    constexpr int entries = 200000;
    QElapsedTimer timer;
    timer.start();
    for (int i = 0; i < entries; ++i)
        log.log(LogLevel::Info, QStringLiteral("SSDP"), sampleLine);
    const double perEntryUs = double(timer.nsecsElapsed()) / 1e3 / entries;
    std::printf("| log append (echo and session file) | %.2f µs per entry (%d entries) | %.1f |\n",
                perEntryUs, entries, peakMiB());
    return 0;
}

// The text the preferences window saves: the last 1000 entries rendered.
int benchLogText()
{
    Log log;
    echoToDevNull(log);
    for (int i = 0; i < Log::maxLines; ++i)
        log.log(LogLevel::Info, QStringLiteral("SSDP"), sampleLine);
    std::vector<double> ms;
    qsizetype size = 0;
    for (int run = 0; run < 200; ++run) {
        QElapsedTimer timer;
        timer.start();
        size = log.text(Log::maxLines).size();
        ms.push_back(double(timer.nsecsElapsed()) / 1e6);
    }
    std::printf("| log text(1000) | median %.2f ms, p99 %.2f ms (%lld characters) | %.1f |\n",
                percentile(ms, 0.5), percentile(ms, 0.99), static_cast<long long>(size), peakMiB());
    return 0;
}

// handleOutput alone: 50 MB in 4 KiB chunks of bridge-like lines, logged as Corvel logs them.
int benchHandleOutput()
{
    Logging::setDefaultLevel(LogLevel::Verbose);
    echoToDevNull(Log::shared());
    Logging::attach(&Log::shared());
    AirConnect bridge;
    QByteArray chunk;
    while (chunk.size() < 4096 - 100)
        chunk += "[12:00:00.000000] raop_thread: 192.168.1.23:7000 streaming to Living Room\n";
    constexpr qint64 total = 50LL * 1000 * 1000;
    QElapsedTimer timer;
    timer.start();
    qint64 fed = 0;
    qint64 longestMs = 0;
    while (fed < total) {
        QElapsedTimer one;
        one.start();
        bridge.handleOutput(chunk);
        longestMs = std::max(longestMs, one.elapsed());
        fed += chunk.size();
    }
    const double seconds = double(timer.nsecsElapsed()) / 1e9;
    std::printf(
        "| bridge output through handleOutput (4 KiB chunks) | %.0f MB/s; longest call %lld "
        "ms | %.1f |\n",
        double(fed) / 1e6 / seconds, static_cast<long long>(longestMs), peakMiB());
    Logging::attach(nullptr);
    return 0;
}

// A running stand-in bridge that writes 50 MB before it is ready: read, logged and searched
// for the readiness line on the event loop, while a 1 ms timer measures how long the loop
// was kept from its other work.
int benchBridge(const char *fakeBridge)
{
    QTemporaryDir dir;
    const QString bridgePath = dir.filePath(QStringLiteral("airupnp-bench"));
    QFile::copy(QString::fromLocal8Bit(fakeBridge), bridgePath);
    QFile::setPermissions(bridgePath, QFile::ReadOwner | QFile::ExeOwner);
    constexpr qint64 total = 50LL * 1000 * 1000;
    qputenv("CORVEL_BRIDGE", bridgePath.toUtf8());
    qputenv("FAKE_BRIDGE_FLOOD_BYTES", QByteArray::number(total));
    qputenv("FAKE_BRIDGE_READY_MS", "0");
    Logging::setDefaultLevel(LogLevel::Verbose);
    echoToDevNull(Log::shared());
    Logging::attach(&Log::shared());

    AirConnect bridge;
    bridge.setConfigPath(dir.filePath(QStringLiteral("airupnp.xml")));
    bridge.setWatchdogDelay(60000);
    QElapsedTimer sinceTick;
    qint64 longestStallMs = 0;
    QTimer tick;
    QObject::connect(&tick, &QTimer::timeout, [&] {
        longestStallMs = std::max(longestStallMs, sinceTick.elapsed());
        sinceTick.restart();
    });
    QElapsedTimer timer;
    NotificationCenter::defaultCenter().addObserver(Notifications::serviceReady,
                                                    [](const Notification &) { qApp->quit(); });
    QTimer::singleShot(120000, qApp, &QCoreApplication::quit);
    timer.start();
    sinceTick.start();
    tick.start(1);
    bridge.start({});
    QCoreApplication::exec();
    const double seconds = double(timer.nsecsElapsed()) / 1e9;
    const bool ready = bridge.isReady();
    bridge.shutdown();
    Logging::attach(nullptr);
    std::printf(
        "| bridge output, 50 MB from a running bridge | %.0f MB/s%s; longest event-loop stall "
        "%lld ms | %.1f |\n",
        double(total) / 1e6 / seconds, ready ? "" : " (never ready)",
        static_cast<long long>(longestStallMs), peakMiB());
    return ready ? 0 : 1;
}
} // namespace

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    const QByteArray which = argc > 1 ? argv[1] : "";
    if (which == "log")
        return benchLogAppend();
    if (which == "text")
        return benchLogText();
    if (which == "output")
        return benchHandleOutput();
    if (which == "bridge")
        return benchBridge(FAKE_BRIDGE);
    std::fprintf(stderr, "usage: corvel-bench-core log|text|output|bridge\n");
    return 2;
}
