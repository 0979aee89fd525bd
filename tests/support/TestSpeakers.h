// SPDX-License-Identifier: GPL-3.0-or-later
// A speaker as discovery reports it, for the suites above the records: player n answers at
// 127.0.1.n and is called "Room n - One".
#pragma once

#include "DeviceInfo.h"

inline QUrl location(int n)
{
    return QUrl(QStringLiteral("http://127.0.1.%1:1400/xml/device_description.xml").arg(n));
}

inline DeviceInfo speaker(int n)
{
    DeviceInfo info;
    info.location = location(n);
    info.roomName = QStringLiteral("Room %1").arg(n);
    info.displayName = QStringLiteral("One");
    return info;
}
