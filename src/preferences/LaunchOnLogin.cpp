// SPDX-License-Identifier: GPL-3.0-or-later
#include "LaunchOnLogin.h"

#include "AtomicFile.h"
#include "Logging.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QStandardPaths>

namespace {
const QString category = QStringLiteral("preferences");

// Desktop entries quote an Exec argument in double quotes, escaping " ` $ and \.
QString quotedExec(const QString &path)
{
    QString escaped;
    for (const QChar c : path) {
        if (c == QLatin1Char('"') || c == QLatin1Char('`') || c == QLatin1Char('$') ||
            c == QLatin1Char('\\'))
            escaped += QLatin1Char('\\');
        escaped += c;
    }
    return QLatin1Char('"') + escaped + QLatin1Char('"');
}
} // namespace

QString LaunchOnLogin::entryPath()
{
    return QStandardPaths::writableLocation(QStandardPaths::GenericConfigLocation) +
           QStringLiteral("/autostart/") + helperIdentifier + QStringLiteral(".desktop");
}

QByteArray LaunchOnLogin::desktopEntry(const QString &executable)
{
    return QStringLiteral("[Desktop Entry]\n"
                          "Type=Application\n"
                          "Name=Corvel\n"
                          "Comment=Play this computer's audio on Sonos speakers\n"
                          "Exec=%1 --autostart\n"
                          "TryExec=%2\n"
                          "Icon=org.corvel.Corvel\n"
                          "Terminal=false\n"
                          "X-GNOME-Autostart-enabled=true\n"
                          "X-KDE-autostart-after=panel\n"
                          "X-LXQt-Need-Tray=true\n")
        .arg(quotedExec(executable), executable)
        .toUtf8();
}

bool LaunchOnLogin::launchOnLoginEnabled()
{
    // The file name is the label: compared exactly, so a name differing in case is not ours.
    const QString path = entryPath();
    const QString folder = QFileInfo(path).path();
    if (!QDir(folder).entryList(QDir::Files).contains(QFileInfo(path).fileName()))
        return false;
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return false;
    for (const QByteArray &line : file.readAll().split('\n')) {
        if (line.trimmed().replace(' ', "") == "Hidden=true")
            return false;
    }
    return true;
}

void LaunchOnLogin::setLaunchOnLogin(bool enabled)
{
    bool ok = false;
    const QString path = entryPath();
    if (enabled) {
        QDir().mkpath(QFileInfo(path).path());
        ok = writeFileAtomically(path, desktopEntry(QCoreApplication::applicationFilePath()),
                                 nullptr);
    } else {
        ok = !QFile::exists(path) || QFile::remove(path);
    }
    if (ok)
        logInfo(category, (enabled ? QStringLiteral("Enabled") : QStringLiteral("Disabled")) +
                              QStringLiteral(" start at login"));
    else
        logError(category, QStringLiteral("Failed to ") +
                               (enabled ? QStringLiteral("enable") : QStringLiteral("disable")) +
                               QStringLiteral(" start at login"));
}
