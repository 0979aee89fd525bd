// SPDX-License-Identifier: GPL-3.0-or-later
// Start at login through XDG autostart: an entry named after the launcher identifier in
// $XDG_CONFIG_HOME/autostart.
#pragma once

#include <QString>

namespace LaunchOnLogin {
// The entry's identifier; its file name is this plus ".desktop".
inline const QString helperIdentifier = QStringLiteral("org.corvel.CorvelHelper");

// $XDG_CONFIG_HOME/autostart/org.corvel.CorvelHelper.desktop
QString entryPath();
// The entry for the program at executable.
QByteArray desktopEntry(const QString &executable);

// Whether the entry exists and is not marked Hidden=true; an unreadable folder reads as false.
bool launchOnLoginEnabled();
// Writes the entry (for the running program) or removes it, and logs the outcome.
void setLaunchOnLogin(bool enabled);
} // namespace LaunchOnLogin
