// SPDX-License-Identifier: GPL-3.0-or-later
// Field-by-field comparison of speaker records for tests; the program itself never compares them.
#pragma once

#include "DeviceInfo.h"

#include <cstring>
#include <QTest>

inline bool sameIcon(const DeviceInfo::Icon &a, const DeviceInfo::Icon &b)
{
    return a.id == b.id && a.mimetype == b.mimetype && a.width == b.width && a.height == b.height &&
           a.depth == b.depth && a.url == b.url;
}

// Compares every one of the 35 fields; float fields compare by bit pattern so that
// -0.0 and NaN are told apart.
inline bool sameInfo(const DeviceInfo &a, const DeviceInfo &b)
{
    const auto sameFloat = [](const std::optional<float> &x, const std::optional<float> &y) {
        if (x.has_value() != y.has_value())
            return false;
        return !x || std::memcmp(&*x, &*y, sizeof(float)) == 0;
    };
    if (a.iconList.size() != b.iconList.size())
        return false;
    for (size_t i = 0; i < a.iconList.size(); ++i) {
        if (!sameIcon(*a.iconList[i], *b.iconList[i]))
            return false;
    }
    return a.location == b.location && a.server == b.server && a.deviceType == b.deviceType &&
           a.friendlyName == b.friendlyName && a.manufacturer == b.manufacturer &&
           a.manufacturerURL == b.manufacturerURL && a.modelNumber == b.modelNumber &&
           a.modelDescription == b.modelDescription && a.modelName == b.modelName &&
           a.modelURL == b.modelURL && a.softwareVersion == b.softwareVersion &&
           a.hardwareVersion == b.hardwareVersion && a.serialNum == b.serialNum && a.udn == b.udn &&
           a.minCompatibleVersion == b.minCompatibleVersion &&
           a.legacyCompatibleVersion == b.legacyCompatibleVersion && a.apiVersion == b.apiVersion &&
           a.displayVersion == b.displayVersion && a.extraVersion == b.extraVersion &&
           a.roomName == b.roomName && a.displayName == b.displayName && a.zoneType == b.zoneType &&
           a.feature1 == b.feature1 && a.feature2 == b.feature2 && a.feature3 == b.feature3 &&
           a.variant == b.variant && a.internalSpeakerSize == b.internalSpeakerSize &&
           sameFloat(a.bassExtension, b.bassExtension) &&
           sameFloat(a.satGainOffset, b.satGainOffset) && a.memory == b.memory &&
           a.flash == b.flash && a.flashRepartitioned == b.flashRepartitioned &&
           a.ampOnTime == b.ampOnTime && a.retailMode == b.retailMode;
}

// A description with every field present, modelled on a Play:3.
inline DeviceInfo fullDeviceInfo(const QString &host = QStringLiteral("192.0.2.10"))
{
    DeviceInfo info;
    info.location = QUrl(QStringLiteral("http://%1:1400/xml/device_description.xml").arg(host));
    info.server = QStringLiteral("Linux UPnP/1.0 Sonos/28.1-83040 (ZPS3)");
    info.deviceType = QStringLiteral("urn:schemas-upnp-org:device:ZonePlayer:1");
    info.friendlyName = QStringLiteral("%1 - Sonos PLAY:3").arg(host);
    info.manufacturer = QStringLiteral("Sonos, Inc.");
    info.manufacturerURL = QUrl(QStringLiteral("http://www.sonos.com"));
    info.modelNumber = QStringLiteral("S3");
    info.modelDescription = QStringLiteral("Sonos PLAY:3");
    info.modelName = QStringLiteral("Sonos PLAY:3");
    info.modelURL = QUrl(QStringLiteral("http://www.sonos.com/products/zoneplayers/S3"));
    info.softwareVersion = QStringLiteral("28.1-83040");
    info.hardwareVersion = QStringLiteral("1.8.3.7-2");
    info.serialNum = QStringLiteral("00-0E-58-28-3B-D4:4");
    info.udn = QStringLiteral("uuid:RINCON_000E58283BD401400");
    auto icon = std::make_shared<DeviceInfo::Icon>();
    icon->id = 0;
    icon->mimetype = QStringLiteral("image/png");
    icon->width = 48;
    icon->height = 48;
    icon->depth = 32;
    icon->url = info.location.resolved(QUrl(QStringLiteral("/img/icon-S3.png")));
    info.iconList.push_back(icon);
    info.iconList.push_back(std::make_shared<DeviceInfo::Icon>()); // an entry with nothing in it
    info.minCompatibleVersion = QStringLiteral("27.0-00000");
    info.legacyCompatibleVersion = QStringLiteral("24.0-0000");
    info.apiVersion = QStringLiteral("1.1.0");
    info.displayVersion = QStringLiteral("5.4");
    info.extraVersion = QString();
    info.roomName = QStringLiteral("K\u00fcche \U0001F3B5");
    info.displayName = QStringLiteral("PLAY:3");
    info.zoneType = 8;
    info.feature1 = QStringLiteral("0x00000000");
    info.feature2 = QStringLiteral("0x00403332");
    info.feature3 = QStringLiteral("0x0001302a");
    info.variant = 0;
    info.internalSpeakerSize = -1;
    info.bassExtension = 75.0f;
    info.satGainOffset = 0.1f;
    info.memory = 9007199254740993LL; // 2^53 + 1: not representable as a double
    info.flash = 64;
    info.flashRepartitioned = -9223372036854775807LL - 1;
    info.ampOnTime = 10;
    info.retailMode = 0;
    return info;
}
