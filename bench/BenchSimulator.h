// SPDX-License-Identifier: GPL-3.0-or-later
// The simulated household that the discovery benchmarks search: a separate process (path
// SPEAKER_SIM) with a quarter as many groups as players, reporting each answer it sends.
#pragma once

#include <algorithm>
#include <cstdio>
#include <map>
#include <optional>
#include <QProcess>
#include <QUrl>

// Starts the simulator and waits for it to be ready; returns its players' description
// locations by index, or nothing (with a message) when it did not start within timeoutMs.
inline std::optional<std::map<int, QUrl>> startSimulator(QProcess &simulator, int players,
                                                         int timeoutMs)
{
    simulator.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    simulator.start(QStringLiteral(SPEAKER_SIM),
                    {"--players", QString::number(players), "--groups",
                     QString::number(std::max(1, players / 4)), "--report-answers"});
    std::map<int, QUrl> locations;
    for (bool ready = false; !ready;) {
        if (!simulator.waitForReadyRead(timeoutMs)) {
            std::fprintf(stderr, "The simulator did not start\n");
            return std::nullopt;
        }
        while (simulator.canReadLine()) {
            const QList<QByteArray> parts = simulator.readLine().trimmed().split(' ');
            ready = ready || parts.value(0) == "ready";
            if (parts.value(0) == "player")
                locations[parts.value(1).toInt()] = QUrl(QString::fromUtf8(parts.value(2)));
        }
    }
    return locations;
}
