// SPDX-License-Identifier: GPL-3.0-or-later
// The controller as the windows see it: records in memory, calls counted.
#pragma once

#include "Controls.h"
#include "Settings.h"
#include "TestSpeakers.h"

struct FakeControls : Controls
{
    std::unique_ptr<Settings> document = Settings::load(std::make_unique<MemorySettingsStorage>());
    bool bridge = false, searching = false, stopped = false;
    int searches = 0, bridgeStops = 0;

    Settings &settings() override { return *document; }
    bool searchRunning() const override { return searching; }
    bool bridgeRunning() const override { return bridge; }
    bool stoppedByUser() const override { return stopped; }
    bool bridgeMissing() const override { return missing; }
    void setUpBridge() override { ++setups; }
    QStringList bridgeLookedIn() const override { return {QStringLiteral("/opt/x")}; }
    void bridgeInstalled() override { ++installs; }
    bool noTray() const override { return withoutTray; }
    void quit() override { ++quits; }
    QString statusTitle() const override { return status; }
    void showAbout() override { shown << QStringLiteral("about"); }
    void showFeedback() override { shown << QStringLiteral("feedback"); }
    QString status = QStringLiteral("Corvel: Off");
    QStringList shown;
    bool missing = false, withoutTray = false;
    int setups = 0, installs = 0, quits = 0;
    void startSearching() override
    {
        stopped = false;
        searching = true;
        ++searches;
    }
    void stopBridge() override
    {
        bridge = false;
        ++bridgeStops;
    }
    void add(int n, bool coordinator = true, bool active = true, const QString &room = {})
    {
        DeviceInfo info = speaker(n);
        if (!room.isEmpty())
            info.roomName = room;
        document->mergeDiscoveredSpeaker(info, DeviceTopology{coordinator, QStringLiteral("G")});
        document->devices.at(location(n)).active = active;
    }
};
