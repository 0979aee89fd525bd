// SPDX-License-Identifier: GPL-3.0-or-later
#include "StaleBridges.h"

#include <csignal>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QThread>
#include <sys/stat.h>
#include <unistd.h>

namespace {
QString executableOf(const QString &procDir)
{
    QString exe = QFile::symLinkTarget(procDir + QStringLiteral("/exe"));
    if (!exe.isEmpty()) {
        // A binary replaced on disk while running reads as "path (deleted)".
        if (exe.endsWith(QLatin1String(" (deleted)")))
            exe.chop(10);
        return QFileInfo(exe).fileName();
    }
    QFile cmdline(procDir + QStringLiteral("/cmdline"));
    if (!cmdline.open(QIODevice::ReadOnly))
        return {};
    const QByteArray argv0 = cmdline.read(4096).split('\0').value(0);
    return QFileInfo(QString::fromLocal8Bit(argv0)).fileName();
}

// Gone, or a zombie waiting for its parent: either way no longer running.
bool hasEnded(pid_t pid)
{
    QFile stat(QStringLiteral("/proc/%1/stat").arg(pid));
    if (!stat.open(QIODevice::ReadOnly))
        return true;
    const QByteArray text = stat.readAll();
    const qsizetype close = text.lastIndexOf(')');
    return close < 0 || text.mid(close + 2, 1) == "Z";
}
} // namespace

QList<pid_t> StaleBridges::find(const QString &executableFileName)
{
    QList<pid_t> found;
    if (executableFileName.isEmpty())
        return found;
    const uid_t me = getuid();
    const pid_t self = getpid();
    const QStringList entries =
        QDir(QStringLiteral("/proc")).entryList(QDir::Dirs | QDir::NoDotAndDotDot);
    for (const QString &entry : entries) {
        bool numeric = false;
        const pid_t pid = entry.toInt(&numeric);
        if (!numeric || pid == self)
            continue;
        const QString dir = QStringLiteral("/proc/") + entry;
        struct stat info
        {
        };
        if (stat(dir.toLocal8Bit().constData(), &info) != 0 || info.st_uid != me)
            continue;
        if (executableOf(dir) == executableFileName && !hasEnded(pid))
            found << pid;
    }
    return found;
}

int StaleBridges::endAll(const QString &executableFileName, int graceMs)
{
    QList<pid_t> pids = find(executableFileName);
    for (pid_t pid : pids)
        kill(pid, SIGTERM);
    QElapsedTimer waited;
    waited.start();
    QList<pid_t> left = pids;
    while (!left.isEmpty() && waited.elapsed() < graceMs) {
        left.removeIf(hasEnded);
        if (!left.isEmpty())
            QThread::msleep(10);
    }
    for (pid_t pid : left)
        kill(pid, SIGKILL);
    return static_cast<int>(pids.size());
}
