// SPDX-License-Identifier: GPL-3.0-or-later
#include "StaleBridges.h"

#include <csignal>
#include <memory>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QTimer>
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

pid_t parentOf(const QString &procDir)
{
    QFile status(procDir + QStringLiteral("/status"));
    if (!status.open(QIODevice::ReadOnly))
        return 0;
    for (const QByteArray &line : status.readAll().split('\n')) {
        if (line.startsWith("PPid:"))
            return line.mid(5).trimmed().toInt();
    }
    return 0;
}
} // namespace

QString StaleBridges::ownExecutable()
{
    return executableOf(QStringLiteral("/proc/self"));
}

QList<pid_t> StaleBridges::find(const QString &executableFileName, const QString &ownerFileName)
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
        if (executableOf(dir) != executableFileName || hasEnded(pid))
            continue;
        if (!ownerFileName.isEmpty()) {
            // A bridge whose parent is a living Corvel is that Corvel's, not stale.
            const pid_t parent = parentOf(dir);
            if (parent > 1 && !hasEnded(parent) &&
                executableOf(QStringLiteral("/proc/%1").arg(parent)) == ownerFileName)
                continue;
        }
        found << pid;
    }
    return found;
}

void StaleBridges::endAll(const QString &executableFileName, QObject *context,
                          std::function<void(int)> done, int graceMs)
{
    const QList<pid_t> pids = find(executableFileName, ownExecutable());
    if (pids.isEmpty()) {
        done(0);
        return;
    }
    for (pid_t pid : pids)
        kill(pid, SIGTERM);
    auto *poll = new QTimer(context);
    auto left = std::make_shared<QList<pid_t>>(pids);
    QElapsedTimer waited;
    waited.start();
    const int found = static_cast<int>(pids.size());
    QObject::connect(poll, &QTimer::timeout, context, [poll, left, waited, graceMs, found, done] {
        left->removeIf(hasEnded);
        if (!left->isEmpty() && !waited.hasExpired(graceMs))
            return;
        for (pid_t pid : std::as_const(*left))
            kill(pid, SIGKILL);
        poll->stop();
        poll->deleteLater();
        done(found);
    });
    poll->start(10);
}
