// SPDX-License-Identifier: GPL-3.0-or-later
#include "AirConnect.h"

#include "BridgeLocator.h"
#include "ConfigWriter.h"
#include "Logging.h"
#include "NotificationCenter.h"
#include "Notifications.h"
#include "StaleBridges.h"

#include <algorithm>
#include <csignal>
#include <QDeadlineTimer>
#include <QFileInfo>
#include <QStandardPaths>
#include <QStringDecoder>
#include <QUrl>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <unistd.h>

namespace {
AirConnect *g_shared = nullptr;
const QString category = QStringLiteral("AirConnect");
const QString readinessMarker = QStringLiteral("adding renderer");
// A stopped bridge may hang while speakers are unreachable; it is killed after this.
constexpr int stopKillDelayMs = 10000;
} // namespace

void AirConnect::post(const QString &name) const
{
    NotificationCenter::defaultCenter().post(name, {{UserInfoKey::launch, m_launch}});
}

void AirConnect::restart(const std::vector<DeviceSettings> &records, const BridgeOptions &options)
{
    stop();
    start(records, options);
}

bool AirConnect::configDiffers(const std::vector<DeviceSettings> &records,
                               const BridgeOptions &options) const
{
    return options.binding != m_binding || configFileText(records, options) != m_config;
}

AirConnect &AirConnect::shared()
{
    // main constructs the instance and destroys it before the application object; without
    // one (a test, a tool) a first use creates one that is never destroyed.
    if (!g_shared)
        new AirConnect;
    return *g_shared;
}

AirConnect::AirConnect(QObject *parent) : QObject(parent)
{
    if (!g_shared)
        g_shared = this;
    m_startTimer.setSingleShot(true);
    m_startTimer.setTimerType(Qt::PreciseTimer); // a coarse timer fires up to 5 % early
    m_startTimer.setInterval(defaultWatchdogDelayMs);
    connect(&m_startTimer, &QTimer::timeout, this, &AirConnect::watchdogTimerExpired);
    m_clock.start();
}

AirConnect::~AirConnect()
{
    if (g_shared == this)
        g_shared = nullptr;
    shutdown();
}

QString AirConnect::configPath() const
{
    if (!m_configPath.isEmpty())
        return m_configPath;
    return QStandardPaths::writableLocation(QStandardPaths::RuntimeLocation) +
           QStringLiteral("/airupnp.xml");
}

void AirConnect::start(const std::vector<DeviceSettings> &records, const BridgeOptions &options)
{
    const BridgeLocation bridge = findBridgeExecutable();
    m_bridgeMissing = bridge.path.isEmpty();
    if (m_bridgeMissing) {
        logError(category, bridgeNotFoundMessage(bridge, currentBridgeArchitecture()));
        NotificationCenter::defaultCenter().post(Notifications::bridgeMissing,
                                                 {{UserInfoKey::lookedIn, bridge.lookedIn}});
        return;
    }

    // The launch follows the sweep of stale bridges, which is watched from the loop; a stop()
    // meanwhile cancels it.
    const quint64 launch = ++m_launch;
    m_launchPending = true;
    StaleBridges::endAll(
        QFileInfo(bridge.path).fileName(), this,
        [this, launch, path = bridge.path, records, options](int stale) {
            if (stale > 0)
                logInfo(category, QStringLiteral("Ended %1 stale bridge process(es)").arg(stale));
            if (launch != m_launch || !m_launchPending)
                return;
            m_afterRetired = [this, path, records, options] {
                this->launch(path, records, options);
            };
            if (m_retired.empty())
                std::exchange(m_afterRetired, nullptr)();
            else
                logInfo(category, QStringLiteral("Waiting for the previous bridge to exit"));
        });
}

