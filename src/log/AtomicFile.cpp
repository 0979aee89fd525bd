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
    const bool opened = file.open(QIODevice::WriteOnly | QIODevice::Unbuffered);
    const qint64 written = opened ? file.write(bytes) : 0;
    const int cause = errno; // a short write's own error: the file saw part of it succeed
    if (opened && written == bytes.size() && file.commit())
        return true;
    // Not committed: the temporary file goes with the QSaveFile, the old file stays.
    if (error) {
        *error = !opened || written == bytes.size() ? file.errorString()
                                                    : QStringLiteral("wrote %1 of %2 bytes: %3")
                                                          .arg(std::max<qint64>(written, 0))
                                                          .arg(bytes.size())
                                                          .arg(qt_error_string(cause));
    }
    return false;
}
