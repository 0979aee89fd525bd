// SPDX-License-Identifier: GPL-3.0-or-later
#include "XdgAutostart.h"

#include "AtomicFile.h"
#include "BuildConfig.h"
#include "Logging.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QStandardPaths>

namespace {
const QString category = QStringLiteral("preferences");

// A desktop entry's string values escape a backslash as two.
QString escapedValue(const QString &text)
{
    return QString(text).replace(QLatin1Char('\\'), QStringLiteral("\\\\"));
}

// Desktop entries quote an Exec argument in double quotes, escaping " ` $ and \; the value's
// own escaping then doubles every backslash, as the format says.
QString quotedExec(const QString &path)
{
    QString escaped;
    for (const QChar c : path) {
        if (c == QLatin1Char('"') || c == QLatin1Char('`') || c == QLatin1Char('$') ||
            c == QLatin1Char('\\'))
            escaped += QLatin1Char('\\');
        escaped += c;
    }
    return escapedValue(QLatin1Char('"') + escaped + QLatin1Char('"'));
}
} // namespace

QString XdgAutostart::entryPath()
{
    return QStandardPaths::writableLocation(QStandardPaths::GenericConfigLocation) +
           QStringLiteral("/autostart/" CORVEL_HELPER_ID ".desktop");
}

QByteArray XdgAutostart::desktopEntry(const QString &executable)
{
    return QStringLiteral("[Desktop Entry]\n"
                          "Type=Application\n"
                          "Name=Corvel\n"
                          "Comment=Play this computer's audio on Sonos speakers\n"
                          "Exec=%1 --autostart\n"
                          "TryExec=%2\n"
                          "Icon=" CORVEL_APP_ID "\n"
                          "Terminal=false\n"
                          "X-GNOME-Autostart-enabled=true\n"
                          "X-KDE-autostart-after=panel\n"
                          "X-LXQt-Need-Tray=true\n")
        .arg(quotedExec(executable), escapedValue(executable))
        .toUtf8();
}

bool XdgAutostart::enabled() const
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

bool XdgAutostart::setEnabled(bool enabled, QString *error)
{
    const QString path = entryPath();
    QString reason;
    bool ok; // set on either branch
    if (enabled) {
        QDir().mkpath(QFileInfo(path).path());
        ok = writeFileAtomically(path, desktopEntry(QCoreApplication::applicationFilePath()),
                                 &reason);
    } else {
        ok = !QFile::exists(path) || QFile::remove(path);
        if (!ok)
            reason = QStringLiteral("cannot remove ") + path;
    }
    if (ok) {
        logInfo(category, (enabled ? QStringLiteral("Enabled") : QStringLiteral("Disabled")) +
                              QStringLiteral(" start at login"));
        return true;
    }
    logError(category, QStringLiteral("Failed to ") +
                           (enabled ? QStringLiteral("enable") : QStringLiteral("disable")) +
                           QStringLiteral(" start at login"));
    if (error)
        *error = reason;
    return false;
}
