// SPDX-License-Identifier: GPL-3.0-or-later
// A device description body, then the record it gives written as JSON and read back.
#include "DescriptionParser.h"

#include <QJsonDocument>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const QByteArray body(reinterpret_cast<const char *>(data), qsizetype(size));
    static const QUrl location(QStringLiteral("http://192.0.2.10:1400/xml/device_description.xml"));
    const auto info =
        DescriptionParser::parseDeviceDescription(body, location, QStringLiteral("server"));
    if (info) {
        (void)info->defaultName();
        (void)DescriptionParser::udnKey(*info);
        const QByteArray json = QJsonDocument(info->toJson()).toJson(QJsonDocument::Compact);
        QString error;
        if (!DeviceInfo::fromJson(QJsonDocument::fromJson(json).object(), &error))
            __builtin_trap(); // whatever a description holds must survive the settings
    }
    return 0;
}
