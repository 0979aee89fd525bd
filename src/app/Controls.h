// SPDX-License-Identifier: GPL-3.0-or-later
// What the windows may ask of the controller: the speaker records, whether a search or the
// bridge runs, the start and stop commands, the bridge's setup and quitting.
#pragma once

#include <QStringList>

class Settings;

class Controls
{
public:
    virtual ~Controls() = default;
    virtual Settings &settings() = 0;
    virtual bool searchRunning() const = 0;
    virtual bool bridgeRunning() const = 0;
    // The user has turned the bridge off.
    virtual bool stoppedByUser() const = 0;
    // Starts a search on the user's behalf (clears stoppedByUser).
    virtual void startSearching() = 0;
    virtual void stopBridge() = 0;
    // No bridge executable was found; setUpBridge() shows the bridge setup.
    virtual bool bridgeMissing() const = 0;
    virtual void setUpBridge() = 0;
    // Where the missing bridge was looked for.
    virtual QStringList bridgeLookedIn() const = 0;
    // A bridge was installed through the setup: search, then start it.
    virtual void bridgeInstalled() = 0;
    // There is no tray: the preferences window is Corvel's only face, and closing it quits.
    virtual bool noTray() const = 0;
    virtual void quit() = 0;
    // Where Corvel stands, as the tray's title says it ("Corvel: Running"), translated.
    virtual QString statusTitle() const = 0;
    // The windows the tray menu opens; without a tray the preferences window offers them.
    virtual void showAbout() = 0;
    virtual void showFeedback() = 0;
};
