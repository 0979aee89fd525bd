// SPDX-License-Identifier: GPL-3.0-or-later
// Starts, watches and stops the AirConnect bridge, and reports it as events.
#pragma once

#include "BridgeOutput.h"
#include "ConfigWriter.h"
#include "DeviceSettings.h"

#include <functional>
#include <QElapsedTimer>
#include <QObject>
#include <QProcess>
#include <QStringList>
#include <QTimer>
#include <vector>

class AirConnect : public QObject
{
    Q_OBJECT

public:
    static constexpr int defaultWatchdogDelayMs = 20000;
    static constexpr int quitGraceMs = 3000;
    // The most output passed to handleOutput at once.
    static constexpr qint64 maxOutputChunk = 8192;
    // The most of the bridge's output logged (and so echoed to standard error) per second; the
    // rest is counted and said in one line.
    static constexpr qint64 maxLoggedOutputPerSecond = 64 * 1024;

    // The process-wide supervisor: the first one constructed, else created on first use.
    static AirConnect &shared();

    // The first instance becomes the shared one until it is destroyed.
    explicit AirConnect(QObject *parent = nullptr);
    ~AirConnect() override;

    // Ends stale bridges, then writes the configuration for records, launches the bridge and
    // arms the watchdog. Callers start only while no bridge runs (running() is false).
    // options: the delay, the ports and the interface (-b) it serves.
    void start(const std::vector<DeviceSettings> &records, const BridgeOptions &options = {});
    // Cancels the watchdog, forgets readiness, asks the bridge to terminate and forgets it.
    // "serviceTerminated" follows when it has exited. A later start launches only once every
    // stopped bridge has exited, so two never run at once.
    void stop();
    // Stops the bridge and starts it again with records; the stopped bridge's exit is not
    // announced (it belongs to an earlier launch).
    void restart(const std::vector<DeviceSettings> &records, const BridgeOptions &options = {});
    // Whether records and options would start the bridge otherwise than the running one.
    bool configDiffers(const std::vector<DeviceSettings> &records,
                       const BridgeOptions &options = {}) const;
    // The last lines the bridge wrote (at most recentLineCount), oldest first.
    QStringList recentOutput() const { return m_recentOutput; }
    // What the running bridge said of each speaker; empty while none runs. Changes are posted
    // as "bridgeSpeakersChanged", faults it reported as "bridgeProblem".
    const BridgeOutput &speakerOutput() const { return m_output; }
    static constexpr int recentLineCount = 10;
    // Which launch the bridge events are about; they carry it as UserInfoKey::launch.
    quint64 currentLaunch() const { return m_launch; }
    // Stops and waits up to quitGraceMs for every bridge this supervisor started, then kills
    // what is left; for quitting, so that no bridge outlives Corvel.
    void shutdown();

    // Marks the bridge usable, cancels the watchdog and posts "serviceReady".
    void setReady();
    // The watchdog: stops a bridge that has not become usable in time.
    void watchdogTimerExpired();
    // One chunk of the bridge's merged output.
    void handleOutput(const QByteArray &chunk);

    // The bridge of the last launch; null when none runs.
    QProcess *process() const { return m_process; }
    // A bridge runs, or is about to be launched once stale ones have ended.
    bool running() const { return m_process || m_launchPending; }
    bool isReady() const { return m_ready; }
    bool watchdogPending() const { return m_startTimer.isActive(); }
    // True when the last start found no bridge executable.
    bool bridgeMissing() const { return m_bridgeMissing; }

    // Where the configuration is written; $XDG_RUNTIME_DIR/airupnp.xml by default.
    QString configPath() const;
    void setConfigPath(const QString &path) { m_configPath = path; }
    void setWatchdogDelay(int ms) { m_startTimer.setInterval(ms); }

private:
    void launch(const QString &bridgePath, const std::vector<DeviceSettings> &records,
                const BridgeOptions &options);
    void post(const QString &name) const;
    void handleTermination(QProcess *process, quint64 launch);
    // Keeps a stopped bridge until it exits; kills it if it ignores the request too long.
    void retire(QProcess *process);

    QProcess *m_process = nullptr;
    bool m_ready = false;
    QTimer m_startTimer;
    quint64 m_launch = 0; // counts launches, so late exits of older bridges are told apart
    QString m_configPath;
    // Reads whole lines of the bridge's output into m_output.
    void readLines(const QString &decoded);
    void forgetSpeakers();
    BridgeOutput m_output;
    QString m_partialLine; // the output's last line until its end arrives
    QString m_markerTail;  // end of the previous chunk, so a marker split across reads matches
    // Logs how much output went unlogged in the window that ended, if any.
    void reportUnloggedOutput();
    QElapsedTimer m_logWindow; // the second the logged output is counted in
    QElapsedTimer m_clock;     // the times the output's lines are read at
    qint64 m_loggedBytes = 0;
    qint64 m_unloggedBytes = 0;
    bool m_bridgeMissing = false;
    bool m_launchPending = false;
    std::vector<QProcess *> m_retired;
    std::function<void()> m_afterRetired; // the launch waiting for stopped bridges to exit
    QString m_config;                     // the running bridge's configuration text
    QString m_binding;                    // and the interface it was told to serve
    QStringList m_recentOutput;
};
