// SPDX-License-Identifier: GPL-3.0-or-later
// Finds the AirConnect bridge executable on this machine.
#pragma once

#include <QString>
#include <QStringList>

struct BridgeLocation
{
    QString path;         // empty when no bridge was found
    QStringList lookedIn; // every place tried, in order, for the error message
};

// AirConnect's name for a machine type as `uname -m` gives it (armv7l is "arm", i686 "x86").
QString bridgeArchitecture(const QString &machine);
// The machine type of this computer, mapped as above.
QString currentBridgeArchitecture();

// Looks, in order: at the CORVEL_BRIDGE value (an absolute path); in appDir and in
// appDir/../libexec/corvel for airupnp-linux-<arch> and then its -static build; then on
// the PATH value for those two names and plain "airupnp".
BridgeLocation findBridgeExecutable(const QString &bridgeOverride, const QString &appDir,
                                    const QString &pathVariable, const QString &arch);
// The same with this process's environment and executable folder.
BridgeLocation findBridgeExecutable();

// The user-facing text for a bridge that could not be found.
QString bridgeNotFoundMessage(const BridgeLocation &location, const QString &arch);
