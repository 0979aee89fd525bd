// SPDX-License-Identifier: GPL-3.0-or-later
// The names of Corvel's in-process events and the keys of their payload.
#pragma once

#include <QString>

namespace Notifications {
inline const QString discoveryStarted = QStringLiteral("discoveryStarted");
inline const QString deviceDiscovered = QStringLiteral("deviceDiscovered");
inline const QString discoveryComplete = QStringLiteral("discoveryComplete");
inline const QString serviceStarted = QStringLiteral("serviceStarted");
inline const QString serviceReady = QStringLiteral("serviceReady");
inline const QString serviceTerminated = QStringLiteral("serviceTerminated");
inline const QString appStopped = QStringLiteral("appStopped");
inline const QString deviceSettingsChanged = QStringLiteral("deviceSettingsChanged");
} // namespace Notifications

// Keys of the "deviceDiscovered" payload.
namespace UserInfoKey {
inline const QString response = QStringLiteral("response");
inline const QString deviceInfo = QStringLiteral("deviceInfo");
inline const QString deviceTopology = QStringLiteral("deviceTopology");
} // namespace UserInfoKey
