// SPDX-License-Identifier: GPL-3.0-or-later
// Managing speakers from the command line, for headless machines: the same settings rules
// and log lines as the preferences window's rows.
#pragma once

#include <initializer_list>
#include <optional>
#include <QString>
#include <QUrl>

class Settings;

namespace SpeakerCommands {
// Longer arguments are refused before any work, with *error saying so.
constexpr qsizetype maxArgumentCharacters = 4096;
bool refusedAsTooLong(std::initializer_list<QString> arguments, QString *error);
// 0 when the settings were saved; else 3, with *error saying why they were not.
int savedOrSaid(const Settings &settings, QString *error);
// One line per known speaker: found in the last search or not, enabled or not, name, location.
QString formatList(const Settings &settings);
// The record named by its location text or, failing that, by its exact name. *error says why
// nothing was found (or the name is ambiguous).
std::optional<QUrl> findSpeaker(const Settings &settings, const QString &locationOrName,
                                QString *error);
// --enable / --disable / --rename: returns the process exit code (1: no such speaker, 2: a
// refused argument, 3: done but not saved), writing errors to *error.
int setEnabled(Settings &settings, const QString &locationOrName, bool enabled, QString *error);
int rename(Settings &settings, const QString &location, const QString &newName, QString *error);
} // namespace SpeakerCommands
