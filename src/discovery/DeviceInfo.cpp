// SPDX-License-Identifier: GPL-3.0-or-later
#include "DeviceInfo.h"

#include "JsonReader.h"

#include <cmath>
#include <QJsonArray>

namespace {
template <typename Record, typename Value> struct Field
{
    const char *key;
    std::optional<Value> Record::*member;
};

using Info = DeviceInfo;
using Icon = DeviceInfo::Icon;

// The optional fields by JSON type; location and iconList are handled on their own.
constexpr Field<Info, QString> infoTexts[] = {
    {"server", &Info::server},
    {"deviceType", &Info::deviceType},
    {"friendlyName", &Info::friendlyName},
    {"manufacturer", &Info::manufacturer},
    {"modelNumber", &Info::modelNumber},
    {"modelDescription", &Info::modelDescription},
    {"modelName", &Info::modelName},
    {"softwareVersion", &Info::softwareVersion},
    {"hardwareVersion", &Info::hardwareVersion},
    {"serialNum", &Info::serialNum},
    {"udn", &Info::udn},
    {"minCompatibleVersion", &Info::minCompatibleVersion},
    {"legacyCompatibleVersion", &Info::legacyCompatibleVersion},
    {"apiVersion", &Info::apiVersion},
    {"displayVersion", &Info::displayVersion},
    {"extraVersion", &Info::extraVersion},
    {"roomName", &Info::roomName},
    {"displayName", &Info::displayName},
    {"feature1", &Info::feature1},
    {"feature2", &Info::feature2},
    {"feature3", &Info::feature3},
};
constexpr Field<Info, QUrl> infoUrls[] = {
    {"manufacturerURL", &Info::manufacturerURL},
    {"modelURL", &Info::modelURL},
};
constexpr Field<Info, qint64> infoIntegers[] = {
    {"zoneType", &Info::zoneType},
    {"variant", &Info::variant},
    {"internalSpeakerSize", &Info::internalSpeakerSize},
    {"memory", &Info::memory},
    {"flash", &Info::flash},
    {"flashRepartitioned", &Info::flashRepartitioned},
    {"ampOnTime", &Info::ampOnTime},
    {"retailMode", &Info::retailMode},
};
constexpr Field<Info, float> infoFloats[] = {
    {"bassExtension", &Info::bassExtension},
    {"satGainOffset", &Info::satGainOffset},
};
constexpr Field<Icon, qint64> iconIntegers[] = {
    {"id", &Icon::id},
    {"width", &Icon::width},
    {"height", &Icon::height},
    {"depth", &Icon::depth},
};

template <typename Record, size_t N>
void writeTexts(QJsonObject &json, const Record &record, const Field<Record, QString> (&fields)[N])
{
    for (const auto &field : fields) {
        if (const auto &v = record.*field.member)
            json.insert(QLatin1String(field.key), *v);
    }
}

template <typename Record, size_t N>
void writeIntegers(QJsonObject &json, const Record &record,
                   const Field<Record, qint64> (&fields)[N])
{
    for (const auto &field : fields) {
        if (const auto &v = record.*field.member)
            json.insert(QLatin1String(field.key), QJsonValue(*v));
    }
}

template <typename Record, size_t N>
void writeUrls(QJsonObject &json, const Record &record, const Field<Record, QUrl> (&fields)[N])
{
    for (const auto &field : fields) {
        if (const auto &v = record.*field.member)
            json.insert(QLatin1String(field.key), absoluteString(*v));
    }
}

template <typename Record, typename Value, size_t N, typename ReadFn>
void readFields(JsonReader &reader, Record &record, const Field<Record, Value> (&fields)[N],
                ReadFn read)
{
    for (const auto &field : fields)
        record.*field.member = (reader.*read)(QLatin1String(field.key), false);
}
} // namespace

