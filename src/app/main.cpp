// SPDX-License-Identifier: GPL-3.0-or-later
// Corvel's entry point.
#include "BuildConfig.h"
#include "Log.h"
#include "Settings.h"

#include <QCommandLineParser>
#include <QCoreApplication>

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("Corvel"));
    QCoreApplication::setOrganizationName(QStringLiteral("Corvel"));
    QCoreApplication::setApplicationVersion(QStringLiteral(CORVEL_VERSION));

    QCommandLineParser parser;
    parser.setApplicationDescription(
        QStringLiteral("Play this computer's audio on Sonos speakers"));
    parser.addHelpOption();
    parser.addVersionOption();
    parser.process(app);

    Logging::setDefaultLevel(LogLevel::Verbose);
    Logging::attach(&Log::shared());
    logInfo(QStringLiteral("Corvel %1 starting").arg(QCoreApplication::applicationVersion()));

    const Settings &settings = Settings::shared();
    logInfo(QStringLiteral("%1 known speakers").arg(settings.devices.size()));
    return 0;
}
