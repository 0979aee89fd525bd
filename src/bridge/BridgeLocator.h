// SPDX-License-Identifier: GPL-3.0-or-later
// Finds the AirConnect bridge executable on this machine.
#pragma once

#include "UserText.h"

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

// Looks, in order: at the CORVEL_BRIDGE value (an absolute path); in appDir,
// appDir/../libexec/corvel and userDir for airupnp-linux-<arch> and then its -static build;
// then on the PATH value for those two names and plain "airupnp".
BridgeLocation findBridgeExecutable(const QString &bridgeOverride, const QString &appDir,
                                    const QString &pathVariable, const QString &arch,
                                    const QString &userDir = QString());
// The same with this process's environment and executable folder.
BridgeLocation findBridgeExecutable();

// The user-facing text for a bridge that could not be found, with every place looked in.
QString bridgeNotFoundMessage(const BridgeLocation &location, const QString &arch);

// Where the bridge setup puts a bridge the user downloaded: ~/.local/lib/corvel.
QString userBridgeDirectory();
// The file name AirConnect publishes for this architecture: airupnp-linux-<arch>.
QString bridgeFileName(const QString &arch);
// AirConnect's releases page, where the bridge is downloaded from.
inline const QString bridgeReleasesUrl =
    QStringLiteral("https://github.com/philippe44/AirConnect/releases");

// Checks that the file is a Linux program for arch (its ELF class and machine); the reason
// in *error when it is not.
bool isBridgeForArchitecture(const QString &path, const QString &arch, UserText *error);
// Asking a program for its options (-h) waits this long at most.
constexpr int bridgeHelpTimeoutMs = 3000;
// Whether the program answers -h with the bridge's usage (which names "-x <config file>");
// the reason in *error when it does not.
bool answersAsBridge(const QString &path, UserText *error);
// Checks the file (for this machine, and the bridge itself), then copies it to dir as
// bridgeFileName(arch), executable by its owner.
// Returns the installed path, or an empty string with *error.
QString installBridge(const QString &source, const QString &dir, const QString &arch,
                      UserText *error);
