// SPDX-License-Identifier: GPL-3.0-or-later
#include "SettingsStorage.h"

#include <QSettings>

namespace {
const QString settingsKey = QStringLiteral("settings");
}

std::optional<QString> UserSettingsStorage::read()
{
    QSettings store(QStringLiteral("Corvel"), QStringLiteral("Corvel"));
    const QVariant value = store.value(settingsKey);
    if (!value.isValid())
        return std::nullopt;
    return value.toString();
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
