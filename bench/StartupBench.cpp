// SPDX-License-Identifier: GPL-3.0-or-later
// Start-up of the headless program: from starting the process to its first search, over
// several runs, with the peak memory it reached by then. It searches, so run it through
// scripts/netns (scripts/bench).
//   corvel-bench-startup RUNS
#include "HeadlessCorvel.h"
#include "ProcessCensus.h"

#include <algorithm>
#include <cstdio>
#include <QCoreApplication>
#include <QElapsedTimer>
#include <QFile>
#include <QTemporaryDir>

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    const int runs = argc > 1 ? std::max(1, atoi(argv[1])) : 10;
    std::vector<double> ms;
    std::vector<double> peaks;
    for (int run = 0; run < runs; ++run) {
        QTemporaryDir home;
        QElapsedTimer timer;
        timer.start();
        HeadlessCorvel corvel(QStringLiteral(CORVEL_EXECUTABLE), QStringLiteral(FAKE_BRIDGE),
                              home.path(), QStringLiteral("airupnp-bench"));
        const bool searched = corvel.waitFor("[Info][SSDP] searchForDevices", 20000);
        const double took = double(timer.nsecsElapsed()) / 1e6;
        peaks.push_back(census::memoryMiB("VmHWM", QString::number(corvel.pid())));
        if (!searched) {
            std::fprintf(stderr, "corvel did not start a search:\n%s\n",
                         corvel.output.right(2000).constData());
            return 1;
        }
        ms.push_back(took);
    }
    std::sort(ms.begin(), ms.end());
    std::sort(peaks.begin(), peaks.end());
    std::printf(
        "| headless start-up to first search | median %.0f ms, slowest %.0f ms (%d runs) | %.1f "
        "|\n",
        ms[ms.size() / 2], ms.back(), runs, peaks.back());
    return 0;
}
