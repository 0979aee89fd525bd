// SPDX-License-Identifier: GPL-3.0-or-later
#include "LogExport.h"

#include "AtomicFile.h"
#include "Log.h"

#include <QDir>
#include <QStandardPaths>

QString LogExport::saveFolder()
{
    const QString documents = QStandardPaths::writableLocation(QStandardPaths::DocumentsLocation);
    return !documents.isEmpty() && QDir(documents).exists() ? documents : QDir::homePath();
}

QString LogExport::suggestedFileName(const QDateTime &localTime)
{
    // Qt's "hh" is the 24-hour clock unless AM/PM is shown, so the 12-hour hour is built here.
    const int hour = localTime.time().hour() % 12;
    const QString hour12 = QStringLiteral("%1").arg(hour == 0 ? 12 : hour, 2, 10, QLatin1Char('0'));
    return QStringLiteral("corvel-log-") + localTime.toString(QStringLiteral("yyyyMMdd-")) +
           hour12 + localTime.toString(QStringLiteral("mmss")) + QStringLiteral(".txt");
}

bool LogExport::writeText(const QString &path, const QString &text, QString *error)
{
    return writeFileAtomically(path, text.toUtf8(), error);
}

bool LogExport::writeLog(const QString &path, QString *error)
{
    return writeText(path, Log::shared().text(exportedLines), error);
}
