// SPDX-License-Identifier: GPL-3.0-or-later
#include "AtomicFile.h"

#include <QSaveFile>

bool writeFileAtomically(const QString &path, const QByteArray &bytes, QString *error)
{
    QSaveFile file(path);
    if (file.open(QIODevice::WriteOnly) && file.write(bytes) == bytes.size() && file.commit())
        return true;
    if (error)
        *error = file.errorString();
    return false;
}
