// SPDX-License-Identifier: GPL-3.0-or-later
// This computer's sound on a speaker, timed with real parts (PipeWire, Debian's gmediarender):
// the delay from a tone's first sample played into the speaker's output to its first byte in
// the renderer's file, once the speaker listens (the pause case) and from nothing (UPnP start
// included); and Corvel's CPU per stream while it plays. Run inside scripts/netns.
//   corvel-bench-tone [TONES] [CPU_SECONDS]
#include "BenchFigures.h"
#include "HeadlessCorvel.h"
#include "ProcessCensus.h"
#include "Settings.h"
#include "SettingsStorage.h"
#include "SoundRig.h"

#include <csignal>
#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QFileInfo>
#include <QTemporaryDir>
#include <QTimer>
#include <unistd.h>
#include <vector>

namespace {
void serve(int ms)
{
    QEventLoop loop;
    QTimer::singleShot(ms, &loop, &QEventLoop::quit);
    loop.exec();
}

// Plays seconds of tone into sink while watching the renderer's file; the milliseconds from
// the start of playing to the tone's first byte in the file, or -1.
double timeTone(const SoundRig &rig, const QByteArray &sink, double seconds)
{
    const qint64 before = QFileInfo(rig.capture()).size();
    std::vector<std::pair<qint64, qint64>> growth; // (ms since start, file size)
    QElapsedTimer clock;
    QProcess pacat;
    pacat.setProcessEnvironment([&] {
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert(QStringLiteral("PULSE_SERVER"), rig.pulseServer());
        return env;
    }());
    clock.start();
    pacat.start(QStringLiteral("pacat"),
                {"--playback", "-d", QString::fromUtf8(sink), "--format=s16le", "--rate=44100",
                 "--channels=2", "--latency-msec=20"});
    pacat.write(SoundRig::tone(seconds));
    pacat.closeWriteChannel();
    while (clock.elapsed() < qint64(seconds * 1000) + 1500) {
        growth.emplace_back(clock.elapsed(), QFileInfo(rig.capture()).size());
        QEventLoop loop;
        QTimer::singleShot(2, &loop, &QEventLoop::quit);
        loop.exec();
    }
    pacat.waitForFinished();
    QFile file(rig.capture());
    if (!file.open(QIODevice::ReadOnly))
        return -1;
    const QByteArray pcm = file.readAll();
    const qsizetype frame = SoundRig::firstSound(pcm, before / 4);
    if (frame < 0)
        return -1;
    for (const auto &[ms, size] : growth) {
        if (size > frame * 4)
            return double(ms);
    }
    return -1;
}
} // namespace

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    const int tones = argc > 1 ? std::max(1, atoi(argv[1])) : 10;
    const int cpuSeconds = argc > 2 ? std::max(1, atoi(argv[2])) : 20;
    if (qgetenv("CORVEL_IN_NETNS") != "1") {
        fprintf(stderr, "Run it through scripts/netns\n");
        return 2;
    }
    QTemporaryDir dir;
    SoundRig rig(dir.path(), QStringLiteral(GMEDIARENDER), QStringLiteral(SPEAKER_SIM));
    QString error;
    bool skip = false;
    if (!rig.start(&error, &skip)) {
        fprintf(stderr, "%s\n", qPrintable(error));
        return skip ? 77 : 1;
    }
    const QString home = dir.filePath(QStringLiteral("corvel"));
    QDir().mkpath(home + QStringLiteral("/config"));
    qputenv("XDG_CONFIG_HOME", (home + QStringLiteral("/config")).toUtf8());
    Settings::load(std::make_unique<UserSettingsStorage>())->setSoundOutputs(true);
    HeadlessCorvel corvel(
        QStringLiteral(CORVEL_EXECUTABLE), QStringLiteral(FAKE_BRIDGE), home,
        QStringLiteral("airupnp-bench-tone"),
        {QStringLiteral("PULSE_SERVER=") + rig.pulseServer(), QStringLiteral("HOME=") + home});
    if (!corvel.waitFor("Sound output ready: ")) {
        fprintf(stderr, "No sound output:\n%s\n", corvel.output.right(2000).constData());
        return 1;
    }
    const QByteArray sink = rig.corvelSink();

    // From nothing: the speaker is asked to play when the sound starts.
    const double first = timeTone(rig, sink, 1.0);
    // Once it listens: a sound after a pause goes into the running stream.
    std::vector<double> delays;
    for (int i = 0; i < tones; ++i) {
        serve(1000);
        const double ms = timeTone(rig, sink, 0.5);
        if (ms >= 0)
            delays.push_back(ms);
    }

    // CPU while a stream plays, and while it carries silence.
    const long ticks = sysconf(_SC_CLK_TCK);
    const auto cpuPercent = [&](bool sound) {
        const qint64 before = census::cpuTicks(corvel.pid());
        QElapsedTimer clock;
        clock.start();
        if (sound)
            rig.play(sink, SoundRig::tone(cpuSeconds));
        else
            serve(cpuSeconds * 1000);
        return 100.0 * double(census::cpuTicks(corvel.pid()) - before) / double(ticks) /
               (double(clock.elapsed()) / 1000.0);
    };
    const double playing = cpuPercent(true);
    const double silent = cpuPercent(false);
    const double rss = census::memoryMiB("VmHWM", QString::number(corvel.pid()));
    corvel.end(SIGTERM);

    printf("| tone: first sample played → renderer, speaker listening (%zu tones) | median %.0f "
           "ms, p90 %.0f ms, max %.0f ms | %.1f |\n",
           delays.size(), percentile(delays, 0.5), percentile(delays, 0.9), percentile(delays, 1.0),
           rss);
    printf("| tone: first sample played → renderer, from nothing (UPnP start included) | %.0f ms "
           "| |\n",
           first);
    printf("| tone: Corvel's CPU per stream, %d s playing / %d s of silence | %.2f %% / %.2f %% of "
           "one core | |\n",
           cpuSeconds, cpuSeconds, playing, silent);
    return delays.size() == size_t(tones) && first >= 0 ? 0 : 1;
}
