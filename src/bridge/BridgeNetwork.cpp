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
    std::map<QString, int> speakersOn;
    for (const DeviceSettings &record : records) {
        if (!record.offeredToBridge())
            continue;
        const QHostAddress speaker(record.info.location.host());
        for (const Address &local : addresses) {
            if (!local.loopback && speaker.isInSubnet(local.ip, local.prefixLength)) {
                ++speakersOn[local.interfaceName];
                break;
            }
        }
    }
    // In the system's order, so that a tie goes to the interface listed first.
    QString best;
    int most = 0;
    for (const Address &local : addresses) {
        const auto found = speakersOn.find(local.interfaceName);
        if (found != speakersOn.end() && found->second > most) {
            best = found->first;
            most = found->second;
        }
    }
    return best;
}

} // namespace BridgeNetwork
