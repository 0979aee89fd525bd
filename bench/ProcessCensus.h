// SPDX-License-Identifier: GPL-3.0-or-later
// What a test process holds, read from /proc: open descriptors, children (or only zombie
// children), resident memory. For checks that nothing leaks across many cycles.
#pragma once

#include <QDir>
#include <QFile>
#include <QList>
#include <unistd.h>

namespace census {
inline QByteArray readWholeFile(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

inline int openDescriptors()
{
    return int(QDir(QStringLiteral("/proc/self/fd"))
                   .entryList(QDir::NoDotAndDotDot | QDir::System)
                   .size());
}

// Children of this process; only zombies when zombiesOnly.
inline QList<int> childProcesses(bool zombiesOnly)
{
    QList<int> found;
    const QByteArray self = QByteArray::number(getpid());
    for (const QString &entry : QDir(QStringLiteral("/proc")).entryList(QDir::Dirs)) {
        const QByteArray stat = readWholeFile("/proc/" + entry + "/stat");
        const qsizetype close = stat.lastIndexOf(')');
        if (close < 0)
            continue;
        const QList<QByteArray> fields = stat.mid(close + 2).split(' ');
        if (fields.size() > 1 && fields[1] == self && (!zombiesOnly || fields[0] == "Z"))
            found << entry.toInt();
    }
    return found;
}

// A "Vm...:" figure of /proc/PID/status in MiB (VmRSS now, VmHWM the peak); 0 if unknown.
inline double memoryMiB(const QByteArray &field, const QString &pid = QStringLiteral("self"))
{
    for (const QByteArray &line : readWholeFile("/proc/" + pid + "/status").split('\n')) {
        if (line.startsWith(field + ':'))
            return line.mid(field.size() + 1).trimmed().split(' ').value(0).toDouble() / 1024;
    }
    return 0;
}
// utime + stime of a process, in clock ticks.
inline qint64 cpuTicks(qint64 pid)
{
    const QByteArray stat = readWholeFile(QStringLiteral("/proc/%1/stat").arg(pid));
    const QList<QByteArray> fields = stat.mid(stat.lastIndexOf(')') + 2).split(' ');
    return fields.value(11).toLongLong() + fields.value(12).toLongLong();
}
} // namespace census
