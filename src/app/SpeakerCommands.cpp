// SPDX-License-Identifier: GPL-3.0-or-later
#include "SpeakerCommands.h"

#include "JsonReader.h"
#include "NotificationCenter.h"
#include "Notifications.h"
#include "Settings.h"

#include <QCoreApplication>

QString SpeakerCommands::formatList(const Settings &settings)
{
    if (settings.devices.empty())
        return QStringLiteral("No speakers known yet.\n");
    QString text;
    const auto all = [](const DeviceMap::value_type &) {
        return true;
    };
    for (const DeviceMap::value_type *entry : displayOrder(settings.devices, all)) {
        const auto &[location, record] = *entry;
        // The state column is what the running Corvel knows of the bridge.
        const QString state = speakerStateText(record, settings.devices);
        // Quoted as a shell would read it back: a quote or backslash in a name is escaped.
        QString name = record.name;
        name.replace(QLatin1Char('\\'), QStringLiteral("\\\\"))
            .replace(QLatin1Char('"'), QStringLiteral("\\\""));
        text +=
            QStringLiteral("%1  %2  %3\n    %4\n")
                .arg(record.enabled ? QStringLiteral("enabled ") : QStringLiteral("disabled"),
                     QLatin1Char('"') + name + QLatin1Char('"'),
                     state.isEmpty() ? QStringLiteral("found") : state, absoluteString(location));
    }
    return text;
}

std::optional<QUrl> SpeakerCommands::findSpeaker(const Settings &settings,
                                                 const QString &locationOrName, QString *error)
{
    // A location matches however it is spelled (percent-encoded or not).
    const QUrl asLocation(locationOrName);
    for (const auto &entry : settings.devices) {
        if (entry.first.url == asLocation)
            return entry.first.url;
    }
    std::optional<QUrl> found;
    for (const auto &[location, record] : settings.devices) {
        if (record.name != locationOrName)
            continue;
        if (found) {
            *error = QCoreApplication::translate(
                         "SpeakerCommands",
                         "More than one speaker is named \"%1\"; give its location instead.")
                         .arg(excerpt(locationOrName));
            return std::nullopt;
        }
        found = location;
    }
    if (!found)
        *error = QCoreApplication::translate(
                     "SpeakerCommands",
                     "No known speaker has the location or name \"%1\" (see corvel --list).")
                     .arg(excerpt(locationOrName));
    return found;
}

int SpeakerCommands::savedOrSaid(const Settings &settings, QString *error)
{
    // A change that lives only in memory is no success for whoever asked for it.
    if (!settings.saveError())
        return 0;
    *error = QCoreApplication::translate("SpeakerCommands",
                                         "The change is in effect but could not be saved: %1")
                 .arg(excerpt(*settings.saveError(), 200));
    return 3;
}

bool SpeakerCommands::refusedAsTooLong(std::initializer_list<QString> arguments, QString *error)
{
    // Arguments come over the session bus too, from any program: refused before any work.
    for (const QString &argument : arguments) {
        if (argument.size() > maxArgumentCharacters) {
            *error = QCoreApplication::translate("SpeakerCommands",
                                                 "An argument of over %1 characters is refused.")
                         .arg(maxArgumentCharacters);
            return true;
        }
    }
    return false;
}

int SpeakerCommands::setEnabled(Settings &settings, const QString &locationOrName, bool enabled,
                                QString *error)
{
    if (refusedAsTooLong({locationOrName}, error))
        return 2;
    const auto location = findSpeaker(settings, locationOrName, error);
    if (!location)
        return 1;
    if (settings.setDeviceEnabled(*location, enabled))
        NotificationCenter::defaultCenter().post(Notifications::deviceSettingsChanged);
    return savedOrSaid(settings, error);
}

int SpeakerCommands::rename(Settings &settings, const QString &locationOrName,
                            const QString &newName, QString *error)
{
    if (refusedAsTooLong({locationOrName, newName}, error))
        return 2;
    const auto location = findSpeaker(settings, locationOrName, error);
    if (!location)
        return 1;
    if (const auto problem = speakerNameProblem(newName)) {
        *error = problem->shown;
        return 2;
    }
    if (settings.renameDevice(*location, newName))
        NotificationCenter::defaultCenter().post(Notifications::deviceSettingsChanged);
    return savedOrSaid(settings, error);
}
