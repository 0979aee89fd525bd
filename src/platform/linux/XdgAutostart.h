// SPDX-License-Identifier: GPL-3.0-or-later
// Start at login through XDG autostart: an entry named after the launcher identifier in
// $XDG_CONFIG_HOME/autostart.
#pragma once

#include "Autostart.h"

class XdgAutostart : public Autostart
{
public:
    // $XDG_CONFIG_HOME/autostart/org.corvel.CorvelHelper.desktop
    static QString entryPath();
    // The entry for the program at executable.
    static QByteArray desktopEntry(const QString &executable);

    // Whether the entry exists and is not marked Hidden=true; an unreadable folder reads as
    // false.
    bool enabled() const override;
    // Writes the entry (for the running program) or removes it, and logs the outcome.
    bool setEnabled(bool enabled, QString *error) override;
};
