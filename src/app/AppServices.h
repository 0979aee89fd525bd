// SPDX-License-Identifier: GPL-3.0-or-later
// What the controller and the preferences window need of discovery, the bridge and the
// settings: the real services by default, fakes in tests.
#pragma once

#include "BridgeLocator.h"
#include "BridgeNetwork.h"
#include "BridgeOutput.h"
#include "ConfigWriter.h"
#include "DeviceSettings.h"

#include <functional>
#include <optional>
#include <QStringList>
#include <vector>

class Settings;

struct AppServices
{
    std::function<void(std::optional<double>)> searchForDevices;
    std::function<void()> stopSearching;
    // Whether a search is running (discovery has a session).
    std::function<bool()> searchRunning;
    // Whether the bridge supervisor has a process.
    std::function<bool()> bridgeRunning;
    using BridgeStart =
        std::function<void(const std::vector<DeviceSettings> &, const BridgeOptions &)>;
    BridgeStart startBridge;
    std::function<void()> stopBridge;
    // Stops the bridge and starts it with records; its exit is not announced.
    BridgeStart restartBridge;
    // Whether records and options would start the bridge otherwise than the running one.
    std::function<bool(const std::vector<DeviceSettings> &, const BridgeOptions &)>
        bridgeConfigDiffers;
    // The machine's IPv4 addresses, for the interface the bridge serves.
    std::function<QList<BridgeNetwork::Address>()> localAddresses;
    // The bridge's last output lines.
    std::function<QStringList()> bridgeOutput;
    // What the running bridge said of each speaker, by the name it used.
    std::function<std::map<QString, BridgeSpeakerState>()> bridgeSpeakers;
    // Starts or stops watching for speakers between searches.
    std::function<void(bool)> watch;
    // Stops the bridge and waits a bounded time for it to exit (at quit).
    std::function<void()> shutdownBridge;
    std::function<Settings &()> settings;
    // Where the bridge is on this computer (with every place looked in); unset: not checked.
    std::function<BridgeLocation()> locateBridge;

    // Discovery, the bridge supervisor and the settings of this process.
    static AppServices real();
};