QString DeviceInfo::defaultName() const
{
    if (roomName && displayName)
        return *roomName + QStringLiteral(" - ") + *displayName;
    if (friendlyName)
        return *friendlyName;
    const QString host = location.host();
    if (!host.isEmpty())
        return host;
    return absoluteString(location);
}

QJsonObject DeviceInfo::Icon::toJson() const
{
    QJsonObject json;
    writeIntegers(json, *this, iconIntegers);
    if (mimetype)
        json.insert(QStringLiteral("mimetype"), *mimetype);
    if (url)
        json.insert(QStringLiteral("url"), absoluteString(*url));
    return json;
}

std::shared_ptr<const DeviceInfo::Icon> DeviceInfo::Icon::fromJson(const QJsonObject &object,
                                                                   QString *error)
{
    JsonReader reader(object, QStringLiteral("Icon"));
    auto icon = std::make_shared<Icon>();
    readFields(reader, *icon, iconIntegers, &JsonReader::integer);
    icon->mimetype = reader.string(QStringLiteral("mimetype"));
    icon->url = reader.url(QStringLiteral("url"));
    if (!reader.ok()) {
        if (error)
            *error = reader.error();
        return nullptr;
    }
    return icon;
}

QJsonObject DeviceInfo::toJson() const
{
    QJsonObject json;
    json.insert(QStringLiteral("location"), absoluteString(location));
    writeTexts(json, *this, infoTexts);
    writeUrls(json, *this, infoUrls);
    writeIntegers(json, *this, infoIntegers);
    for (const auto &field : infoFloats) {
        const auto &v = this->*field.member;
        if (v && std::isfinite(*v))
            json.insert(QLatin1String(field.key), static_cast<double>(*v));
    }
    QJsonArray icons;
    for (const auto &icon : iconList)
        icons.append(icon ? icon->toJson() : QJsonObject());
    json.insert(QStringLiteral("iconList"), icons);
    return json;
}

std::optional<DeviceInfo> DeviceInfo::fromJson(const QJsonObject &object, QString *error)
{
    JsonReader reader(object, QStringLiteral("DeviceInfo"));
    DeviceInfo info;
    const auto location = reader.url(QStringLiteral("location"), true);
    const auto icons = reader.array(QStringLiteral("iconList"), true);
    readFields(reader, info, infoTexts, &JsonReader::string);
    readFields(reader, info, infoUrls, &JsonReader::url);
    readFields(reader, info, infoIntegers, &JsonReader::integer);
    readFields(reader, info, infoFloats, &JsonReader::floatNumber);
    if (reader.ok()) {
        info.location = *location;
        for (const QJsonValue &entry : *icons) {
            if (!entry.isObject()) {
                reader.fail(QStringLiteral("an iconList entry is not an object"));
                break;
            }
            QString iconError;
            auto icon = Icon::fromJson(entry.toObject(), &iconError);
            if (!icon) {
                reader.fail(iconError);
                break;
            }
            info.iconList.push_back(std::move(icon));
        }
    }
    if (!reader.ok()) {
        if (error)
            *error = reader.error();
        return std::nullopt;
    }
    return info;
}

bool LocationOrder::operator()(const QUrl &a, const QUrl &b) const
{
    return absoluteString(a) < absoluteString(b);
}

QJsonObject DeviceTopology::toJson() const
{
    return QJsonObject{{QStringLiteral("coordinator"), coordinator},
                       {QStringLiteral("group"), group}};
}

std::optional<DeviceTopology> DeviceTopology::fromJson(const QJsonObject &object, QString *error)
{
    JsonReader reader(object, QStringLiteral("DeviceTopology"));
    const auto coordinator = reader.boolean(QStringLiteral("coordinator"), true);
    const auto group = reader.string(QStringLiteral("group"), true);
    if (!reader.ok()) {
        if (error)
            *error = reader.error();
        return std::nullopt;
    }
    return DeviceTopology{*coordinator, *group};
}
