// SPDX-License-Identifier: GPL-3.0-or-later
#include "SettingsStorage.h"

#include <QDateTime>
#include <QFile>
#include <QSettings>

namespace {
const QString settingsKey = QStringLiteral("settings");
}

std::optional<QString> UserSettingsStorage::read()
{
    QSettings store(QStringLiteral("Corvel"), QStringLiteral("Corvel"));
    const QVariant value = store.value(settingsKey);
    if (!value.isValid()) {
        // A file that holds something, but no document QSettings can find (binary garbage, a
        // truncated write): its bytes are the stored text, so that it is kept aside like any
        // unreadable document instead of being overwritten.
        QFile file(store.fileName());
        if (file.open(QIODevice::ReadOnly) && file.size() > 0)
            return QString::fromUtf8(file.read(1 << 20));
        return std::nullopt;
    }
    if (value.typeId() == QMetaType::QStringList) {
        // Unquoted text with commas (a hand edit) reads back as a list: the line as written
        // is the document.
        QFile file(store.fileName());
        if (file.open(QIODevice::ReadOnly)) {
            for (const QByteArray &line : file.readAll().split('\n')) {
                if (line.startsWith(settingsKey.toUtf8() + '='))
                    return QString::fromUtf8(line.mid(settingsKey.size() + 1).trimmed());
            }
        }
    }
    return value.toString();
}

std::optional<QString> UserSettingsStorage::keepCopy()
{
    const QString path = QSettings(QStringLiteral("Corvel"), QStringLiteral("Corvel")).fileName();
    const QString copy =
        path + QStringLiteral(".unreadable-") +
        QDateTime::currentDateTimeUtc().toString(QStringLiteral("yyyyMMdd'T'HHmmss'Z'"));
    if (!QFile::copy(path, copy))
        return std::nullopt;
    return copy;
}

bool UserSettingsStorage::write(const QString &text, QString *error)
{
    // QSettings replaces its file atomically; syncing now means a save that returned
    // is on disk, and a failure can be reported while the session still holds the data.
    QSettings store(QStringLiteral("Corvel"), QStringLiteral("Corvel"));
    store.setValue(settingsKey, text);
    store.sync();
    if (store.status() != QSettings::NoError) {
        if (error)
            *error = store.status() == QSettings::AccessError
                         ? QStringLiteral("cannot write %1").arg(store.fileName())
                         : QStringLiteral("bad format in %1").arg(store.fileName());
        return false;
    }
    return true;
}
