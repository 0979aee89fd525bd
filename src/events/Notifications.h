// SPDX-License-Identifier: GPL-3.0-or-later
// The names of Corvel's in-process events and the keys of their payload.
#pragma once

#include <QString>

namespace Notifications {
inline const QString discoveryStarted = QStringLiteral("discoveryStarted");
inline const QString deviceDiscovered = QStringLiteral("deviceDiscovered");
// A known player left the network (said goodbye, or was not heard from for its max-age).
inline const QString deviceDeparted = QStringLiteral("deviceDeparted");
inline const QString discoveryComplete = QStringLiteral("discoveryComplete");
inline const QString serviceStarted = QStringLiteral("serviceStarted");
inline const QString serviceReady = QStringLiteral("serviceReady");
inline const QString serviceTerminated = QStringLiteral("serviceTerminated");
// The bridge executable was not found; its payload lists the places looked in.
inline const QString bridgeMissing = QStringLiteral("bridgeMissing");
inline const QString appStopped = QStringLiteral("appStopped");
inline const QString deviceSettingsChanged = QStringLiteral("deviceSettingsChanged");
// The running bridge said something new of a speaker (offered, playing, grouped, gone).
inline const QString bridgeSpeakersChanged = QStringLiteral("bridgeSpeakersChanged");
// The bridge reported a fault; the payload says it in one sentence for the user.
inline const QString bridgeProblem = QStringLiteral("bridgeProblem");
// The controller brought the speakers' states in line with the bridge's.
inline const QString speakerStatesChanged = QStringLiteral("speakerStatesChanged");
// Where Corvel stands changed (the tray's title): for the window that shows it without a tray.
inline const QString appStateChanged = QStringLiteral("appStateChanged");
} // namespace Notifications

// Keys of the "deviceDiscovered", "deviceDeparted" and bridge payloads.
namespace UserInfoKey {
inline const QString location = QStringLiteral("location"); // QUrl, of "deviceDeparted"
// quint64, of "serviceStarted", "serviceReady" and "serviceTerminated": which launch it was.
inline const QString launch = QStringLiteral("launch");
inline const QString lookedIn = QStringLiteral("lookedIn"); // QStringList, of "bridgeMissing"
// bool, of "serviceTerminated": the bridge could not start for want of a network address.
inline const QString cannotStart = QStringLiteral("cannotStart");
// bool, of "serviceTerminated": Corvel stopped the bridge, not ready in time
inline const QString notReady = QStringLiteral("notReady");
inline const QString response = QStringLiteral("response");
// QString and int, of "bridgeProblem": the sentence for the user, and BridgeProblem::Kind.
inline const QString problem = QStringLiteral("problem");
inline const QString problemKind = QStringLiteral("problemKind");
inline const QString deviceInfo = QStringLiteral("deviceInfo");
inline const QString deviceTopology = QStringLiteral("deviceTopology");
} // namespace UserInfoKey
