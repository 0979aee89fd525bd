// SPDX-License-Identifier: GPL-3.0-or-later
// The file-writing half of saving the log; the window supplies the dialog.
#pragma once

#include <QDateTime>
#include <QString>

namespace LogExport {
// Number of entries a saved log holds.
constexpr int exportedLines = 1000;

// "corvel-log-" + yyyyMMdd-hhmmss (12-hour clock, no AM/PM) of the given local time + ".txt".
QString suggestedFileName(const QDateTime &localTime);

// Where save dialogs start: the Documents folder where there is one, else the home folder.
QString saveFolder();

// Writes text to path as UTF-8, atomically; on failure returns false and fills *error.
bool writeText(const QString &path, const QString &text, QString *error);

// Writes the last exportedLines entries of Log::shared() to path.
bool writeLog(const QString &path, QString *error);
} // namespace LogExport
