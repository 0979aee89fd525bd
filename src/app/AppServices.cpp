// SPDX-License-Identifier: GPL-3.0-or-later
#include "AppServices.h"

#include "AirConnect.h"
#include "DeviceDiscovery.h"
#include "Settings.h"

#include <QDir>
#include <QtCore/qglobal.h>

AppServices AppServices::real()
{
    AppServices services;
    services.searchForDevices = [](std::optional<double> t) {
        DeviceDiscovery::shared().searchForDevices(t);
    };
    services.stopSearching = [] {
        DeviceDiscovery::shared().stopSearching();
    };
    services.searchRunning = [] {
        return DeviceDiscovery::shared().session() != nullptr;
    };
    services.bridgeRunning = [] {
        return AirConnect::shared().running();
    };
    services.startBridge = [](const std::vector<DeviceSettings> &records,
                              const BridgeOptions &options) {
        AirConnect::shared().start(records, options);
    };
    services.stopBridge = [] {
        AirConnect::shared().stop();
    };
    services.restartBridge = [](const std::vector<DeviceSettings> &records,
                                const BridgeOptions &options) {
        AirConnect::shared().restart(records, options);
    };
    services.bridgeConfigDiffers = [](const std::vector<DeviceSettings> &records,
                                      const BridgeOptions &options) {
        return AirConnect::shared().configDiffers(records, options);
    };
    services.localAddresses = &BridgeNetwork::localAddresses;
    services.bridgeOutput = [] {
        return AirConnect::shared().recentOutput();
    };
    services.bridgeSpeakers = [] {
        return AirConnect::shared().speakerOutput().speakers();
    };
    services.watch = [](bool on) {
        if (on)
            DeviceDiscovery::shared().startWatching();
        else
            DeviceDiscovery::shared().stopWatching();
    };
    services.shutdownBridge = [] {
        AirConnect::shared().shutdown();
    };
    services.locateBridge = [] {
        return findBridgeExecutable();
    };
    services.settings = []() -> Settings & {
        return Settings::shared();
    };
    return services;
}
