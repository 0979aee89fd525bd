// SPDX-License-Identifier: GPL-3.0-or-later
#include "DescriptionParser.h"

#include "JsonReader.h"

#include <clocale>
#include <cstdlib>
#include <locale.h>
#include <pugixml.hpp>
#include <QRegularExpression>

namespace {
// The character data directly inside an element, unchanged.
QString elementText(const pugi::xml_node &element)
{
    QByteArray text;
    for (const pugi::xml_node &child : element.children()) {
        if (child.type() == pugi::node_pcdata || child.type() == pugi::node_cdata)
            text += child.value();
    }
    return QString::fromUtf8(text);
}

std::optional<QString> childText(const pugi::xml_node &parent, const char *name)
{
    const pugi::xml_node child = parent.child(name);
    if (!child)
        return std::nullopt;
    return elementText(child);
}

std::optional<qint64> childInteger(const pugi::xml_node &parent, const char *name)
{
    const auto text = childText(parent, name);
    return text ? DescriptionParser::parseInteger(*text) : std::nullopt;
}

std::optional<float> childFloat(const pugi::xml_node &parent, const char *name)
{
    const auto text = childText(parent, name);
    return text ? DescriptionParser::parseFloat(*text) : std::nullopt;
}

std::optional<QUrl> childUrl(const pugi::xml_node &parent, const char *name)
{
    const auto text = childText(parent, name);
    if (!text || text->isEmpty())
        return std::nullopt;
    const QUrl url(*text, QUrl::StrictMode);
    return url.isValid() ? std::optional<QUrl>(url) : std::nullopt;
}

// Fills every field that has an element among parent's children, each by its type's rule.
template <typename Record>
void readElements(const pugi::xml_node &parent, Record &record,
                  const std::vector<RecordField<Record>> &fields)
{
    for (const auto &field : fields) {
        if (!field.element)
            continue;
        std::visit(
            [&](auto member) {
                using T = std::decay_t<decltype(*(record.*member))>;
                if constexpr (std::is_same_v<T, QString>)
                    record.*member = childText(parent, field.element);
                else if constexpr (std::is_same_v<T, QUrl>)
                    record.*member = childUrl(parent, field.element);
                else if constexpr (std::is_same_v<T, qint64>)
                    record.*member = childInteger(parent, field.element);
                else
                    record.*member = childFloat(parent, field.element);
            },
            field.member);
    }
}

// pugixml keeps what it parsed before an error, which is the leniency wanted here, so the
// result is not looked at. It never expands DTD entities and parses without recursion, so
// hostile documents stay cheap.
void load(pugi::xml_document &document, const QByteArray &body)
{
    document.load_buffer(body.constData(), static_cast<size_t>(body.size()), pugi::parse_default,
                         pugi::encoding_utf8);
}

locale_t cLocale()
{
    static const locale_t locale = newlocale(LC_ALL_MASK, "C", static_cast<locale_t>(nullptr));
    return locale;
}
} // namespace

std::optional<qint64> DescriptionParser::parseInteger(const QString &text)
{
    // Digits only, with at most a leading sign: toLongLong alone would take spaces around.
    for (qsizetype i = 0; i < text.size(); ++i) {
        const QChar c = text.at(i);
        if (i == 0 && (c == QLatin1Char('+') || c == QLatin1Char('-')))
            continue;
        if (c < QLatin1Char('0') || c > QLatin1Char('9'))
            return std::nullopt;
    }
    bool ok; // set by the conversion: an empty text or a lone sign is no number
    const qint64 value = text.toLongLong(&ok, 10);
    return ok ? std::optional<qint64>(value) : std::nullopt;
}

std::optional<float> DescriptionParser::parseFloat(const QString &text)
{
    if (text.isEmpty() || QStringLiteral("\t\n\v\f\r ").contains(text.at(0)))
        return std::nullopt;
    const QByteArray bytes = text.toUtf8();
    char *end = nullptr;
    const float value = strtof_l(bytes.constData(), &end, cLocale());
    if (end != bytes.constData() + bytes.size())
        return std::nullopt; // not consumed to the end (also a NUL inside the text)
    return value;
}

std::optional<DeviceInfo>
DescriptionParser::parseDeviceDescription(const QByteArray &body, const QUrl &location,
                                          const std::optional<QString> &server)
{
    pugi::xml_document document;
    load(document, body);
    const pugi::xml_node device = document.child("root").child("device");
    if (!device)
        return std::nullopt;

    DeviceInfo info;
    info.location = location;
    info.server = server;
    readElements(device, info, deviceInfoFields);
    for (const pugi::xml_node &entry : device.child("iconList").children()) {
        if (entry.type() != pugi::node_element)
            continue;
        if (info.iconList.size() == maxIcons)
            break;
        auto icon = std::make_shared<DeviceInfo::Icon>();
        readElements(entry, *icon, iconFields);
        if (const auto url = childText(entry, "url"); url && !url->isEmpty()) {
            const QUrl relative(*url, QUrl::StrictMode);
            if (relative.isValid())
                icon->url = location.resolved(relative);
        }
        info.iconList.push_back(std::move(icon));
    }
    return info;
}

QString DescriptionParser::udnKey(const DeviceInfo &info)
{
    if (!info.udn)
        return absoluteString(info.location);
    // "^" matches at every line start, as the pattern is applied to the text as written.
    static const QRegularExpression prefix(QStringLiteral("^uuid:"),
                                           QRegularExpression::MultilineOption);
    return QString(*info.udn).replace(prefix, QString());
}

DeviceTopology DescriptionParser::ownGroup(const QString &udnKey)
{
    return DeviceTopology{true, udnKey};
}

DeviceTopology DescriptionParser::parseTopology(const QByteArray &body, const QString &udnKey)
{
    return topologyFor(parseTopologyTable(body), udnKey);
}

DescriptionParser::TopologyTable DescriptionParser::parseTopologyTable(const QByteArray &body)
{
    pugi::xml_document document;
    load(document, body);
    TopologyTable table;
    for (const pugi::xml_node &entry :
         document.child("ZPSupportInfo").child("ZonePlayers").children()) {
        if (entry.type() != pugi::node_element)
            continue;
        const pugi::xml_attribute uuid = entry.attribute("uuid");
        const pugi::xml_attribute coordinator = entry.attribute("coordinator");
        const QByteArray flag = coordinator ? QByteArray(coordinator.value()) : QByteArray();
        const pugi::xml_attribute group = entry.attribute("group");
        if (!uuid || (flag != "true" && flag != "false") || !group)
            continue;
        table.emplace(QString::fromUtf8(uuid.value()),
                      DeviceTopology{flag == "true", QString::fromUtf8(group.value())});
    }
    return table;
}

DeviceTopology DescriptionParser::topologyFor(const TopologyTable &table, const QString &udnKey)
{
    const auto found = table.find(udnKey);
    return found != table.end() ? found->second : ownGroup(udnKey);
}
