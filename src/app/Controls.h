// SPDX-License-Identifier: GPL-3.0-or-later
// What the preferences window may ask of the controller: the speaker records, whether a
// search or the bridge runs, and the start and stop commands.
#pragma once

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
};