void AirConnect::launch(const QString &bridgePath, const std::vector<DeviceSettings> &records,
                        const BridgeOptions &options)
{
    m_launchPending = false;
    const QString config = configPath();
    const QString configUrl = QUrl::fromLocalFile(config).toString();
    QString error;
    m_config = configFileText(records, options);
    m_binding = options.binding;
    m_recentOutput.clear();
    if (!writeConfigFile(config, records, options, &error)) {
        // Never a bridge with a file that is not whole: without one it would offer every
        // renderer on the network. Told as a start that ended at once, so it is retried with
        // back-off, and these are its last words.
        logError(category, QStringLiteral("Failed to write config file to ") + configUrl + " - " +
                               error + QStringLiteral("; the bridge is not started"));
        m_config.clear();
        m_recentOutput = {QStringLiteral("Corvel could not write %1: %2").arg(config, error)};
        post(Notifications::serviceStarted);
        post(Notifications::serviceTerminated);
        return;
    }
    logInfo(category, QStringLiteral("Wrote config file to ") + configUrl);

    if (m_process)
        retire(m_process);
    auto *process = new QProcess(this);
    m_process = process;
    const quint64 launch = m_launch;
    m_markerTail.clear();
    forgetSpeakers();

    process->setProgram(bridgePath);
    // -b takes the interface's name: with an address the bridge would not follow a change of
    // address (it re-reads a named interface's address every 30 s).
    QStringList arguments{QStringLiteral("-Z"), QStringLiteral("-x"), config};
    if (!options.binding.isEmpty())
        arguments << QStringLiteral("-b") << options.binding;
    process->setArguments(arguments);
    logInfo(category, QStringLiteral("Starting ") + bridgePath + QLatin1Char(' ') +
                          arguments.join(QLatin1Char(' ')));
    process->setProcessChannelMode(QProcess::MergedChannels);
    process->setStandardInputFile(QProcess::nullDevice());
    const pid_t corvel = getpid();
    process->setChildProcessModifier([corvel] {
        // Lowest CPU priority, and end with Corvel whatever way Corvel ends.
        setpriority(PRIO_PROCESS, 0, 19);
        prctl(PR_SET_PDEATHSIG, SIGTERM);
        if (getppid() != corvel)
            raise(SIGTERM);
    });
    connect(process, &QProcess::readyReadStandardOutput, this, [this, process] {
        // When Corvel falls behind a chatty bridge, the output waiting can be megabytes; it is
        // taken in pieces of at most maxOutputChunk bytes, cut after a line where one ends, so
        // that every log entry stays small and characters are not split.
        while (process->bytesAvailable() > 0) {
            QByteArray chunk = process->peek(maxOutputChunk);
            if (process->bytesAvailable() > chunk.size()) {
                const qsizetype lineEnd = chunk.lastIndexOf('\n');
                if (lineEnd >= 0)
                    chunk.truncate(lineEnd + 1);
            }
            process->skip(chunk.size());
            if (process == m_process)
                handleOutput(chunk);
        }
    });
    connect(process, &QProcess::started, this, [this, process] {
        // A bridge stopped before its exec finished is not announced.
        if (process == m_process)
            post(Notifications::serviceStarted);
    });
    connect(process, &QProcess::errorOccurred, this, [process](QProcess::ProcessError error) {
        if (error == QProcess::FailedToStart)
            logError(category, QStringLiteral("Failed to launch ") + process->program());
    });
    connect(process, &QProcess::finished, this,
            [this, process, launch] { handleTermination(process, launch); });

    m_startTimer.start(); // a newer launch cancels the older launch's watchdog
    process->start();
}

void AirConnect::stop()
{
    m_startTimer.stop();
    m_ready = false;
    m_launchPending = false;
    m_afterRetired = nullptr;
    m_config.clear();
    if (m_process) {
        if (m_process->state() != QProcess::NotRunning)
            m_process->terminate();
        retire(m_process);
        m_process = nullptr;
    }
}

void AirConnect::retire(QProcess *process)
{
    if (process->state() == QProcess::NotRunning) {
        // Never started (a failed launch): nothing will report its end.
        process->deleteLater();
        return;
    }
    m_retired.push_back(process);
    QTimer::singleShot(stopKillDelayMs, process, [process] {
        if (process->state() != QProcess::NotRunning) {
            logWarning(category, QStringLiteral("Bridge did not exit when asked; killing it"));
            process->kill();
        }
    });
}

void AirConnect::shutdown()
{
    stop();
    QDeadlineTimer deadline(quitGraceMs);
    for (QProcess *process : std::vector<QProcess *>(m_retired)) {
        // A finite deadline never gives -1 (wait forever); once passed it gives 0.
        if (process->state() != QProcess::NotRunning &&
            !process->waitForFinished(static_cast<int>(deadline.remainingTime()))) {
            logWarning(category, QStringLiteral("Bridge did not exit in time; killing it"));
            process->kill();
            process->waitForFinished(1000);
        }
    }
}

void AirConnect::setReady()
{
    m_ready = true;
    m_startTimer.stop();
    post(Notifications::serviceReady);
}

void AirConnect::watchdogTimerExpired()
{
    if (m_ready)
        return;
    logError(category, QStringLiteral("airupnp is not in a usable state, terminating"));
    // Its end is Corvel's doing, and says so.
    if (m_process)
        m_process->setProperty("notReady", true);
    stop();
}

