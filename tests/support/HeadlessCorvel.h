// SPDX-License-Identifier: GPL-3.0-or-later
// build/bin/corvel --headless as a user runs it on a server, with folders of its own and the
// stand-in bridge (which records its arguments and configuration). Output is collected while
// the test's event loop runs, so servers in the test process keep answering. Start it only
// inside a private network namespace: it searches.
#pragma once

#include "ProcessCensus.h"

#include <csignal>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QProcess>
#include <QTemporaryDir>
#include <QTest>

class HeadlessCorvel : public QObject
{
public:
    // bridgeName: a file name of the suite's own, so suites running side by side never sweep
    // each other's bridges away as stale.
    HeadlessCorvel(const QString &corvel, const QString &fakeBridge, const QString &bridgeName,
                   const QString &configHome)
    {
        m_record = m_home.filePath(QStringLiteral("record"));
        QDir().mkpath(m_record);
        const QString bridge = m_home.filePath(bridgeName);
        QFile::copy(fakeBridge, bridge);
        QFile::setPermissions(bridge, QFile::ReadOwner | QFile::ExeOwner);
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert(QStringLiteral("XDG_CONFIG_HOME"), configHome);
        env.insert(QStringLiteral("XDG_RUNTIME_DIR"), m_home.path());
        env.insert(QStringLiteral("XDG_STATE_HOME"), m_home.filePath(QStringLiteral("state")));
        env.insert(QStringLiteral("CORVEL_BRIDGE"), bridge);
        env.insert(QStringLiteral("FAKE_BRIDGE_RECORD_DIR"), m_record);
        env.insert(QStringLiteral("FAKE_BRIDGE_READY_MS"), QStringLiteral("100"));
        env.remove(QStringLiteral("DBUS_SESSION_BUS_ADDRESS"));
        m_process.setProcessEnvironment(env);
        m_process.setProcessChannelMode(QProcess::MergedChannels);
        connect(&m_process, &QProcess::readyRead, this, [this] { output += m_process.readAll(); });
        m_process.start(corvel, {QStringLiteral("--headless")});
        m_process.waitForStarted();
    }
    ~HeadlessCorvel() override
    {
        if (m_process.state() != QProcess::NotRunning) {
            m_process.kill();
            m_process.waitForFinished();
        }
    }

    bool running() const { return m_process.state() == QProcess::Running; }
    qint64 pid() const { return m_process.processId(); }
    // XDG_RUNTIME_DIR, where the bridge's configuration is written.
    QString runtimeDir() const { return m_home.path(); }
    // A file the stand-in bridge wrote: "args.txt", "config.xml" or "pid".
    QByteArray bridgeRecord(const QString &name) const
    {
        return census::readWholeFile(m_record + QLatin1Char('/') + name);
    }

    // Waits, serving the event loop, until the output holds text (count times).
    bool waitFor(const QByteArray &text, int timeoutMs, qsizetype count = 1)
    {
        QElapsedTimer waited;
        waited.start();
        while (output.count(text) < count && waited.elapsed() < timeoutMs && running())
            QTest::qWait(50);
        return output.count(text) >= count;
    }

    // SIGTERM, as a service manager stops it: a responsive program exits 0 within 10 s.
    bool stop()
    {
        ::kill(pid_t(m_process.processId()), SIGTERM);
        QElapsedTimer waited;
        waited.start();
        while (m_process.state() != QProcess::NotRunning && waited.elapsed() < 10000)
            QTest::qWait(50);
        output += m_process.readAll();
        return m_process.state() == QProcess::NotRunning &&
               m_process.exitStatus() == QProcess::NormalExit && m_process.exitCode() == 0;
    }

    QByteArray output;

private:
    QTemporaryDir m_home;
    QString m_record;
    QProcess m_process;
};
