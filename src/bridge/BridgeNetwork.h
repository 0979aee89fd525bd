// SPDX-License-Identifier: GPL-3.0-or-later
// The network the bridge serves: the interface on which the offered speakers are reachable
// directly. Without one, the bridge takes the first interface that is up, which on a desktop
// with Docker, libvirt or a VPN is often not the speakers' network.
#pragma once

#include "DeviceSettings.h"

#include <QHostAddress>
#include <QList>
#include <vector>

namespace BridgeNetwork {
// One IPv4 address of an interface that is up.
struct Address
{
    QString interfaceName;
    QHostAddress ip;
    int prefixLength = 32;
    bool loopback = false;
};

// The machine's IPv4 addresses on interfaces that are up and running, in the system's order.
QList<Address> localAddresses();

// The interface (by name: with an address the bridge would not follow an address change)
// whose subnet holds the most offered speakers; ties go to the one listed first. Empty when
// no speaker is on a directly attached non-loopback network.
QString interfaceFor(const std::vector<DeviceSettings> &records, const QList<Address> &addresses);
} // namespace BridgeNetwork