void AirConnect::handleOutput(const QByteArray &chunk)
{
    QStringDecoder decoder(QStringConverter::Utf8, QStringConverter::Flag::Stateless);
    const QString decoded = decoder.decode(chunk);
    if (decoder.hasError())
        return; // not UTF-8: dropped without a message
    readLines(decoded);
    const QString text = decoded.trimmed();
    if (text.isEmpty())
        return;
    if (!m_ready) {
        const QString searched = m_markerTail + text;
        m_markerTail = text.right(readinessMarker.size() - 1);
        if (searched.contains(readinessMarker))
            setReady();
    }
    // A chatty bridge must not flood the log and the journal.
    if (!m_logWindow.isValid() || m_logWindow.elapsed() >= 1000) {
        reportUnloggedOutput();
        m_logWindow.start();
        m_loggedBytes = 0;
    }
    if (m_loggedBytes + chunk.size() <= maxLoggedOutputPerSecond) {
        m_loggedBytes += chunk.size();
        logDebug(category, text);
    } else {
        m_unloggedBytes += chunk.size();
    }
    for (const QString &line : text.split(QLatin1Char('\n'), Qt::SkipEmptyParts))
        m_recentOutput.append(line.trimmed());
    if (m_recentOutput.size() > recentLineCount)
        m_recentOutput.remove(0, m_recentOutput.size() - recentLineCount);
}

void AirConnect::readLines(const QString &decoded)
{
    QString pending = std::exchange(m_partialLine, QString()) + decoded;
    const qsizetype end = pending.lastIndexOf(QLatin1Char('\n'));
    m_partialLine = pending.mid(end + 1);
    if (m_partialLine.size() > 4096)
        m_partialLine.clear(); // no line of the bridge is this long
    if (end < 0)
        return;
    pending.truncate(end);
    const qint64 now = m_clock.elapsed();
    bool changed = false;
    for (const QString &line : pending.split(QLatin1Char('\n'), Qt::SkipEmptyParts))
        changed = m_output.take(line, now) || changed;
    while (const auto problem = m_output.takeProblem()) {
        logWarning(category, problem->english);
        NotificationCenter::defaultCenter().post(Notifications::bridgeProblem,
                                                 {{UserInfoKey::launch, m_launch},
                                                  {UserInfoKey::problem, problem->shown},
                                                  {UserInfoKey::problemKind, int(problem->kind)}});
    }
    if (changed)
        post(Notifications::bridgeSpeakersChanged);
}

void AirConnect::forgetSpeakers()
{
    m_partialLine.clear();
    const bool knew = !m_output.speakers().empty();
    m_output.reset();
    if (knew)
        post(Notifications::bridgeSpeakersChanged);
}

void AirConnect::reportUnloggedOutput()
{
    if (m_unloggedBytes == 0)
        return;
    logWarning(category, QStringLiteral("%1 bytes of the bridge's output were not logged (it "
                                        "wrote more than %2 KiB a second)")
                             .arg(std::exchange(m_unloggedBytes, 0))
                             .arg(maxLoggedOutputPerSecond / 1024));
}

void AirConnect::handleTermination(QProcess *process, quint64 launch)
{
    reportUnloggedOutput();
    const auto retired = std::find(m_retired.begin(), m_retired.end(), process);
    if (retired != m_retired.end())
        m_retired.erase(retired);
    process->deleteLater();
    if (m_retired.empty() && m_afterRetired)
        std::exchange(m_afterRetired, nullptr)();

    if (launch != m_launch) {
        // An older bridge ending late must not touch the newer one or its events.
        logInfo(category, QStringLiteral("Terminated (an earlier bridge)"));
        return;
    }
    if (m_process == process)
        m_process = nullptr;
    m_ready = false;
    forgetSpeakers();
    logInfo(category, QStringLiteral("Terminated"));
    // The bridge says "Cannot start" and exits 1 when the interface it serves has no IPv4
    // address yet: a network that is not ready, not a failing bridge.
    const bool cannotStart =
        process->exitStatus() == QProcess::NormalExit && process->exitCode() == 1 &&
        std::any_of(m_recentOutput.cbegin(), m_recentOutput.cend(), [](const QString &line) {
            return line.endsWith(QLatin1String("Cannot start"));
        });
    NotificationCenter::defaultCenter().post(
        Notifications::serviceTerminated,
        {{UserInfoKey::launch, m_launch},
         {UserInfoKey::cannotStart, cannotStart},
         {UserInfoKey::notReady, process->property("notReady").toBool()}});
}
