// SPDX-License-Identifier: GPL-3.0-or-later
// Reads a capture from the shared fixtures folder beside the repository.
#pragma once

#include <QFile>
#include <QString>

// The file's bytes, or empty when the folder or the file is absent (callers then skip).
inline QByteArray sharedFixture(const QString &name)
{
    QFile file(QStringLiteral(CORVEL_SHARED_FIXTURES "/") + name);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}
