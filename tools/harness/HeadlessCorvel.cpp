// SPDX-License-Identifier: GPL-3.0-or-later
#include "HeadlessCorvel.h"

#include <csignal>
#include <QDeadlineTimer>
#include <QDir>
#include <QEventLoop>
#include <QTimer>

HeadlessCorvel::HeadlessCorvel(const QString &corvel, const QString &fakeBridge,
                               const QString &home, const QString &bridgeName,
                               const QStringList &environment, const QStringList &arguments)
    : m_record(home + QStringLiteral("/record"))
{
    QDir().mkpath(m_record);
    // The runtime folder must be the owner's alone: otherwise Qt falls back to a shared
    // /tmp/runtime-$USER, where two runs would share the lock and the bridge's file.
    QFile::setPermissions(home, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    const QString bridge = home + QLatin1Char('/') + bridgeName;
    QFile::copy(fakeBridge, bridge);
    QFile::setPermissions(bridge, QFile::ReadOwner | QFile::ExeOwner);
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(QStringLiteral("XDG_CONFIG_HOME"), home + QStringLiteral("/config"));
    env.insert(QStringLiteral("XDG_RUNTIME_DIR"), home);
    env.insert(QStringLiteral("XDG_STATE_HOME"), home + QStringLiteral("/state"));
    env.insert(QStringLiteral("CORVEL_BRIDGE"), bridge);
    env.insert(QStringLiteral("FAKE_BRIDGE_RECORD_DIR"), m_record);
    env.insert(QStringLiteral("FAKE_BRIDGE_READY_MS"), QStringLiteral("100"));
    env.remove(QStringLiteral("DBUS_SESSION_BUS_ADDRESS"));
    for (const QString &entry : environment)
        env.insert(entry.section(QLatin1Char('='), 0, 0), entry.section(QLatin1Char('='), 1));
    m_process.setProcessEnvironment(env);
    m_process.setProcessChannelMode(QProcess::MergedChannels);
    QObject::connect(&m_process, &QProcess::readyRead, [this] { output += m_process.readAll(); });
    m_process.start(corvel, arguments);
}

HeadlessCorvel::~HeadlessCorvel()
{
    m_process.kill();
    m_process.waitForFinished();
}

bool HeadlessCorvel::waitFor(const QByteArray &text, int timeoutMs)
{
    QDeadlineTimer deadline(timeoutMs);
    while (!output.contains(text) && m_process.state() != QProcess::NotRunning &&
           !deadline.hasExpired()) {
        QEventLoop loop;
        QTimer::singleShot(20, &loop, &QEventLoop::quit);
        loop.exec();
    }
    return output.contains(text);
}

QByteArray HeadlessCorvel::bridgeRecord(const QString &name) const
{
    QFile file(m_record + QLatin1Char('/') + name);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

bool HeadlessCorvel::end(int signal)
{
    ::kill(pid_t(m_process.processId()), signal);
    if (!m_process.waitForFinished(15000))
        return false;
    output += m_process.readAll();
    return m_process.exitStatus() == QProcess::NormalExit && m_process.exitCode() == 0;
}

int HeadlessCorvel::run(const QStringList &arguments, QByteArray *out)
{
    QProcess command;
    command.setProcessEnvironment(m_process.processEnvironment());
    command.setProcessChannelMode(QProcess::MergedChannels);
    command.start(m_process.program(), arguments);
    // The running Corvel answers from this loop's neighbour process; wait without blocking
    // this process's own servers.
    QDeadlineTimer deadline(20000);
    while (command.state() != QProcess::NotRunning && !deadline.hasExpired()) {
        QEventLoop loop;
        QTimer::singleShot(20, &loop, &QEventLoop::quit);
        loop.exec();
    }
    if (command.state() != QProcess::NotRunning) {
        command.kill();
        command.waitForFinished();
        return -1;
    }
    *out = command.readAll();
    return command.exitStatus() == QProcess::NormalExit ? command.exitCode() : -1;
}
