// SPDX-License-Identifier: GPL-3.0-or-later
#include "BridgeNetwork.h"

#include <map>
#include <QNetworkInterface>

namespace BridgeNetwork {

QList<Address> localAddresses()
{
    QList<Address> addresses;
    const auto up = QNetworkInterface::IsUp | QNetworkInterface::IsRunning;
    for (const QNetworkInterface &interface : QNetworkInterface::allInterfaces()) {
        if ((interface.flags() & up) != up)
            continue;
        for (const QNetworkAddressEntry &entry : interface.addressEntries()) {
            if (entry.ip().protocol() != QAbstractSocket::IPv4Protocol)
                continue;
            addresses.append({interface.name(), entry.ip(), entry.prefixLength(),
                              interface.flags().testFlag(QNetworkInterface::IsLoopBack)});
        }
    }
    return addresses;
}

QString interfaceFor(const std::vector<DeviceSettings> &records, const QList<Address> &addresses)
{
    std::map<int, int> speakersAt; // by index of the interface's first address
    for (const DeviceSettings &record : records) {
        if (!record.offeredToBridge())
            continue;
        const QHostAddress speaker(record.info.location.host());
        for (int i = 0; i < addresses.size(); ++i) {
            const Address &local = addresses[i];
            if (!local.loopback && speaker.isInSubnet(local.ip, local.prefixLength)) {
                ++speakersAt[i];
                break;
            }
        }
    }
    int best = -1;
    for (const auto &[index, count] : speakersAt) {
        if (best < 0 || count > speakersAt[best])
            best = index;
    }
    return best < 0 ? QString() : addresses[best].interfaceName;
}

bool hasAddress(const QString &interfaceName, const QList<Address> &addresses)
{
    for (const Address &address : addresses) {
        if (address.interfaceName == interfaceName)
            return true;
    }
    return false;
}

} // namespace BridgeNetwork
