// SPDX-License-Identifier: GPL-3.0-or-later
#include "AtomicFile.h"

#include <cerrno>
#include <QSaveFile>

bool writeFileAtomically(const QString &path, const QByteArray &bytes, QString *error)
{
    // Unbuffered, so that a full disk or a file-size limit fails the write here: buffered
    // bytes are flushed by commit(), which then replaces the file with what fitted and
    // reports success.
    QSaveFile file(path);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Unbuffered)) {
        if (error)
            *error = file.errorString();
        return false;
    }
    errno = 0;
    const qint64 written = file.write(bytes);
    if (written != bytes.size()) {
        // Not committed: the temporary file goes with the QSaveFile, the old file stays.
        const int cause = errno;
        if (error)
            *error = QStringLiteral("wrote %1 of %2 bytes: %3")
                         .arg(std::max<qint64>(written, 0))
                         .arg(bytes.size())
                         .arg(cause ? qt_error_string(cause) : file.errorString());
        return false;
    }
    if (file.commit())
        return true;
    if (error)
        *error = file.errorString();
    return false;
}
