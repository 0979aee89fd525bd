// SPDX-License-Identifier: GPL-3.0-or-later
#include "BridgeLocator.h"

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>
#include <sys/utsname.h>

namespace {
bool isExecutableFile(const QString &path)
{
    const QFileInfo info(path);
    return info.isFile() && info.isExecutable();
}
} // namespace

QString bridgeArchitecture(const QString &machine)
{
    if (machine == QLatin1String("armv7l") || machine == QLatin1String("armhf"))
        return QStringLiteral("arm");
    if (machine == QLatin1String("armv6l"))
        return QStringLiteral("armv6");
    if (machine == QLatin1String("i686") || machine == QLatin1String("i586") ||
        machine == QLatin1String("i386"))
        return QStringLiteral("x86");
    if (machine == QLatin1String("arm64"))
        return QStringLiteral("aarch64");
    return machine;
}

QString currentBridgeArchitecture()
{
    struct utsname name
    {
    };
    if (uname(&name) != 0)
        return QStringLiteral("x86_64");
    return bridgeArchitecture(QString::fromLocal8Bit(name.machine));
}

BridgeLocation findBridgeExecutable(const QString &bridgeOverride, const QString &appDir,
                                    const QString &pathVariable, const QString &arch)
{
    BridgeLocation location;
    const auto tryPath = [&location](const QString &path) {
        location.lookedIn << path;
        if (isExecutableFile(path))
            location.path = QFileInfo(path).absoluteFilePath();
        return !location.path.isEmpty();
    };

    if (!bridgeOverride.isEmpty()) {
        if (QDir::isAbsolutePath(bridgeOverride) && tryPath(bridgeOverride))
            return location;
        if (!QDir::isAbsolutePath(bridgeOverride))
            location.lookedIn << bridgeOverride +
                                     QStringLiteral(" (CORVEL_BRIDGE must be absolute)");
    }

    const QString name = QStringLiteral("airupnp-linux-") + arch;
    const QStringList names = {name, name + QStringLiteral("-static")};
    const QStringList bundled = {appDir,
                                 QDir::cleanPath(appDir + QStringLiteral("/../libexec/corvel"))};
    for (const QString &dir : bundled) {
        for (const QString &candidate : names) {
            if (tryPath(dir + QLatin1Char('/') + candidate))
                return location;
        }
    }
    const QStringList pathNames = names + QStringList{QStringLiteral("airupnp")};
    for (const QString &dir : pathVariable.split(QLatin1Char(':'), Qt::SkipEmptyParts)) {
        for (const QString &candidate : pathNames) {
            if (tryPath(dir + QLatin1Char('/') + candidate))
                return location;
        }
    }
    return location;
}

BridgeLocation findBridgeExecutable()
{
    return findBridgeExecutable(qEnvironmentVariable("CORVEL_BRIDGE"),
                                QCoreApplication::applicationDirPath(),
                                qEnvironmentVariable("PATH"), currentBridgeArchitecture());
}

QString bridgeNotFoundMessage(const BridgeLocation &location, const QString &arch)
{
    return QStringLiteral("The AirConnect bridge was not found. Looked in: %1. "
                          "To install it, download airupnp-linux-%2 (or airupnp-linux-%2-static "
                          "when libssl is missing) from the AirConnect releases, make it "
                          "executable and put it in /usr/local/bin or on your PATH, or set "
                          "CORVEL_BRIDGE to its absolute path.")
        .arg(location.lookedIn.join(QStringLiteral(", ")), arch);
}
