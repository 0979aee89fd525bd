// SPDX-License-Identifier: GPL-3.0-or-later
// A stand-in for a Corvel session that saves over and over: it loads the user's settings,
// reports what it found, then renames and switches one speaker COUNT times (each a save).
//   corvel-settings-writer COUNT
// Prints "loaded NAME ENABLED" (or "missing") after loading, then "saved N" after each save.
#include "Logging.h"
#include "Settings.h"

#include <cstdio>
#include <QCoreApplication>

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationVersion(QStringLiteral("1.0.0"));
    const int count = argc > 1 ? QByteArray(argv[1]).toInt() : 200;
    const QUrl location(QStringLiteral("http://192.0.2.20:1400/xml/device_description.xml"));
    auto settings = Settings::load(std::make_unique<UserSettingsStorage>());
    const auto known = settings->devices.find(location);
    if (known == settings->devices.end()) {
        std::printf("missing\n");
        DeviceInfo info;
        info.location = location;
        info.roomName = QStringLiteral("Study");
        settings->mergeDiscoveredSpeaker(info, DeviceTopology{true, QStringLiteral("G")});
        settings->save();
    } else {
        std::printf("loaded %s %d\n", qPrintable(known->second.name), int(known->second.enabled));
    }
    std::fflush(stdout);
    for (int i = 0; i < count; ++i) {
        if (i % 2 == 0)
            settings->renameDevice(location, QStringLiteral("Speaker %1").arg(i));
        else
            settings->setDeviceEnabled(location, i % 4 == 1);
        std::printf("saved %d\n", i);
        std::fflush(stdout);
    }
    return 0;
}
