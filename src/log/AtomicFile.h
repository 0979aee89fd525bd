// SPDX-License-Identifier: GPL-3.0-or-later
// Writing a whole file atomically. It lives in the lowest library, since every module that
// writes a file (settings aside, which QSettings writes) links it.
#pragma once

#include <QByteArray>
#include <QString>

// Writes bytes to path through a temporary file that then replaces it, so a failure leaves
// any existing file unchanged. On failure returns false with the reason in *error.
bool writeFileAtomically(const QString &path, const QByteArray &bytes, QString *error);
