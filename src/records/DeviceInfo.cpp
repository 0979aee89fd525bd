// SPDX-License-Identifier: GPL-3.0-or-later
#include "DeviceInfo.h"

#include <algorithm>

#include "JsonReader.h"

#include <cmath>
#include <QJsonArray>

using Info = DeviceInfo;
using Icon = DeviceInfo::Icon;

const std::vector<RecordField<DeviceInfo>> deviceInfoFields = {
    {"server", nullptr, &Info::server},
    {"deviceType", "deviceType", &Info::deviceType},
    {"friendlyName", "friendlyName", &Info::friendlyName},
    {"manufacturer", "manufacturer", &Info::manufacturer},
    {"manufacturerURL", "manufacturerURL", &Info::manufacturerURL},
    {"modelNumber", "modelNumber", &Info::modelNumber},
    {"modelDescription", "modelDescription", &Info::modelDescription},
    {"modelName", "modelName", &Info::modelName},
    {"modelURL", "modelURL", &Info::modelURL},
    {"softwareVersion", "softwareVersion", &Info::softwareVersion},
    {"hardwareVersion", "hardwareVersion", &Info::hardwareVersion},
    {"serialNum", "serialNum", &Info::serialNum},
    {"udn", "UDN", &Info::udn},
    {"minCompatibleVersion", "minCompatibleVersion", &Info::minCompatibleVersion},
    {"legacyCompatibleVersion", "legacyCompatibleVersion", &Info::legacyCompatibleVersion},
    {"apiVersion", "apiVersion", &Info::apiVersion},
    {"displayVersion", "displayVersion", &Info::displayVersion},
    {"extraVersion", "extraVersion", &Info::extraVersion},
    {"roomName", "roomName", &Info::roomName},
    {"displayName", "displayName", &Info::displayName},
    {"zoneType", "zoneType", &Info::zoneType},
    {"feature1", "feature1", &Info::feature1},
    {"feature2", "feature2", &Info::feature2},
    {"feature3", "feature3", &Info::feature3},
    {"variant", "variant", &Info::variant},
    {"internalSpeakerSize", "internalSpeakerSize", &Info::internalSpeakerSize},
    {"bassExtension", "bassExtension", &Info::bassExtension},
    {"satGainOffset", "satGainOffset", &Info::satGainOffset},
    {"memory", "memory", &Info::memory},
    {"flash", "flash", &Info::flash},
    {"flashRepartitioned", "flashRepartitioned", &Info::flashRepartitioned},
    {"ampOnTime", "ampOnTime", &Info::ampOnTime},
    {"retailMode", "retailMode", &Info::retailMode},
};

const std::vector<RecordField<DeviceInfo::Icon>> iconFields = {
    {"id", "id", &Icon::id},          {"mimetype", "mimetype", &Icon::mimetype},
    {"width", "width", &Icon::width}, {"height", "height", &Icon::height},
    {"depth", "depth", &Icon::depth},
};

namespace {
template <typename Record>
void writeFields(QJsonObject &json, const Record &record,
                 const std::vector<RecordField<Record>> &fields)
{
    for (const auto &field : fields) {
        std::visit(
            [&](auto member) {
                const auto &value = record.*member;
                if (!value)
                    return;
                using T = std::decay_t<decltype(*value)>;
                const QLatin1String key(field.key);
                if constexpr (std::is_same_v<T, QUrl>)
                    json.insert(key, absoluteString(*value));
                else if constexpr (std::is_same_v<T, float>) {
                    // A non-finite float is not written, so a bad description can never make
                    // the settings unreadable.
                    if (std::isfinite(*value))
                        json.insert(key, static_cast<double>(*value));
                } else
                    json.insert(key, QJsonValue(*value));
            },
            field.member);
    }
}

template <typename Record>
void readFields(JsonReader &reader, Record &record, const std::vector<RecordField<Record>> &fields)
{
    for (const auto &field : fields) {
        std::visit(
            [&](auto member) {
                using T = std::decay_t<decltype(*(record.*member))>;
                record.*member = reader.get<T>(QLatin1String(field.key));
            },
            field.member);
    }
}
} // namespace

