// SPDX-License-Identifier: GPL-3.0-or-later
#include "BridgeLocator.h"

#include <algorithm>
#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>
#include <QProcess>
#include <QSaveFile>
#include <QTemporaryDir>
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
    uname(&name); // fails only for a bad pointer
    return bridgeArchitecture(QString::fromLocal8Bit(name.machine));
}

BridgeLocation findBridgeExecutable(const QString &bridgeOverride, const QString &appDir,
                                    const QString &pathVariable, const QString &arch,
                                    const QString &userDir)
{
    BridgeLocation location;
    const auto tryPath = [&location](const QString &path) {
        // A folder named twice (on the PATH, say) is looked in once.
        if (location.lookedIn.contains(path))
            return false;
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
    QStringList bundled = {appDir, QDir::cleanPath(appDir + QStringLiteral("/../libexec/corvel"))};
    if (!userDir.isEmpty())
        bundled << userDir;
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
    return findBridgeExecutable(
        qEnvironmentVariable("CORVEL_BRIDGE"), QCoreApplication::applicationDirPath(),
        qEnvironmentVariable("PATH"), currentBridgeArchitecture(), userBridgeDirectory());
}

QString bridgeNotFoundMessage(const BridgeLocation &location, const QString &arch)
{
    return QStringLiteral("The AirConnect bridge was not found. Looked in: %1. "
                          "To install it, download airupnp-linux-%2 (or airupnp-linux-%2-static "
                          "when libssl is missing) from the AirConnect releases, make it "
                          "executable and put it in %3 (Install Bridge… in the tray menu does "
                          "that), or set CORVEL_BRIDGE to its absolute path.")
        .arg(location.lookedIn.join(QStringLiteral(", ")), arch, userBridgeDirectory());
}

QString userBridgeDirectory()
{
    return QDir::homePath() + QStringLiteral("/.local/lib/corvel");
}

QString bridgeFileName(const QString &arch)
{
    return QStringLiteral("airupnp-linux-") + arch;
}

bool isBridgeForArchitecture(const QString &path, const QString &arch, UserText *error)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        *error = UserText::make("BridgeLocator",
                                QT_TRANSLATE_NOOP("BridgeLocator", "Cannot read %1: %2"), path,
                                file.errorString());
        return false;
    }
    // The ELF identification and header fields up to e_machine.
    const QByteArray head = file.read(20);
    if (head.startsWith("PK\x03\x04")) {
        *error = UserText::make(
            "BridgeLocator",
            QT_TRANSLATE_NOOP("BridgeLocator",
                              "%1 is the release's zip file: open it and choose %2 from inside."),
            QFileInfo(path).fileName(), bridgeFileName(arch));
        return false;
    }
    if (head.startsWith("#!")) {
        *error = UserText::make(
            "BridgeLocator",
            QT_TRANSLATE_NOOP("BridgeLocator",
                              "%1 is a script, not the bridge: choose %2 from AirConnect's "
                              "release."),
            QFileInfo(path).fileName(), bridgeFileName(arch));
        return false;
    }
    if (head.size() < 20 || !head.startsWith("\x7f"
                                             "ELF")) {
        *error = UserText::make("BridgeLocator",
                                QT_TRANSLATE_NOOP("BridgeLocator", "%1 is not a Linux program."),
                                QFileInfo(path).fileName());
        return false;
    }
    struct Expected
    {
        const char *arch;
        char elfClass; // 1: 32-bit, 2: 64-bit
        quint16 machine;
    };
    static constexpr Expected expected[] = {{"x86_64", 2, 62}, {"aarch64", 2, 183},
                                            {"arm", 1, 40},    {"armv6", 1, 40},
                                            {"x86", 1, 3},     {"riscv64", 2, 243}};
    const auto mine =
        std::find_if(std::begin(expected), std::end(expected),
                     [&arch](const Expected &e) { return arch == QLatin1String(e.arch); });
    const bool littleEndian = head[5] == 1;
    const quint16 machine = littleEndian ? quint16(quint8(head[18]) | quint8(head[19]) << 8)
                                         : quint16(quint8(head[18]) << 8 | quint8(head[19]));
    if (mine != std::end(expected) && (head[4] != mine->elfClass || machine != mine->machine)) {
        *error = UserText::make(
            "BridgeLocator",
            QT_TRANSLATE_NOOP("BridgeLocator",
                              "%1 is built for another kind of computer; this one needs %2."),
            QFileInfo(path).fileName(), bridgeFileName(arch));
        return false;
    }
    return true;
}

bool answersAsBridge(const QString &path, UserText *error)
{
    // The bridge prints its usage for an option it does not take and exits; it reads
    // ./config.xml first, so it runs in an empty folder.
    QTemporaryDir folder;
    QProcess process;
    process.setWorkingDirectory(folder.path());
    process.setProcessChannelMode(QProcess::MergedChannels);
    process.start(path, {QStringLiteral("-h")});
    process.waitForFinished(bridgeHelpTimeoutMs); // one that does not end is killed as it goes
    if (process.read(64 * 1024).contains("-x <config file>"))
        return true;
    *error = UserText::make(
        "BridgeLocator",
        QT_TRANSLATE_NOOP("BridgeLocator",
                          "%1 is not the AirConnect bridge: asked for its options, it does not "
                          "answer as the bridge does."),
        QFileInfo(path).fileName());
    return false;
}

QString installBridge(const QString &source, const QString &dir, const QString &arch,
                      UserText *error)
{
    static const char *const cannotCopy =
        QT_TRANSLATE_NOOP("BridgeLocator", "Cannot copy the bridge to %1: %2");
    if (!isBridgeForArchitecture(source, arch, error) || !answersAsBridge(source, error))
        return QString();
    QFile in(source);
    const QString target = dir + QLatin1Char('/') + bridgeFileName(arch);
    QSaveFile out(target);
    QDir().mkpath(dir); // a folder that cannot be made fails the open below, which says why
    if (!in.open(QIODevice::ReadOnly) || !out.open(QIODevice::WriteOnly)) {
        *error = UserText::make("BridgeLocator", cannotCopy, dir,
                                in.isOpen() ? out.errorString() : in.errorString());
        return QString();
    }
    // Bridges are a few MB: copied in one go.
    if (out.write(in.readAll()) < 0 || !out.commit()) {
        *error = UserText::make("BridgeLocator", cannotCopy, dir, out.errorString());
        return QString();
    }
    QFile::setPermissions(target, QFileDevice::ReadOwner | QFileDevice::WriteOwner |
                                      QFileDevice::ExeOwner | QFileDevice::ReadGroup |
                                      QFileDevice::ExeGroup | QFileDevice::ReadOther |
                                      QFileDevice::ExeOther);
    return target;
}