bool DeviceInfo::hasOwnAirPlay() const
{
    // The Sonos models without AirPlay of their own (PLAY:1, PLAY:3, the first PLAY:5,
    // PLAYBAR, CONNECT and CONNECT:AMP), as AirConnect users list them for the bridge's model
    // filter to avoid doubles (philippe44/AirConnect issues #303 and #316).
    static const QStringList withoutAirPlay = {QStringLiteral("S1"),    QStringLiteral("S3"),
                                               QStringLiteral("S5"),    QStringLiteral("S9"),
                                               QStringLiteral("S12"),   QStringLiteral("ZP80"),
                                               QStringLiteral("ZP90"),  QStringLiteral("S15"),
                                               QStringLiteral("ZP100"), QStringLiteral("ZP120")};
    const QString model = modelNumber.value_or(QString()).trimmed();
    return !model.isEmpty() && !withoutAirPlay.contains(model, Qt::CaseInsensitive);
}

bool DeviceInfo::isControlCharacter(QChar c)
{
    const char16_t u = c.unicode();
    return u < 0x20 || (u >= 0x7F && u <= 0x9F) || u == 0x2028 || u == 0x2029;
}

namespace {
// A text from a player as one line: its control characters (line breaks among them) become
// spaces, and the ends are trimmed.
QString oneLine(QString text)
{
    std::replace_if(text.begin(), text.end(), DeviceInfo::isControlCharacter, QLatin1Char(' '));
    return text.trimmed();
}
} // namespace

QString DeviceInfo::defaultName() const
{
    // Players send trailing line breaks and spaces; the name shown is one trimmed line.
    if (roomName && displayName)
        return oneLine(*roomName) + QStringLiteral(" - ") + oneLine(*displayName);
    if (friendlyName)
        return oneLine(*friendlyName);
    const QString host = location.host();
    if (!host.isEmpty())
        return host;
    return absoluteString(location);
}

QJsonObject DeviceInfo::Icon::toJson() const
{
    QJsonObject json;
    writeFields(json, *this, iconFields);
    if (url)
        json.insert(QStringLiteral("url"), absoluteString(*url));
    return json;
}

std::shared_ptr<const DeviceInfo::Icon> DeviceInfo::Icon::fromJson(const QJsonObject &object,
                                                                   QString *error)
{
    JsonReader reader(object, QStringLiteral("Icon"));
    auto icon = std::make_shared<Icon>();
    readFields(reader, *icon, iconFields);
    icon->url = reader.get<QUrl>(QStringLiteral("url"));
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
    writeFields(json, *this, deviceInfoFields);
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
    const auto location = reader.get<QUrl>(QStringLiteral("location"), true);
    const auto icons = reader.get<QJsonArray>(QStringLiteral("iconList"), true);
    readFields(reader, info, deviceInfoFields);
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

bool DeviceInfo::operator==(const DeviceInfo &other) const
{
    return toJson() == other.toJson();
}

LocationKey::LocationKey(const QUrl &location) : url(location), text(absoluteString(location)) {}

QJsonObject DeviceTopology::toJson() const
{
    return QJsonObject{{QStringLiteral("coordinator"), coordinator},
                       {QStringLiteral("group"), group}};
}

std::optional<DeviceTopology> DeviceTopology::fromJson(const QJsonObject &object, QString *error)
{
    JsonReader reader(object, QStringLiteral("DeviceTopology"));
    const auto coordinator = reader.get<bool>(QStringLiteral("coordinator"), true);
    const auto group = reader.get<QString>(QStringLiteral("group"), true);
    if (!reader.ok()) {
        if (error)
            *error = reader.error();
        return std::nullopt;
    }
    return DeviceTopology{*coordinator, *group};
}
